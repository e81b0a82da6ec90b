// The surface-area-heuristic build the plain way, as a reference for the library's: at every
// node the triangles' extents are trimmed to the cell, their keys gathered and sorted, and the
// sweep run over three sorted lists (starts, ends, flat positions). Slow, with a sort at every
// node, but each rule in one place; the library sorts once at the root and must write the same
// block byte for byte.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <deque>
#include <vector>

#include "accel/float_keys.h"
#include "accel/kd_format.h"
#include "accel/kd_sah_extents.h"
#include "accel/kd_sah_split.h"
#include "support/ray_scenes.h"
#include "vekcore.h"
#include "vekr.h"

namespace vekr::test {

class ReferenceSahBuild {
public:
    // method: KDTreeBuildSah (maxDepth splits in the tree) or KDTreeBuildSahFullDepth (on
    // each path). The block, or an empty one if the mesh has no triangles to hold.
    ReferenceSahBuild(const Mesh& mesh, const float* clipBox, uint32_t method, uint32_t maxDepth,
                      float ratio)
        : inTree_(method == KDTreeBuildSah), maxDepth_(maxDepth), gain_(accel::sahGainFactor(ratio))
    {
        const int n = mesh.triangleCount();
        for (auto* plane : {&lower_, &upper_})
            for (auto& axis : *plane)
                axis.resize(size_t(n));
        listed_.resize(size_t(n));
        accel::TriangleExtents extents{};
        for (int k = 0; k < 3; ++k) {
            extents.lower[k] = lower_[k].data();
            extents.upper[k] = upper_[k].data();
        }
        accel::Cell root{};
        const int32_t count =
            n == 0 ? 0
                   : accel::computeTriangleExtents(
                         {mesh.vertices.data(), mesh.triangles.data(), mesh.vertexCount(), n},
                         clipBox, extents, listed_.data(), root);
        std::vector<int32_t> all(static_cast<size_t>(count));
        for (int32_t i = 0; i < count; ++i)
            all[size_t(i)] = i;
        build(root_, all, root, 0);
        void* block = nullptr;
        int size = 0;
        if (accel::emitKdTree(root_, &block, &size) != StatusOk) return;
        bytes_.assign(static_cast<const uint8_t*>(block),
                      static_cast<const uint8_t*>(block) + size);
        vekFree(block);
    }

    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    struct Best {
        int axis = -1;
        double cost = INFINITY;
        float x = 0.0f;
        bool flatBelow = false;
        int64_t below = 0, above = 0;

        void offer(int k, double c, float at, bool flat, int64_t nBelow, int64_t nAbove)
        {
            if (c < cost) *this = Best{k, c, at, flat, nBelow, nAbove};
        }
    };

    float trimmedStart(int32_t p, int k, const accel::Cell& c) const
    {
        return std::max(lower_[k][size_t(p)], c.lo[k]);
    }
    float trimmedEnd(int32_t p, int k, const accel::Cell& c) const
    {
        return std::min(upper_[k][size_t(p)], c.hi[k]);
    }

