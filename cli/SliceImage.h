#pragma once

#include <string>
#include <vector>

class OutputSet;
class mrClipBSP;

// A picture of one axis-aligned cross-section of a clip BSP: every pixel is a contents
// query at the pixel's centre, over the clip BSP's bounds on the two other axes. Empty
// space is light, solid (-2 and below) dark, the marked solid kind (-3) orange. The
// picture's right and up follow the other two axes in x, y, z order (for z: x right, y
// up). The PNG frames it: the slice's axis and place and a legend of the three colours
// above it, the world coordinates of its edges beside and below it.
class SliceImage
{
public:
    struct Counts
    {
        long empty = 0;
        long solid = 0;
        long marked = 0;
    };

    // `axis` is 0, 1 or 2; the longer side of the picture gets `size` pixels. False with a
    // message when the bounds span no area.
    bool render(const mrClipBSP& bsp, int axis, float at, int size, std::string& error);
    // Encodes the framed picture as PNG into a new output of `outputs`.
    bool writePng(OutputSet& outputs, const std::string& path, std::string& error) const;

    // The cross-section itself, without its frame.
    int width() const { return m_width; }
    int height() const { return m_height; }
    const Counts& counts() const { return m_counts; }
    // The axes running right and up (0, 1, 2), and the world coordinates of the edges.
    int rightAxis() const { return m_u; }
    int upAxis() const { return m_v; }
    float left() const { return m_u0; }
    float right() const { return m_u1; }
    float bottom() const { return m_v0; }
    float top() const { return m_v1; }
    // The PNG's size, frame included.
    int imageWidth() const { return m_frameWidth; }
    int imageHeight() const { return m_frameHeight; }

    static const char* axisName(int axis) { return axis == 0 ? "x" : axis == 1 ? "y" : "z"; }

private:
    void frame();

    int m_axis = 2;
    float m_at = 0;
    int m_u = 0, m_v = 1;
    float m_u0 = 0, m_u1 = 0, m_v0 = 0, m_v1 = 0;
    int m_width = 0;
    int m_height = 0;
    std::vector<unsigned char> m_rgb;
    int m_frameWidth = 0;
    int m_frameHeight = 0;
    std::vector<unsigned char> m_framed;
    Counts m_counts;
};
