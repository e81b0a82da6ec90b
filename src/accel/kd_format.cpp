#include "kd_format.h"

#include <algorithm>

#include "frame/parallel_region.h"
#include "frame/scratch.h"

namespace vekr::accel {

bool encodeCompactLeaf(const int32_t* indices, int count, KdNode& out)
{
    for (int i = 0; i < count; ++i)
        if (indices[i] < 0) return false;
    switch (count) {
        case 1:
            out = KdNode{int32_t(kCompactFlag | uint32_t(indices[0])), kCompactFlag | 1u};
            return true;
        case 2: {
            // The index below the base limit goes into word 1, the first one if both qualify.
            int inWord1;
            if (uint32_t(indices[0]) < kCompactBaseLimit)
                inWord1 = 0;
            else if (uint32_t(indices[1]) < kCompactBaseLimit)
                inWord1 = 1;
            else
                return false;
            const uint32_t base = uint32_t(indices[inWord1]);
            const uint32_t other = uint32_t(indices[1 - inWord1]);
            out = KdNode{int32_t(kCompactFlag | other), kCompactFlag | base << 2 | 2u};
            return true;
        }
        case 3: {
            int32_t sorted[3] = {indices[0], indices[1], indices[2]};
            std::sort(sorted, sorted + 3);
            const int32_t lowSpread = sorted[1] - sorted[0];
            const int32_t highSpread = sorted[2] - sorted[1];
            if (uint32_t(sorted[1]) >= kCompactBaseLimit || lowSpread >= kCompactLowSpreadLimit ||
                highSpread >= kCompactHighSpreadLimit)
                return false;
            out = KdNode{int32_t(kCompactFlag | uint32_t(lowSpread) << 16 | uint32_t(highSpread)),
                         kCompactFlag | uint32_t(sorted[1]) << 2 | 3u};
            return true;
        }
        default:
            return false;
    }
}

namespace {

bool takesCompactForm(const BuildNode& leaf)
{
    KdNode unused;
    return leaf.count >= 1 && leaf.count <= 3 && encodeCompactLeaf(leaf.list, leaf.count, unused);
}

// Bytes of the nodes below node (not node itself) and of the lists of its list leaves.
void countBlockBytes(const BuildNode& node, int64_t& nodeBytes, int64_t& listBytes)
{
    if (node.kind != kBuildLeaf) {
        nodeBytes += 2 * kNodeBytes;
        countBlockBytes(node.children[0], nodeBytes, listBytes);
        countBlockBytes(node.children[1], nodeBytes, listBytes);
    } else if (!takesCompactForm(node)) {
        listBytes += 4 * int64_t(node.count);
    }
}

struct BlockWriter {
    char* block;
    int32_t nextPair;  // byte position of the next free pair slot
    int32_t nextList;  // byte position of the next free list entry

