#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <meridbsp/clip/mrClipNode.h>
#include <meridbsp/clip/mrTrace.h>
#include <meridbsp/platform/core/mrPBAnimation.h>
#include <meridbsp/platform/dx/srClass.h>
#include <meridbsp/platform/dx/srClassSupport.h>
#include <meridbsp/platform/dx/srMatrix3T.h>
#include <meridbsp/platform/dx/srVector3T.h>
#include <meridbsp/platform/geom/mrPlane.h>

// The run-time collision object: a convex-cell partition of space held as two flat
// arrays, planes and nodes, with the root at node 0. It is an engine class (ID
// 0x60000) and an animated parameter block whose seven fields mirror its members.
//
// Ownership: the clip BSP owns both arrays. Node blocks come from allocNodes and go
// back through freeNodes; plane arrays come from allocPlanes and go back through
// freePlanes. Builders and readers may assign m_nodes / m_planes directly (with
// arrays from these allocators, holding exactly the counts they set).
//
// Parameter fields: "Nodes" publishes m_nodes itself (12-byte records). In memory a
// plane carries a type header the size of a pointer, so "Planes" publishes a packed
// copy of 20-byte records (4 zero bytes, normal x, y, z, distance) that the clip BSP
// owns. A "Nodes" or "Planes" address set from outside is adopted as a copy: the
// caller keeps its buffer, and the clip BSP never releases memory it did not allocate.
class mrClipQueryIndex;

class mrClipBSP : public srClassSupport<mrClipBSP, srClass, 1, 0x60000>, public mrPBAnimation
{
public:
    enum
    {
        PARAM_CONTENTS = 0xF001,
        PARAM_MINS = 0xF002,
        PARAM_MAXS = 0xF003,
        PARAM_NUMNODES = 0xF004,
        PARAM_NODES = 0xF005,
        PARAM_NUMPLANES = 0xF006,
        PARAM_PLANES = 0xF007,
    };
    // Bytes per record in the "Nodes" and "Planes" fields.
    static constexpr unsigned long NODE_RECORD_SIZE = 12;
    static constexpr unsigned long PLANE_RECORD_SIZE = 20;

    uint32_t m_contents;      // contents word of the whole clip BSP; 1 after construction
    srVector3T<float> m_mins; // bounds
    srVector3T<float> m_maxs;
    uint32_t m_numnodes;
    mrClipNode* m_nodes; // m_numnodes records, root first; null when there are none
    uint32_t m_numplanes;
    mrPlane* m_planes; // m_numplanes planes; null when there are none

    mrClipBSP();
    // Copies duplicate the arrays: each clip BSP releases what it holds.
    mrClipBSP(const mrClipBSP& o);
    mrClipBSP& operator=(const mrClipBSP& o);

    // Array storage shared with the builders and the chunk reader. allocNodes gives
    // zero-filled raw storage for n records, allocPlanes n default planes; both give
    // null for 0 (or when the memory cannot be had). The free functions accept null.
    static mrClipNode* allocNodes(unsigned long n);
    static void freeNodes(mrClipNode* nodes);
    static mrPlane* allocPlanes(unsigned long n);
    static void freePlanes(mrPlane* planes);

    unsigned long getContents() const { return m_contents; }
    void setContents(unsigned long contents) { m_contents = (uint32_t)contents; }

    const char* getClassName() const override { return srClass::sGetClassName(); }

    // Parameter-block binding.
    void addClassParameters(mrParamBlock* block) override;
    void refreshInstance(mrParamBlock* block) override;
    void refreshPBlock(mrParamBlock* block) override;
    e_refResult notifyRefChanged(e_refMsg message, unsigned long partID, mrRefTarget* target, unsigned long,
                                 int) override;

    // Checks what the queries take on trust: counts within the arrays, arrays present
    // exactly when counts are, plane indices in range, and every child a leaf or a
    // later node (so every descent ends). On failure writes the reason to *error (when
    // given) and returns false. Run it before querying a clip BSP from outside data.
    bool validate(std::string* error) const;

