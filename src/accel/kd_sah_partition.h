// The partition of a split node's lists between its two children: a triangle goes to each side
// its trimmed extent reaches past the plane, one lying flat in the plane to the side the search
// chose. Every list is filtered stably, so the children's events stay sorted and their lists
// ascending.
#pragma once

#include <cstdint>

#include "kd_sah_split.h"
#include "vekr.h"

namespace vekr::accel {

// Per position of the node being split: the sides it goes to, and its position on each.
struct SahPartitionScratch {
    uint8_t* sides;   // bit 0: below, bit 1: above
    uint32_t* ranks;  // 2 per position, below then above; bit 31 set where it does not go
};

// 32-bit words of the scratch for a node of count triangles.
int64_t sahPartitionWords(int32_t count);
SahPartitionScratch placePartitionScratch(int32_t* words, int32_t count);

// Decides the sides of node's triangles under split, numbers them on each side, and sets the
// counts, event counts and cells of below and above (not their list pointers). Returns
// StatusBuildMismatch when a side's count is not the one the search costed.
Status classifySahSplit(const SahNode& node, const SahSplit& split,
                        const SahPartitionScratch& scratch, SahNode& below, SahNode& above);

// The parts of a node's lists that writeSahChildList writes one at a time.
constexpr int kSahListParts = 4;  // the events of axes 0, 1, 2, then the list

// Writes one part of node's lists into the children, after classifySahSplit. Each child's
// list may be written one entry past its end. below may use node's own lists (written in
// place: no entry is written before it is read); otherwise the lists must not overlap.
void writeSahChildList(const SahNode& node, const SahPartitionScratch& scratch, int part,
                       const SahNode& below, const SahNode& above);

}  // namespace vekr::accel
