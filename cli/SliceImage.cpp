#include "SliceImage.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <meridbsp/clip/mrClipBSP.h>
#include <meridbsp/platform/core/mrProgress.h>

#include "OutputSet.h"
#include "Tool.h"

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wunused-function"
#endif
#include <stb/stb_image_write.h>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

namespace
{

const unsigned char EMPTY_RGB[3] = {232, 232, 224};
const unsigned char SOLID_RGB[3] = {48, 52, 60};
const unsigned char MARKED_RGB[3] = {214, 120, 40};
const unsigned char PAPER_RGB[3] = {255, 255, 255};
const unsigned char INK_RGB[3] = {20, 20, 20};

// A 5 x 7 pixel font for the frame's labels: each glyph is seven rows, top first, of five
// bits, the leftmost pixel in bit 4. Characters without a glyph are left blank.
struct Glyph
{
    char c;
    unsigned char rows[7];
};
const Glyph FONT[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}}, {'+', {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}}, {'=', {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}},
    {'>', {0x10, 0x08, 0x04, 0x02, 0x04, 0x08, 0x10}}, {'^', {0x04, 0x0A, 0x11, 0x00, 0x00, 0x00, 0x00}},
    {'a', {0x00, 0x00, 0x0E, 0x01, 0x0F, 0x11, 0x0F}}, {'d', {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}},
    {'e', {0x00, 0x00, 0x0E, 0x11, 0x1F, 0x10, 0x0E}}, {'i', {0x04, 0x00, 0x0C, 0x04, 0x04, 0x04, 0x0E}},
    {'k', {0x10, 0x10, 0x12, 0x14, 0x18, 0x14, 0x12}}, {'l', {0x0C, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'m', {0x00, 0x00, 0x1A, 0x15, 0x15, 0x11, 0x11}}, {'o', {0x00, 0x00, 0x0E, 0x11, 0x11, 0x11, 0x0E}},
    {'p', {0x00, 0x00, 0x1E, 0x11, 0x1E, 0x10, 0x10}}, {'r', {0x00, 0x00, 0x16, 0x19, 0x10, 0x10, 0x10}},
    {'s', {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E}}, {'t', {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}},
    {'x', {0x00, 0x00, 0x11, 0x0A, 0x04, 0x0A, 0x11}}, {'y', {0x00, 0x00, 0x11, 0x11, 0x0F, 0x01, 0x0E}},
    {'z', {0x00, 0x00, 0x1F, 0x02, 0x04, 0x08, 0x1F}},
};

// An RGB canvas the frame is drawn on.
struct Canvas
{
    int width, height, scale;
    std::vector<unsigned char>& rgb;

    void fill(int x, int y, int w, int h, const unsigned char* colour)
    {
        for (int row = std::max(0, y); row < std::min(height, y + h); ++row)
            for (int col = std::max(0, x); col < std::min(width, x + w); ++col)
                std::memcpy(&rgb[((size_t)row * (size_t)width + (size_t)col) * 3], colour, 3);
    }
    int advance() const { return 6 * scale; }
    int textWidth(const std::string& text) const { return (int)text.size() * advance() - scale; }
    int lineHeight() const { return 7 * scale; }
    void text(int x, int y, const std::string& s)
    {
        for (char c : s)
        {
            for (const Glyph& g : FONT)
            {
                if (g.c != c)
                    continue;
                for (int row = 0; row < 7; ++row)
                    for (int col = 0; col < 5; ++col)
                        if (g.rows[row] & (0x10 >> col))
                            fill(x + col * scale, y + row * scale, scale, scale, INK_RGB);
            }
            x += advance();
        }
    }
    // A colour swatch with an outline, one glyph cell large.
    void swatch(int x, int y, const unsigned char* colour)
    {
        fill(x, y, 7 * scale, 7 * scale, INK_RGB);
        fill(x + 1, y + 1, 7 * scale - 2, 7 * scale - 2, colour);
    }
};

void appendBytes(void* context, void* data, int size)
{
    std::vector<unsigned char>* out = static_cast<std::vector<unsigned char>*>(context);
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

} // namespace