    Best searchAxis(const std::vector<int32_t>& list, const accel::Cell& c, int k) const
    {
        Best best;
        const float lo = c.lo[k], hi = c.hi[k];
        const double extent = double(hi) - double(lo);
        if (!(extent > double(1e-5f))) return best;
        const double a = double(c.hi[(k + 1) % 3]) - double(c.lo[(k + 1) % 3]);
        const double b = double(c.hi[(k + 2) % 3]) - double(c.lo[(k + 2) % 3]);
        const double across = a * b < 1e-9 ? 0.0 : a * b / (a + b);
        auto cost = [&](double x, int64_t below, int64_t above) {
            return double(below) * (across + (x - lo)) + double(above) * (across + (hi - x));
        };
        const int64_t n = int64_t(list.size());
        std::vector<uint32_t> starts, ends, flats;
        float firstStart = hi, lastEnd = lo;
        for (int32_t p : list) {
            const float s = trimmedStart(p, k, c), e = trimmedEnd(p, k, c);
            firstStart = std::min(firstStart, s);
            lastEnd = std::max(lastEnd, e);
            if (s == e) {
                flats.push_back(accel::floatKey(s));
            } else {
                starts.push_back(accel::floatKey(s));
                ends.push_back(accel::floatKey(e));
            }
        }
        const double bonus = double(0.7f);
        if (double(firstStart) - lo > double(0.1f) * extent)
            best.offer(k, double(n) * (across + (hi - double(firstStart))), firstStart, false, 0,
                       n);
        if (hi - double(lastEnd) > double(0.1f) * extent)
            best.offer(k, double(n) * (across + (double(lastEnd) - lo)), lastEnd, true, n, 0);
        if (best.axis >= 0) {
            best.cost *= bonus * (a + b);
            return best;
        }
        std::sort(starts.begin(), starts.end());
        std::sort(ends.begin(), ends.end());
        std::sort(flats.begin(), flats.end());
        if (!flats.empty() && accel::keyFloat(flats.front()) == lo) {
            const int64_t in = std::count(flats.begin(), flats.end(), flats.front());
            best.offer(k, cost(lo, in, n - in) * bonus, lo, true, in, n - in);
        }
        if (!flats.empty() && accel::keyFloat(flats.back()) == hi) {
            const int64_t in = std::count(flats.begin(), flats.end(), flats.back());
            best.offer(k, cost(hi, n - in, in) * bonus, hi, false, n - in, in);
        }
        int64_t below = 0, above = n;
        size_t is = 0, ie = 0, jf = 0;
        auto take = [](const std::vector<uint32_t>& keys, size_t& i, uint32_t key) {
            const size_t from = i;
            while (i < keys.size() && keys[i] == key)
                ++i;
            return int64_t(i - from);
        };
        while (is < starts.size() || ie < ends.size() || jf < flats.size()) {
            uint32_t key = UINT32_MAX;
            if (is < starts.size()) key = std::min(key, starts[is]);
            if (ie < ends.size()) key = std::min(key, ends[ie]);
            if (jf < flats.size()) key = std::min(key, flats[jf]);
            const int64_t ending = take(ends, ie, key), lying = take(flats, jf, key);
            const int64_t starting = take(starts, is, key);
            const float x = accel::keyFloat(key);
            above -= ending;
            best.offer(k, cost(x, below, above), x, false, below, above);
            if (lying > 0)
                best.offer(k, cost(x, below + lying, above - lying), x, true, below + lying,
                           above - lying);
            above -= lying;
            below += lying + starting;
        }
        best.cost *= a + b;
        return best;
    }

    void build(accel::BuildNode& out, const std::vector<int32_t>& list, const accel::Cell& c,
               uint32_t depth)
    {
        Best split;
        const uint32_t splits = inTree_ ? splitCount_ : depth;
        if (splits < maxDepth_ && !list.empty()) {
            for (int k = 0; k < 3; ++k) {
                const Best axis = searchAxis(list, c, k);
                if (axis.axis >= 0 && (split.axis < 0 || axis.cost <= split.cost)) split = axis;
            }
            if (split.axis >= 0 && !accel::sahSplitPays(accel::sahLeafCost(c, int32_t(list.size())),
                                                        split.cost, int32_t(list.size()), gain_))
                split.axis = -1;
        }
        if (split.axis < 0) {
            std::vector<int32_t>& triangles = lists_.emplace_back();
            for (int32_t p : list)
                triangles.push_back(listed_[size_t(p)]);
            out = accel::BuildNode{accel::kBuildLeaf, {}, {}};
            out.count = int32_t(list.size());
            out.list = triangles.data();
            return;
        }
        ++splitCount_;
        const int k = split.axis;
        std::vector<int32_t> below, above;
        for (int32_t p : list) {
            const float s = trimmedStart(p, k, c), e = trimmedEnd(p, k, c);
            const bool flat = s == e;
            const bool goesBelow = s < split.x || (flat && s == split.x && split.flatBelow);
            if (goesBelow) below.push_back(p);
            if (flat ? !goesBelow : e > split.x) above.push_back(p);
        }
        EXPECT_EQ(int64_t(below.size()), split.below);
        EXPECT_EQ(int64_t(above.size()), split.above);
        accel::BuildNode* children = pairs_.emplace_back().data();
        out = accel::BuildNode{k, {}, {}};
        out.split = split.x;
        out.children = children;
        accel::Cell cb = c, ca = c;
        cb.hi[k] = split.x;
        ca.lo[k] = split.x;
        build(children[0], below, cb, depth + 1);
        build(children[1], above, ca, depth + 1);
    }

    const bool inTree_;
    const uint32_t maxDepth_;
    const float gain_;
    std::vector<float> lower_[3], upper_[3];
    std::vector<int32_t> listed_;
    accel::BuildNode root_{};
    std::deque<std::array<accel::BuildNode, 2>> pairs_;
    std::deque<std::vector<int32_t>> lists_;
    uint32_t splitCount_ = 0;
    std::vector<uint8_t> bytes_;
};

}  // namespace vekr::test
