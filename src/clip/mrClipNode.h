#pragma once

#include <cstdint>
#include <type_traits>

// One decision node of a clip BSP. The node array is handed to parameter blocks and
// files as raw bytes, so the record is exactly three little-endian 32-bit integers.
// A child of 0 or more is a node index; a negative child is a leaf holding its
// contents (-1 empty, -2 or below solid).
class mrClipNode
{
public:
    int32_t planeIndex; // index into the clip BSP's plane array
    int32_t child[2];   // [0] front (signed distance >= 0), [1] back

    // Defaulted so the record stays trivially copyable: node blocks are raw storage
    // filled by memcpy. The default constructor leaves the fields unset, like raw storage.
    mrClipNode() = default;
    mrClipNode(const mrClipNode&) = default;
    mrClipNode& operator=(const mrClipNode&) = default;
};

static_assert(sizeof(mrClipNode) == 12, "mrClipNode must be exactly 12 bytes");
static_assert(std::is_trivially_copyable<mrClipNode>::value, "node blocks are copied as raw bytes");
static_assert(std::is_standard_layout<mrClipNode>::value, "node blocks are exposed as raw bytes");
