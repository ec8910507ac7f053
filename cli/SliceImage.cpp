#include "SliceImage.h"

#include <cmath>
#include <cstdio>

#include <meridbsp/clip/mrClipBSP.h>

#include "OutputSet.h"

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
    return true;
}

bool SliceImage::writePng(OutputSet& outputs, const std::string& path, std::string& error) const
{
    std::vector<unsigned char> png;
    if (m_rgb.empty() || !stbi_write_png_to_func(appendBytes, &png, m_width, m_height, 3, m_rgb.data(), m_width * 3) ||
        png.empty())
    {
        error = path + ": cannot encode the picture";
        return false;
    }
    return outputs.writeFile(path, png.data(), png.size(), error);
}
