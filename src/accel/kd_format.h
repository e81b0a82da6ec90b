// The KD-tree block: 8-byte nodes addressed by self-relative byte offsets, then the triangle
// lists of the leaves that do not fit a compact form.
//
//   inner node   word 0 = offset to the child pair (multiple of 8, >= 0) | axis (bits 0-1)
//                word 1 = split coordinate (float bits); child 0 below, child 1 above the plane
//   list leaf    word 0 = node - list (negative byte distance: the list lies after the node)
//                word 1 = n > 0 triangles; 0 for an empty leaf (word 0 ignored)
//   1 triangle   word 0 = 0x80000000 | index            word 1 = 0x80000001
//   2 triangles  word 0 = 0x80000000 | b                word 1 = 0x80000002 | a << 2
//                (tested in the order b, a)
//   3 triangles  word 0 = 0x80000000 | d1 << 16 | d2    word 1 = 0x80000003 | mid << 2
//                (indices mid - d1, mid, mid + d2)
#pragma once

#include <cstdint>
#include <cstring>

#include "vekr.h"

namespace vekr::accel {

struct KdNode {
    int32_t word0;   // inner: offsetAxis; leaf: bit 31 set, then list distance or inline index
    uint32_t word1;  // inner: split (float bits); leaf: count or compact form
};
constexpr int kNodeBytes = 8;
static_assert(sizeof(KdNode) == kNodeBytes);

constexpr int kRootAreaBytes = 16;        // the root and the 8 zero bytes after it
constexpr int kMaxInnerNodesOnPath = 50;  // the traversal's fixed stack relies on it
constexpr uint32_t kCompactFlag = 0x80000000u;
constexpr uint32_t kCompactBaseLimit = 0x20000000u;  // base index must fit bits 2-30 of word 1
constexpr int32_t kCompactLowSpreadLimit = 32768;    // mid - lo in bits 16-30 of word 0
constexpr int32_t kCompactHighSpreadLimit = 65536;   // hi - mid in bits 0-15 of word 0

inline bool isLeaf(const KdNode& node)
{
    return node.word0 < 0;
}

// --- Inner nodes -------------------------------------------------------------------------

inline KdNode encodeInner(int32_t childPairOffsetBytes, int axis, float split)
{
    uint32_t splitBits;
    std::memcpy(&splitBits, &split, sizeof splitBits);
    return KdNode{childPairOffsetBytes | axis, splitBits};
}
inline int innerAxis(const KdNode& node)
{
    return node.word0 & 3;
}
inline int32_t innerChildOffset(const KdNode& node)
{
    return node.word0 & ~7;
}
inline float innerSplit(const KdNode& node)
{
    float split;
    std::memcpy(&split, &node.word1, sizeof split);
    return split;
}
inline const KdNode* innerChildren(const KdNode* node)
{
    return reinterpret_cast<const KdNode*>(reinterpret_cast<const char*>(node) +
                                           innerChildOffset(*node));
}

// --- Leaves ------------------------------------------------------------------------------

// A list leaf whose list starts listOffsetBytes (> 0, a multiple of 4) after the node.
inline KdNode encodeListLeaf(int32_t listOffsetBytes, int32_t count)
{
    return KdNode{-listOffsetBytes, uint32_t(count)};
}

// The compact form of one to three non-negative indices, when they fit its limits.
bool encodeCompactLeaf(const int32_t* indices, int count, KdNode& out);

// The triangles of a leaf: inline for the compact forms, in the block for a list leaf.
struct LeafTriangles {
    int count = 0;
    const int32_t* list = nullptr;  // list leaves only
    int32_t inlineIndices[3] = {0, 0, 0};

    int32_t operator[](int i) const { return list ? list[i] : inlineIndices[i]; }
};

inline bool isCompactLeaf(const KdNode& node)
{
    return (node.word1 & kCompactFlag) != 0;
}

// Inline: the traversal decodes a leaf per visit.
inline LeafTriangles decodeLeaf(const KdNode* node)
{
    LeafTriangles leaf;
    const uint32_t word0 = uint32_t(node->word0);
    const uint32_t word1 = node->word1;
    if (!isCompactLeaf(*node)) {
        leaf.count = int(word1);
        if (leaf.count > 0) {
            // The list lies |word 0| bytes after the node; the low two bits are not distance.
            const int32_t distance = int32_t(word0 & ~3u);
            leaf.list =
                reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(node) - distance);
        }
        return leaf;
    }
    leaf.count = int(word1 & 3);
    const int32_t base = int32_t((word1 & ~kCompactFlag) >> 2);
    const int32_t low31 = int32_t(word0 & ~kCompactFlag);
    switch (leaf.count) {
        case 1:
            leaf.inlineIndices[0] = low31;
            break;
        case 2:
            // The traversal tests the index of word 0 before the base.
            leaf.inlineIndices[0] = low31;
            leaf.inlineIndices[1] = base;
            break;
        default:
            leaf.inlineIndices[0] = base - (low31 >> 16);
            leaf.inlineIndices[1] = base;
            leaf.inlineIndices[2] = base + (low31 & 0xFFFF);
            break;
    }
    return leaf;
}

// --- Emission ----------------------------------------------------------------------------

// A node of a finished build, before it is written into a block.
constexpr int32_t kBuildLeaf = 3;
struct BuildNode {
    int32_t kind;  // 0 to 2: inner node split on that axis; kBuildLeaf: leaf
    union {
        float split;    // inner: the plane's coordinate
        int32_t count;  // leaf: number of triangles
    };
    union {
        const BuildNode* children;  // inner: the pair, below the plane first
        const int32_t* list;        // leaf: count triangle indices
    };
};

// Writes the tree below root into a new block, depth first and the lower child first, leaves
// of one to three triangles in compact form where they fit and the others (empty ones too) as
// list leaves. Returns StatusNoMemory with no output written when the block cannot be had or
// its size does not fit an int. With inParallel, the subtrees some levels down are counted and
// written side by side in a parallel region, to the same bytes.
Status emitKdTree(const BuildNode& root, void** ppTree, int* pTreeSize, bool inParallel = false);

}  // namespace vekr::accel
