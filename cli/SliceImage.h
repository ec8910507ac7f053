#pragma once

#include <string>
#include <vector>

class OutputSet;
class mrClipBSP;

// A picture of one axis-aligned cross-section of a clip BSP: every pixel is a contents
// query at the pixel's centre, over the clip BSP's bounds on the two other axes. Empty
// space is light, solid (-2 and below) dark, the marked solid kind (-3) a third colour.
// The image's right and up follow the other two axes in x, y, z order.
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
    // Encodes the picture as PNG into a new output of `outputs`.
    bool writePng(OutputSet& outputs, const std::string& path, std::string& error) const;

    int width() const { return m_width; }
    int height() const { return m_height; }
    const Counts& counts() const { return m_counts; }
    const std::vector<unsigned char>& pixels() const { return m_rgb; }

private:
    int m_width = 0;
    int m_height = 0;
    std::vector<unsigned char> m_rgb;
    Counts m_counts;
};
