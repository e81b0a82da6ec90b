// The partition of a split node's lists between its two children: a triangle goes to each side
// its trimmed extent reaches past the plane, one lying flat in the plane to the side the search
// chose. Every list is filtered stably, so the children's events stay sorted and their lists
// ascending.
#pragma once

#include <cstdint>

#include "kd_sah_split.h"
#include "vekr.h"

namespace vekr::accel {

// Notes, by triangle number, the sides the triangles of node go to under split (bit 0: below,
// bit 1: above), in sides (one byte per triangle of the mesh; entries of other triangles are
// left alone).
void classifySahSplit(const SahNode& node, const SahSplit& split, uint8_t* sides);

// Sets the counts, event counts and cells of below and above (not their list pointers) after
// classifySahSplit. Returns StatusBuildMismatch when a side's count is not the one the search
// costed.
Status sizeSahChildren(const SahNode& node, const SahSplit& split, const uint8_t* sides,
                       SahNode& below, SahNode& above);

// classifySahSplit and sizeSahChildren in one pass over node's list, reading each triangle's
// extent on the split axis from triangleBounds (lower x, y, z, upper x, y, z by triangle
// number, as the root's events were made) instead of walking its events.
Status classifyAndSizeSahSplit(const SahNode& node, const SahSplit& split,
                               const float* triangleBounds, uint8_t* sides, SahNode& below,
                               SahNode& above);

// Writes node's lists into the children's, after classifySahSplit. Each child's lists may be
// written one entry past their end. below may use node's own lists (written in place: no entry
// is written before it is read); otherwise the lists must not overlap.
void writeSahChildren(const SahNode& node, const uint8_t* sides, const SahNode& below,
                      const SahNode& above);

// The same, one part at a time: the events of axis part (0 to 2), or the list (3). The parts
// touch separate lists, so they may be written side by side.
constexpr int kSahListParts = 4;
void writeSahChildPart(const SahNode& node, const uint8_t* sides, int part, const SahNode& below,
                       const SahNode& above);

}  // namespace vekr::accel