bool SliceImage::render(const mrClipBSP& bsp, int axis, float at, int size, std::string& error)
{
    int u = axis == 0 ? 1 : 0;
    int v = axis == 2 ? 1 : 2;
    double u0 = bsp.m_mins[u], u1 = bsp.m_maxs[u];
    double v0 = bsp.m_mins[v], v1 = bsp.m_maxs[v];
    if (!std::isfinite(u0) || !std::isfinite(u1) || !std::isfinite(v0) || !std::isfinite(v1) || !(u1 > u0) ||
        !(v1 > v0))
    {
        error = "the clip BSP's bounds span no area on this slice";
        return false;
    }
    m_axis = axis;
    m_at = at;
    m_u = u;
    m_v = v;
    m_u0 = (float)u0;
    m_u1 = (float)u1;
    m_v0 = (float)v0;
    m_v1 = (float)v1;
    double spanU = u1 - u0, spanV = v1 - v0;
    if (spanU >= spanV)
    {
        m_width = size;
        m_height = (int)std::lround(size * spanV / spanU);
    }
    else
    {
        m_height = size;
        m_width = (int)std::lround(size * spanU / spanV);
    }
    if (m_width < 1)
        m_width = 1;
    if (m_height < 1)
        m_height = 1;

    m_rgb.assign((size_t)m_width * (size_t)m_height * 3, 0);
    m_counts = Counts();
    srVector3T<float> p;
    p[axis] = at;
    for (int row = 0; row < m_height; ++row)
    {
        mrProgress::reach((uint64_t)row);
        // Row 0 is the top of the picture: the upper end of the vertical axis.
        p[v] = (float)(v1 - (row + 0.5) * spanV / m_height);
        for (int col = 0; col < m_width; ++col)
        {
            p[u] = (float)(u0 + (col + 0.5) * spanU / m_width);
            int contents = bsp.pointInfo(0, p);
            const unsigned char* rgb = SOLID_RGB;
            if (contents >= -1)
            {
                rgb = EMPTY_RGB;
                ++m_counts.empty;
            }
            else if (contents == -3)
            {
                rgb = MARKED_RGB;
                ++m_counts.marked;
            }
            else
                ++m_counts.solid;
            unsigned char* out = &m_rgb[((size_t)row * (size_t)m_width + (size_t)col) * 3];
            out[0] = rgb[0];
            out[1] = rgb[1];
            out[2] = rgb[2];
        }
    }
    frame();
    return true;
}

void SliceImage::frame()
{
    const int scale = std::max(m_width, m_height) >= 384 ? 2 : 1;
    const int gap = 4 * scale;
    std::vector<unsigned char> scratch;
    Canvas measure{0, 0, scale, scratch};

    // Above: which slice, and the legend. Left: the up axis's top and bottom coordinates and
    // its name. Below: the right axis's left and right coordinates and its name.
    const std::string title = std::string(axisName(m_axis)) + " = " + Tool::real(m_at);
    const char* names[3] = {"empty", "solid", "marked solid"};
    const unsigned char* colours[3] = {EMPTY_RGB, SOLID_RGB, MARKED_RGB};
    int legendWidth = measure.textWidth(title);
    for (const char* name : names)
        legendWidth += 3 * gap + measure.advance() + measure.textWidth(name);
    const std::string top = Tool::real(m_v1), bottom = Tool::real(m_v0), up = std::string("^ ") + axisName(m_v);
    const std::string left = Tool::real(m_u0), right = Tool::real(m_u1), across = std::string(axisName(m_u)) + " >";
    const int leftBand =
        std::max(measure.textWidth(top), std::max(measure.textWidth(bottom), measure.textWidth(up))) + 2 * gap;
    const int topBand = measure.lineHeight() + 2 * gap;
    const int bottomBand = 2 * measure.lineHeight() + 3 * gap;
    const int rightBand = std::max(gap, measure.textWidth(right) / 2);

    m_frameWidth = std::max(leftBand + m_width + rightBand, legendWidth + 2 * gap);
    m_frameHeight = topBand + m_height + bottomBand;
    m_framed.assign((size_t)m_frameWidth * (size_t)m_frameHeight * 3, 0);
    Canvas c{m_frameWidth, m_frameHeight, scale, m_framed};
    c.fill(0, 0, m_frameWidth, m_frameHeight, PAPER_RGB);
    // The section inside a one-pixel outline.
    c.fill(leftBand - 1, topBand - 1, m_width + 2, m_height + 2, INK_RGB);
    for (int row = 0; row < m_height; ++row)
        std::memcpy(&m_framed[((size_t)(topBand + row) * (size_t)m_frameWidth + (size_t)leftBand) * 3],
                    &m_rgb[(size_t)row * (size_t)m_width * 3], (size_t)m_width * 3);

    int x = gap;
    c.text(x, gap, title);
    x += measure.textWidth(title);
    for (int i = 0; i < 3; ++i)
    {
        x += 3 * gap;
        c.swatch(x, gap, colours[i]);
        x += measure.advance() + gap;
        c.text(x, gap, names[i]);
        x += measure.textWidth(names[i]) - gap;
    }

    c.text(leftBand - gap - measure.textWidth(top), topBand, top);
    c.text(leftBand - gap - measure.textWidth(bottom), topBand + m_height - measure.lineHeight(), bottom);
    c.text(leftBand - gap - measure.textWidth(up), topBand + (m_height - measure.lineHeight()) / 2, up);
    const int below = topBand + m_height + gap;
    c.text(leftBand, below, left);
    c.text(std::max(leftBand, leftBand + m_width - measure.textWidth(right)), below, right);
    c.text(leftBand + (m_width - measure.textWidth(across)) / 2, below + measure.lineHeight() + gap, across);
}

bool SliceImage::writePng(OutputSet& outputs, const std::string& path, std::string& error) const
{
    std::vector<unsigned char> png;
    if (m_framed.empty() ||
        !stbi_write_png_to_func(appendBytes, &png, m_frameWidth, m_frameHeight, 3, m_framed.data(), m_frameWidth * 3) ||
        png.empty())
    {
        error = path + ": cannot encode the picture";
        return false;
    }
    return outputs.writeFile(path, png.data(), png.size(), error);
}