    // Depth first: a pair's descendants follow it, those of its first child before those of
    // its second. The paths are at most 50 nodes long, so recursion is bounded.
    void write(const BuildNode& node, int32_t at)
    {
        auto* out = reinterpret_cast<KdNode*>(block + at);
        if (node.kind != kBuildLeaf) {
            const int32_t pair = nextPair;
            nextPair += 2 * kNodeBytes;
            *out = encodeInner(pair - at, node.kind, node.split);
            write(node.children[0], pair);
            write(node.children[1], pair + kNodeBytes);
            return;
        }
        if (node.count >= 1 && node.count <= 3 && encodeCompactLeaf(node.list, node.count, *out))
            return;
        // An empty leaf points at the next free list position with a count of 0.
        *out = encodeListLeaf(nextList - at, node.count);
        if (node.count > 0) std::memcpy(block + nextList, node.list, size_t(node.count) * 4);
        nextList += 4 * node.count;
    }
};

// The subtrees written side by side: the nodes this many levels below the root.
constexpr int kEmitPartDepth = 8;
constexpr int kEmitMaxParts = 1 << kEmitPartDepth;

struct EmitPart {
    const BuildNode* node;
    int64_t nodeBytes, listBytes;  // below the node, as countBlockBytes gives them
    int32_t at, nextPair, nextList;
};

// The parts, in depth-first order.
void listEmitParts(const BuildNode& node, int depth, EmitPart* parts, int& count)
{
    if (depth == kEmitPartDepth) {
        parts[count++].node = &node;
    } else if (node.kind != kBuildLeaf) {
        listEmitParts(node.children[0], depth + 1, parts, count);
        listEmitParts(node.children[1], depth + 1, parts, count);
    }
}

// countBlockBytes above the parts, taking theirs as counted.
void countAboveParts(const BuildNode& node, int depth, const EmitPart* parts, int& next,
                     int64_t& nodeBytes, int64_t& listBytes)
{
    if (depth == kEmitPartDepth) {
        nodeBytes += parts[next].nodeBytes;
        listBytes += parts[next++].listBytes;
    } else if (node.kind != kBuildLeaf) {
        nodeBytes += 2 * kNodeBytes;
        countAboveParts(node.children[0], depth + 1, parts, next, nodeBytes, listBytes);
        countAboveParts(node.children[1], depth + 1, parts, next, nodeBytes, listBytes);
    } else if (!takesCompactForm(node)) {
        listBytes += 4 * int64_t(node.count);
    }
}

// BlockWriter::write above the parts; each part gets the positions its own writer starts
// from, and the room its bytes take.
void writeAboveParts(BlockWriter& writer, const BuildNode& node, int32_t at, int depth,
                     EmitPart* parts, int& next)
{
    if (depth == kEmitPartDepth) {
        EmitPart& part = parts[next++];
        part.at = at;
        part.nextPair = writer.nextPair;
        part.nextList = writer.nextList;
        writer.nextPair += int32_t(part.nodeBytes);
        writer.nextList += int32_t(part.listBytes);
    } else if (node.kind != kBuildLeaf) {
        const int32_t pair = writer.nextPair;
        writer.nextPair += 2 * kNodeBytes;
        *reinterpret_cast<KdNode*>(writer.block + at) = encodeInner(pair - at, node.kind, node.split);
        writeAboveParts(writer, node.children[0], pair, depth + 1, parts, next);
        writeAboveParts(writer, node.children[1], pair + kNodeBytes, depth + 1, parts, next);
    } else {
        writer.write(node, at);
    }
}

}  // namespace

Status emitKdTree(const BuildNode& root, void** ppTree, int* pTreeSize, bool inParallel)
{
    EmitPart parts[kEmitMaxParts];
    int partCount = 0;
    if (inParallel) listEmitParts(root, 0, parts, partCount);
    // Counted and written in parts only when there are any, so that a small tree opens no
    // parallel region.
    auto inParts = [&](auto&& body) {
        if (partCount > 0) frame::runParallelRegion(body);
    };
    inParts([&](int member, int teamSize) {
        for (int p = member; p < partCount; p += teamSize) {
            parts[p].nodeBytes = 0;
            parts[p].listBytes = 0;
            countBlockBytes(*parts[p].node, parts[p].nodeBytes, parts[p].listBytes);
        }
    });
    // Without parts the walks start below the parts' depth and never meet it.
    const int rootDepth = partCount > 0 ? 0 : kEmitPartDepth + 1;
    int64_t nodeBytes = kRootAreaBytes, listBytes = 0;
    int next = 0;
    countAboveParts(root, rootDepth, parts, next, nodeBytes, listBytes);
    const int64_t size = nodeBytes + listBytes;
    if (size > INT32_MAX) return StatusNoMemory;
    const int units = int(size >> 3) + 1;
    frame::ScratchArray<uint64_t> block(units);
    if (!block) return StatusNoMemory;
    block.get()[units - 1] = 0;  // the spare bytes after the lists
    block.get()[1] = 0;          // the 8 zero bytes after the root
    BlockWriter writer{reinterpret_cast<char*>(block.get()), kRootAreaBytes, int32_t(nodeBytes)};
    next = 0;
    writeAboveParts(writer, root, 0, rootDepth, parts, next);
    inParts([&](int member, int teamSize) {
        for (int p = member; p < partCount; p += teamSize) {
            BlockWriter partWriter{writer.block, parts[p].nextPair, parts[p].nextList};
            partWriter.write(*parts[p].node, parts[p].at);
        }
    });
    *ppTree = block.release();
    *pTreeSize = int(size);
    return StatusOk;
}

}  // namespace vekr::accel