    // Queries. They only read the clip BSP and allocate nothing, so several threads may
    // query one clip BSP at once while nobody changes it. A clip BSP without nodes (or
    // without planes) is empty space: every point -1, every trace clear.
    int pointInfo(int node, const srVector3T<float>& point) const;
    int clip(int node, float p1f, float p2f, const srVector3T<float>& p1, const srVector3T<float>& p2,
             mrTrace& trace) const;
    int checkCollision(const srVector3T<float>& start, const srVector3T<float>& end, mrTrace& trace) const;

    // Builds the query index for the arrays as they stand (nothing for an invalid or very
    // small tree). The queries use it only while m_nodes, m_planes and the two counts are
    // the ones it was built from; their answers are the same with or without it, only
    // faster. The generator and the chunk reader call this, and every operation of this
    // class that changes the arrays drops the index. Code that fills or edits the arrays
    // directly calls it afterwards to get the faster queries; after editing records in
    // place it must call it (or dropQueryIndex) before querying again.
    void prepareQueries();
    // The same index built on up to `threads` threads (0: every core the process may
    // use; 1: prepareQueries itself).
    void prepareQueries(int threads);
    void dropQueryIndex();
    bool hasQueryIndex() const { return queryIndex() != nullptr; }

    // Box clip BSPs: six planes, node i on plane i, front children empty.
    void makeFromBBox(const srVector3T<float>& mins, const srVector3T<float>& maxs);
    void setFromBBox(const srVector3T<float>& mins, const srVector3T<float>& maxs);
    void setFromBBoxExt(srVector3T<float>& mins, srVector3T<float>& maxs, srVector3T<float>& origin,
                        srMatrix3T<float>& matrix);
    void rotate(srMatrix3T<float>& matrix);
    void offset(srVector3T<float>& delta);

protected:
    ~mrClipBSP() override;

    srClass* vInstance() override;
    srClass* vClone() override;

private:
    bool isEmptySpace() const { return !m_nodes || !m_numnodes || !m_planes; }
    // The index, when it still describes the arrays.
    const mrClipQueryIndex* queryIndex() const
    {
        return m_queryIndex && m_indexNodes == m_nodes && m_indexPlanes == m_planes && m_indexNumNodes == m_numnodes &&
                       m_indexNumPlanes == m_numplanes
                   ? m_queryIndex.get()
                   : nullptr;
    }
    void copyQueryIndexFrom(const mrClipBSP& o);
    // prepareQueries, on the current task arena when threads > 1.
    void buildQueryIndex(int threads);
    bool hasBoxLayout() const;
    // Records the arrays really hold (the counts may say otherwise after field changes).
    unsigned long nodeRecords() const;
    unsigned long planeRecords() const;
    void setNodeArray(mrClipNode* nodes, unsigned long records);
    void setPlaneArray(mrPlane* planes, unsigned long records);
    void releaseNodeBlock(mrClipNode* nodes);
    void dropRetiredNodes();
    void releaseArrays();
    void copyArraysFrom(const mrClipBSP& o);
    void remapCopiedFields(const mrClipBSP& o);
    void packPlanes(std::vector<unsigned char>& out) const;
    void adoptNodes();
    void adoptPlanes();

    // The arrays this object allocated or adopted, with their record counts. An array
    // assigned directly from outside is taken to hold exactly its count.
    const mrClipNode* m_nodeBlock = nullptr;
    unsigned long m_nodeRecords = 0;
    const mrPlane* m_planeBlock = nullptr;
    unsigned long m_planeRecords = 0;
    // A node block replaced while the own "Nodes" field still publishes it; released
    // once the field moves on, so the field never holds a freed address.
    mrClipNode* m_retiredNodes = nullptr;
    // Packed 20-byte plane records published by the own "Planes" field, and those
    // published into another block by the latest refreshPBlock(other).
    std::vector<unsigned char> m_ownPlaneBytes;
    std::vector<unsigned char> m_otherPlaneBytes;
    // The query index and what it was built from (immutable, so copies share it).
    std::shared_ptr<const mrClipQueryIndex> m_queryIndex;
    const mrClipNode* m_indexNodes = nullptr;
    const mrPlane* m_indexPlanes = nullptr;
    uint32_t m_indexNumNodes = 0;
    uint32_t m_indexNumPlanes = 0;
};
