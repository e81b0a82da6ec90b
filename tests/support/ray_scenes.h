// Meshes, trees and an independent double-precision nearest-hit reference for the ray tests.
#pragma once

#include <algorithm>
#include <array>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "accel/kd_format.h"
#include "ray/kd_many_origins.h"
#include "ray/kd_occlusion.h"
#include "ray/kd_traverse.h"
#include "support/float_bits.h"
#include "vekr.h"

namespace vekr::test {

struct Mesh {
    std::vector<float> vertices;  // 3 per vertex
    std::vector<int> triangles;   // 4 per triangle, the fourth unused

    int vertexCount() const { return int(vertices.size() / 3); }
    int triangleCount() const { return int(triangles.size() / 4); }
    std::array<double, 3> vertex(int i) const
    {
        return {vertices[3 * i], vertices[3 * i + 1], vertices[3 * i + 2]};
    }
    void addTriangle(int a, int b, int c) { triangles.insert(triangles.end(), {a, b, c, 0}); }
    int addVertex(float x, float y, float z)
    {
        vertices.insert(vertices.end(), {x, y, z});
        return vertexCount() - 1;
    }
};

// Random triangles of modest size scattered in [-1, 1]^3.
inline Mesh makeTriangleSoup(int count, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> centre(-1.0f, 1.0f);
    std::uniform_real_distribution<float> spread(-0.3f, 0.3f);
    Mesh mesh;
    for (int t = 0; t < count; ++t) {
        const float c[3] = {centre(rng), centre(rng), centre(rng)};
        int v[3];
        for (int& index : v)
            index = mesh.addVertex(c[0] + spread(rng), c[1] + spread(rng), c[2] + spread(rng));
        mesh.addTriangle(v[0], v[1], v[2]);
    }
    return mesh;
}

// A bumpy height field z = f(x, y) over [-1, 1]^2 with n x n cells, two triangles per cell:
// every inner edge and vertex is shared.
inline Mesh makeHeightField(int n, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> bump(-0.15f, 0.15f);
    Mesh mesh;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            mesh.addVertex(-1.0f + 2.0f * float(i) / float(n), -1.0f + 2.0f * float(j) / float(n),
                           bump(rng));
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            mesh.addTriangle(a, b, d);
            mesh.addTriangle(a, d, c);
        }
    return mesh;
}

// A closed box made of 12 triangles.
inline Mesh makeBoxMesh(float lo, float hi)
{
    Mesh mesh;
    for (int i = 0; i < 8; ++i)
        mesh.addVertex(i & 1 ? hi : lo, i & 2 ? hi : lo, i & 4 ? hi : lo);
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                             {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        mesh.addTriangle(f[0], f[1], f[2]);
        mesh.addTriangle(f[0], f[2], f[3]);
    }
    return mesh;
}

inline Mesh concatenate(const Mesh& a, const Mesh& b)
{
    Mesh out = a;
    const int offset = a.vertexCount();
    out.vertices.insert(out.vertices.end(), b.vertices.begin(), b.vertices.end());
    for (size_t i = 0; i < b.triangles.size(); ++i)
        out.triangles.push_back(i % 4 == 3 ? b.triangles[i] : b.triangles[i] + offset);
    return out;
}

// A KD-tree block built by median splits of the triangle bounds, independent of the library's
// builders: every triangle whose bounds reach a cell is listed in that cell's leaf. Leaves of
// one to three triangles take the compact forms where they fit unless forceLists is set.
class MedianKdTree {
public:
    MedianKdTree(const Mesh& mesh, int maxDepth, int leafSize, bool forceLists = false)
        : mesh_(mesh), maxDepth_(maxDepth), leafSize_(leafSize), forceLists_(forceLists),
          bounds_(allBounds())
    {
        std::vector<int> all(size_t(mesh.triangleCount()));
        for (size_t i = 0; i < all.size(); ++i)
            all[i] = int(i);
        nodes_.push_back({});
        nodes_.push_back({});  // the zero word pair after the root
        build(0, all, 0);
        block_.assign(nodes_.size() * 2 + listWords_.size(), 0);
        for (size_t i = 0; i < pendingLists_.size(); ++i) {
            const auto& [node, start] = pendingLists_[i];
            const int64_t listByte = int64_t(nodes_.size()) * 8 + int64_t(start) * 4;
            nodes_[size_t(node)].word0 = int32_t(-(listByte - int64_t(node) * 8));
        }
        std::memcpy(block_.data(), nodes_.data(), nodes_.size() * 8);
        std::memcpy(block_.data() + nodes_.size() * 2, listWords_.data(), listWords_.size() * 4);
    }

    const void* root() const { return block_.data(); }

private:
    // The triangles' bounds, computed once: the deep trees ask for them at every node.
    std::vector<std::array<float, 6>> allBounds() const
    {
        std::vector<std::array<float, 6>> out;
        for (int t = 0; t < mesh_.triangleCount(); ++t) {
            std::array<float, 6> b{INFINITY, INFINITY, INFINITY, -INFINITY, -INFINITY, -INFINITY};
            for (int c = 0; c < 3; ++c)
                for (int k = 0; k < 3; ++k) {
                    const float x = mesh_.vertices[3 * mesh_.triangles[4 * t + c] + k];
                    b[k] = std::min(b[k], x);
                    b[k + 3] = std::max(b[k + 3], x);
                }
            out.push_back(b);
        }
        return out;
    }

    void build(int nodeIndex, const std::vector<int>& tris, int depth)
    {
        if (int(tris.size()) > leafSize_ && depth < maxDepth_) {
            // Split at the median of the triangle centres, the axes in turn. The vectors are
            // reserved in full: the deep trees have many nodes, and growing them dominated.
            const int axis = depth % 3;
            std::vector<float> centres;
            centres.reserve(tris.size());
            for (int t : tris) {
                const auto& b = bounds_[size_t(t)];
                centres.push_back(0.5f * (b[axis] + b[axis + 3]));
            }
            std::nth_element(centres.begin(), centres.begin() + long(centres.size() / 2),
                             centres.end());
            const float split = centres[centres.size() / 2];
            std::vector<int> below, above;
            below.reserve(tris.size());
            above.reserve(tris.size());
            for (int t : tris) {
                const auto& b = bounds_[size_t(t)];
                if (b[axis] <= split) below.push_back(t);
                if (b[axis + 3] >= split) above.push_back(t);
            }
            if (below.size() < tris.size() || above.size() < tris.size()) {
                const int pair = int(nodes_.size());
                nodes_.push_back({});
                nodes_.push_back({});
                nodes_[size_t(nodeIndex)] =
                    accel::encodeInner(int32_t((pair - nodeIndex) * 8), axis, split);
                build(pair, below, depth + 1);
                build(pair + 1, above, depth + 1);
                return;
            }
        }
        accel::KdNode& node = nodes_[size_t(nodeIndex)];
        if (tris.empty()) {
            node = accel::KdNode{INT32_MIN, 0};
            return;
        }
        if (!forceLists_ && tris.size() <= 3 &&
            accel::encodeCompactLeaf(tris.data(), int(tris.size()), node))
            return;
        pendingLists_.push_back({nodeIndex, int(listWords_.size())});
        node.word1 = uint32_t(tris.size());
        listWords_.insert(listWords_.end(), tris.begin(), tris.end());
    }

    const Mesh& mesh_;
    int maxDepth_, leafSize_;
    bool forceLists_;
    std::vector<std::array<float, 6>> bounds_;
    std::vector<accel::KdNode> nodes_;
    std::vector<int32_t> listWords_;
    std::vector<std::pair<int, int>> pendingLists_;
    std::vector<uint32_t> block_;
};

// A mesh with its records and box, ready for the intersection functions.
struct PreparedScene {
    Mesh mesh;
    std::vector<TriangleAccel> records;
    BoundBox box{};

    explicit PreparedScene(Mesh m) : mesh(std::move(m)), records(size_t(mesh.triangleCount()))
    {
        vekrTriangleAccelInit(records.data(), mesh.vertices.data(), mesh.triangles.data(),
                              mesh.triangleCount());
        vekrSetBoundBox_32f(mesh.vertices.data(), mesh.vertexCount(), &box.minX);
    }
    // The context for a tree, with the mesh's box unless another is given.
    IntersectContext context(const void* root, const float* otherBox = nullptr) const
    {
        return IntersectContext{otherBox ? otherBox : &box.minX, records.data(), root};
    }
};

// The crossings of one ray with every triangle by Moeller and Trumbore (1997) in double
// precision: fn(triangle, dist, b0, b1) with the weights b0, b1, b2 of the three vertices
// (b2 = 1 - b0 - b1), for every triangle whose plane the ray is not edge-on to.
template <class Fn>
void forEachReferenceCrossing(const Mesh& mesh, const float origin[3], const float dir[3], Fn fn)
{
    const double o[3] = {origin[0], origin[1], origin[2]};
    const double d[3] = {dir[0], dir[1], dir[2]};
    for (int t = 0; t < mesh.triangleCount(); ++t) {
        const auto p0 = mesh.vertex(mesh.triangles[4 * t]);
        const auto p1 = mesh.vertex(mesh.triangles[4 * t + 1]);
        const auto p2 = mesh.vertex(mesh.triangles[4 * t + 2]);
        const double e1[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
        const double e2[3] = {p2[0] - p0[0], p2[1] - p0[1], p2[2] - p0[2]};
        const double p[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2],
                             d[0] * e2[1] - d[1] * e2[0]};
        const double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
        const double scale = std::sqrt((e1[0] * e1[0] + e1[1] * e1[1] + e1[2] * e1[2]) *
                                       (p[0] * p[0] + p[1] * p[1] + p[2] * p[2]));
        if (!(std::fabs(det) > 1e-6 * scale)) continue;  // edge-on or degenerate
        const double s[3] = {o[0] - p0[0], o[1] - p0[1], o[2] - p0[2]};
        const double b1 = (s[0] * p[0] + s[1] * p[1] + s[2] * p[2]) / det;
        const double q[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2],
                             s[0] * e1[1] - s[1] * e1[0]};
        const double b2 = (d[0] * q[0] + d[1] * q[1] + d[2] * q[2]) / det;
        const double dist = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) / det;
        fn(t, dist, 1.0 - b1 - b2, b1);
    }
}

// Margins within which single precision may decide either way: near an edge (in weights) and
// near a distance limit (relative).
constexpr double kReferenceEdgeMargin = 1e-4;
constexpr double kReferenceDistMargin = 1e-4;

// The nearest hit of one ray by a loop over all triangles, with what makes the answer
// ambiguous in single precision.
struct ReferenceHit {
    int triangle = -1;
    double dist = 0.0, u = 0.0, v = 0.0;  // u, v: weights of the first and second vertex
    bool ambiguous = false;  // a second hit, an edge, or the distance limit is too close
};

inline ReferenceHit referenceNearestHit(const Mesh& mesh, const float origin[3], const float dir[3],
                                        float maxDist)
{
    ReferenceHit best;
    double secondDist = INFINITY;
    double closestDoubtful = INFINITY;  // nearest hit that single precision may take or drop
    forEachReferenceCrossing(mesh, origin, dir, [&](int t, double dist, double b0, double b1) {
        const double smallest = std::min({b0, b1, 1.0 - b0 - b1});
        if (smallest < -kReferenceEdgeMargin) return;
        const double margin = kReferenceDistMargin * std::max(1.0, std::fabs(dist));
        const bool doubtful = smallest < kReferenceEdgeMargin || std::fabs(dist) < margin ||
                              std::fabs(dist - double(maxDist)) < margin;
        if (doubtful) {
            if (dist > -margin && dist < double(maxDist) + margin)
                closestDoubtful = std::min(closestDoubtful, dist);
            return;
        }
        if (!(dist > 0.0 && dist < double(maxDist))) return;
        if (best.triangle < 0 || dist < best.dist) {
            secondDist = std::min(secondDist, best.triangle < 0 ? INFINITY : best.dist);
            best.triangle = t;
            best.dist = dist;
            best.u = b0;
            best.v = b1;
        } else {
            secondDist = std::min(secondDist, dist);
        }
    });
    if (best.triangle < 0) {
        best.ambiguous = closestDoubtful < INFINITY;
    } else {
        const double margin = kReferenceDistMargin * std::max(1.0, best.dist);
        best.ambiguous = secondDist - best.dist <= margin || closestDoubtful <= best.dist + margin;
    }
    return best;
}

// Whether the open segment origin + t * dir, 0 < t < 1, crosses a triangle; ambiguous when
// no crossing is clear and one lies too near an edge or an end of the segment.
struct ReferenceOcclusion {
    bool occluded = false;
    bool ambiguous = false;
    std::vector<int> occluders;  // clearly on the segment
    std::vector<int> doubtful;   // on it or not, as single precision decides
};

inline ReferenceOcclusion referenceOcclusion(const Mesh& mesh, const float origin[3],
                                             const float dir[3])
{
    ReferenceOcclusion ref;
    forEachReferenceCrossing(mesh, origin, dir, [&](int t, double dist, double b0, double b1) {
        const double smallest = std::min({b0, b1, 1.0 - b0 - b1});
        if (smallest < -kReferenceEdgeMargin) return;
        const bool inSegment = dist > kReferenceDistMargin && dist < 1.0 - kReferenceDistMargin;
        const bool nearEnd = std::fabs(dist) <= kReferenceDistMargin ||
                             std::fabs(dist - 1.0) <= kReferenceDistMargin;
        if (inSegment && smallest >= kReferenceEdgeMargin) {
            ref.occluded = true;
            ref.occluders.push_back(t);
        } else if (nearEnd || (inSegment && smallest < kReferenceEdgeMargin)) {
            ref.ambiguous = true;
            ref.doubtful.push_back(t);
        }
    });
    // A clear occluder decides the segment whatever else lies near its ends.
    if (ref.occluded) ref.ambiguous = false;
    return ref;
}

// The record crossing test in its documented single-precision order; edges count as inside.
// Gives t = num / den and the weights of the first two vertices.
inline bool crossRecordInOrder(const TriangleAccel& r, const float o[3], const float d[3],
                               float& t, float& u, float& v)
{
    const int k = int(r.axes >> 4 & 3), a = int(r.axes >> 2 & 3), b = int(r.axes & 3);
    const float den = (r.nu * d[a] + r.nv * d[b]) + d[k];
    const float eu = r.pu - o[a];
    const float ev = r.pv - o[b];
    const float num = ((r.pk + r.nu * eu) + r.nv * ev) - o[k];
    const float qu = num * d[a] - den * eu;
    const float qv = num * d[b] - den * ev;
    const float beta = qu * r.e2v - qv * r.e2u;
    const float gamma = qv * r.e1u - qu * r.e1v;
    const float alpha = (den - beta) - gamma;
    t = num / den;
    u = beta / den;
    v = gamma / den;
    return alpha * beta >= 0.0f && beta * gamma >= 0.0f && alpha * gamma >= 0.0f;
}

// One layer of a ray's successive hits as the outputs must show it.
struct ReferenceLayer {
    int triangle = -1;
    bool distWritten = false;  // a hit, or FLT_MAX for the first layer a continued ray misses
    float dist = 0.0f, u = 0.0f, v = 0.0f;
    bool ambiguous = false;  // this layer or an earlier one could go either way in a tree
};

// Successive hits along one ray by a loop over all records per layer: in layer c (from 1) a
// record counts when it crosses with 0 < t < the layer's limit (the caller's maximum distance,
// then FLT_MAX), is not the previous layer's triangle and not among the first (c - 1) mod 8
// entries of the ring of earlier hits; the nearest counts, the lowest index on ties. The ray
// then goes on from origin + t * dir with the distances summed. A layer is ambiguous when a
// second crossing lies within 1e-4 (relative) of the nearest or the nearest is within 1e-4 of
// an edge: a tree's order or its cells may then decide otherwise; later layers follow it.
inline std::vector<ReferenceLayer> referenceLayers(const std::vector<TriangleAccel>& records,
                                                   const float origin[3], const float dir[3],
                                                   float maxDist, int layers)
{
    std::vector<ReferenceLayer> out(size_t(std::max(layers, 0)));
    float o[3] = {origin[0], origin[1], origin[2]};
    int ring[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int previous = -1;
    bool ambiguous = false;
    for (int c = 1; c <= layers; ++c) {
        ReferenceLayer& layer = out[size_t(c - 1)];
        const float limit = c == 1 ? maxDist : FLT_MAX;
        float best = limit, second = INFINITY;
        for (int j = 0; j < int(records.size()); ++j) {
            float t, u, v;
            if (records[size_t(j)].axes == 0 || j == previous ||
                !crossRecordInOrder(records[size_t(j)], o, dir, t, u, v) || !(t > 0.0f && t < limit))
                continue;
            if (std::find(ring, ring + (c - 1) % 8, j) != ring + (c - 1) % 8) continue;
            if (layer.triangle < 0 || t < best) {
                second = std::min(second, layer.triangle < 0 ? INFINITY : best);
                best = t;
                layer.triangle = j;
                layer.u = u;
                layer.v = v;
            } else {
                second = std::min(second, t);
            }
        }
        layer.ambiguous = ambiguous;
        if (c > 1) layer.distWritten = true, layer.dist = FLT_MAX;
        if (layer.triangle < 0) break;
        const double margin = 1e-4 * std::max(1.0, double(best));
        ambiguous = ambiguous || double(second) - double(best) <= margin ||
                    std::min({layer.u, layer.v, 1.0f - layer.u - layer.v}) < 1e-4f;
        layer.ambiguous = ambiguous;
        layer.distWritten = true;
        layer.dist = c == 1 ? best : best + out[size_t(c - 2)].dist;
        for (int k = 0; k < 3; ++k)
            o[k] = o[k] + best * dir[k];
        ring[(c - 1) % 8] = layer.triangle;
        previous = layer.triangle;
    }
    return out;
}

// Heap arrays on 64-byte boundaries, for the aligned paths.
template <class T>
struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() = default;
    template <class U>
    AlignedAllocator(const AlignedAllocator<U>&)
    {
    }
    T* allocate(size_t n)
    {
        return static_cast<T*>(::operator new(n * sizeof(T), std::align_val_t(64)));
    }
    void deallocate(T* p, size_t) { ::operator delete(p, std::align_val_t(64)); }
    bool operator==(const AlignedAllocator&) const { return true; }
};
template <class T>
using AlignedVector = std::vector<T, AlignedAllocator<T>>;

// A block of rays sharing one origin, with its hit planes pre-filled with sentinels.
struct EyeRays {
    static constexpr float kUntouched = -12345.0f;
    int width = 0, height = 0;
    float origin[3] = {0, 0, 0};
    AlignedVector<float> dir[3];
    AlignedVector<float> maxDist;  // the dist input
    AlignedVector<float> dist, u, v;
    AlignedVector<int32_t> triIndex;

    EyeRays(int w, int h) : width(w), height(h)
    {
        for (auto& plane : dir)
            plane.assign(size_t(w * h), 0.0f);
        maxDist.assign(size_t(w * h), FLT_MAX);
        reset();
    }
    int count() const { return width * height; }
    void reset()
    {
        dist = maxDist;
        u.assign(size_t(count()), kUntouched);
        v.assign(size_t(count()), kUntouched);
        triIndex.assign(size_t(count()), INT32_MIN);
    }
    std::array<float, 3> direction(int i) const { return {dir[0][i], dir[1][i], dir[2][i]}; }
    // The direction planes as the functions take them.
    const float* const* dirs()
    {
        for (int k = 0; k < 3; ++k)
            dirPlanes_[k] = dir[k].data();
        return dirPlanes_;
    }
    ray::EyeRayBlock block()
    {
        return {origin, dirs(), dist.data(), u.data(), v.data(), triIndex.data(), width, height};
    }

private:
    const float* dirPlanes_[3] = {};
};

// The exported nearest hit of a block from its own origin.
inline Status intersectEye(EyeRays& rays, const IntersectContext& context)
{
    float* uv[2] = {rays.u.data(), rays.v.data()};
    return vekrIntersectEyeSO_32f(rays.origin, rays.dirs(), rays.dist.data(), uv,
                                  rays.triIndex.data(), &context, rays.width, rays.height);
}

// A direction of every kind the traversal must get right, chosen by ray number i: towards a
// point inside a triangle, a shared vertex or an edge midpoint; a random direction; with
// components of 0 or 1e-8 (parallel to box faces). Some rays get a finite maximum distance.
inline void mixedDirection(const Mesh& mesh, const float origin[3], int i, std::mt19937& rng,
                           float dir[3], float& maxDist)
{
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    std::uniform_real_distribution<float> weight(0.0f, 1.0f);
    std::uniform_int_distribution<int> pickTriangle(0, mesh.triangleCount() - 1);
    const int t = pickTriangle(rng);
    const auto p0 = mesh.vertex(mesh.triangles[4 * t]);
    const auto p1 = mesh.vertex(mesh.triangles[4 * t + 1]);
    const auto p2 = mesh.vertex(mesh.triangles[4 * t + 2]);
    double target[3];
    switch (i % 6) {
        case 0: {  // a point inside the triangle
            double a = weight(rng), b = weight(rng);
            if (a + b > 1.0) a = 1.0 - a, b = 1.0 - b;
            for (int k = 0; k < 3; ++k)
                target[k] = p0[k] + a * (p1[k] - p0[k]) + b * (p2[k] - p0[k]);
            break;
        }
        case 1:  // a vertex, shared in closed meshes and height fields
            for (int k = 0; k < 3; ++k)
                target[k] = p1[k];
            break;
        case 2:  // an edge midpoint
            for (int k = 0; k < 3; ++k)
                target[k] = 0.5 * (p0[k] + p2[k]);
            break;
        default:  // a random direction
            for (int k = 0; k < 3; ++k)
                target[k] = origin[k] + unit(rng);
            break;
    }
    for (int k = 0; k < 3; ++k)
        dir[k] = float(target[k] - origin[k]);
    if (i % 5 == 4) {  // parallel to one or two box faces
        dir[i % 3] = (i & 8) ? 1e-8f : 0.0f;
        if (i % 10 == 9) dir[(i + 1) % 3] = -0.0f;
    }
    if (i % 7 == 3) maxDist = 0.2f + 2.0f * weight(rng);
}

// Rays of every kind from one origin (mixedDirection), cycling by ray number.
inline EyeRays makeMixedRays(const Mesh& mesh, const float origin[3], int width, int height,
                             uint32_t seed)
{
    EyeRays rays(width, height);
    std::copy(origin, origin + 3, rays.origin);
    std::mt19937 rng(seed);
    for (int i = 0; i < rays.count(); ++i) {
        float dir[3];
        mixedDirection(mesh, origin, i, rng, dir, rays.maxDist[size_t(i)]);
        for (int k = 0; k < 3; ++k)
            rays.dir[k][size_t(i)] = dir[k];
    }
    rays.reset();
    return rays;
}

// A block of segments from one origin, with the mask the caller passes in (the EyeRays planes
// dist, u and v are not used).
struct Segments : EyeRays {
    AlignedVector<int32_t> maskIn, mask;
    Segments(int w, int h) : EyeRays(w, h), maskIn(size_t(w * h), 0) { reset(); }
    void reset()
    {
        EyeRays::reset();
        mask = maskIn;
    }
    ray::OcclusionBlock block() { return {origin, dirs(), triIndex.data(), mask.data(), width, height}; }
};

// Segments from a light to points on and around the mesh, some stopping short of their
// target and some reaching past it, some masked out (-1, -7) and one with a positive word.
inline Segments shadowSegments(const Mesh& mesh, const float light[3], int width, int height,
                               uint32_t seed)
{
    const EyeRays rays = makeMixedRays(mesh, light, width, height, seed);
    Segments s(width, height);
    std::copy(light, light + 3, s.origin);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> length(0.3f, 1.6f);
    for (int i = 0; i < s.count(); ++i) {
        const float scale = length(rng);
        for (int k = 0; k < 3; ++k)
            s.dir[k][i] = rays.dir[k][i] * scale;
        s.maskIn[i] = i % 11 == 5 ? -1 : i % 13 == 6 ? -7 : i % 17 == 3 ? 5 : 0;
    }
    s.reset();
    return s;
}

// A block of rays with one origin each: three origin planes besides the EyeRays planes (whose
// shared origin is not used).
struct OwnOriginRays : EyeRays {
    AlignedVector<float> org[3];
    OwnOriginRays(int w, int h) : EyeRays(w, h)
    {
        for (auto& plane : org)
            plane.assign(size_t(w * h), 0.0f);
    }
    std::array<float, 3> originOf(int i) const { return {org[0][i], org[1][i], org[2][i]}; }
    const float* const* origins()
    {
        for (int k = 0; k < 3; ++k)
            orgPlanes_[k] = org[k].data();
        return orgPlanes_;
    }
    ray::ManyOriginRayBlock block()
    {
        return {origins(), dirs(), dist.data(), u.data(), v.data(), triIndex.data(), width, height};
    }

private:
    const float* orgPlanes_[3] = {};
};

// Rays of every kind (mixedDirection) from origins cycling by ray number through: outside the
// box, anywhere inside it, and within 0.01 of a triangle (where offset reflection rays start).
inline OwnOriginRays makeOwnOriginRays(const Mesh& mesh, int width, int height, uint32_t seed)
{
    OwnOriginRays rays(width, height);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> inside(-1.2f, 1.2f), outside(2.0f, 4.0f);
    std::uniform_real_distribution<float> weight(0.0f, 1.0f);
    std::uniform_int_distribution<int> pickTriangle(0, mesh.triangleCount() - 1);
    for (int i = 0; i < rays.count(); ++i) {
        float o[3];
        switch (i % 3) {
            case 0:  // outside, on a random side of each axis
                for (float& c : o)
                    c = outside(rng) * (weight(rng) < 0.5f ? -1.0f : 1.0f);
                break;
            case 1:
                for (float& c : o)
                    c = inside(rng);
                break;
            default: {  // on a triangle
                const int t = pickTriangle(rng);
                double a = weight(rng), b = weight(rng);
                if (a + b > 1.0) a = 1.0 - a, b = 1.0 - b;
                for (int k = 0; k < 3; ++k) {
                    const double p0 = mesh.vertex(mesh.triangles[4 * t])[k];
                    o[k] = float(p0 + a * (mesh.vertex(mesh.triangles[4 * t + 1])[k] - p0) +
                                 b * (mesh.vertex(mesh.triangles[4 * t + 2])[k] - p0) +
                                 0.01 * (weight(rng) - 0.5));
                }
            }
        }
        float dir[3];
        mixedDirection(mesh, o, i, rng, dir, rays.maxDist[size_t(i)]);
        for (int k = 0; k < 3; ++k) {
            rays.org[k][size_t(i)] = o[k];
            rays.dir[k][size_t(i)] = dir[k];
        }
    }
    rays.reset();
    return rays;
}

// A nearest-hit block on both paths against the brute force: where the reference is clear, both
// give its triangle and the per-ray path its distance (within 2e-5 of max(floor, dist)) and
// weights (1e-4); wherever the paths give the same triangle they give the same bits, and a
// miss leaves the distance and the weights as they were. Returns the rays compared and hit.
template <class Rays>
std::pair<int, int> expectNearestHits(const Mesh& mesh, const Rays& single, const Rays& packet,
                                      double floor)
{
    int compared = 0, hits = 0;
    for (int i = 0; i < single.count(); ++i) {
        std::array<float, 3> o{single.origin[0], single.origin[1], single.origin[2]};
        if constexpr (std::is_base_of_v<OwnOriginRays, Rays>) o = single.originOf(i);
        const auto d = single.direction(i);
        const ReferenceHit ref = referenceNearestHit(mesh, o.data(), d.data(), single.maxDist[i]);
        if (!ref.ambiguous) {
            ++compared;
            hits += ref.triangle >= 0;
            EXPECT_EQ(single.triIndex[i], ref.triangle) << "ray " << i;
            EXPECT_EQ(packet.triIndex[i], ref.triangle) << "tile ray " << i;
            if (single.triIndex[i] != ref.triangle) return {compared, hits};
            if (ref.triangle >= 0) {
                EXPECT_NEAR(single.dist[i], ref.dist, 2e-5 * std::max(floor, ref.dist))
                    << "ray " << i;
                EXPECT_NEAR(single.u[i], ref.u, 1e-4) << "ray " << i;
                EXPECT_NEAR(single.v[i], ref.v, 1e-4) << "ray " << i;
            }
        }
        if (packet.triIndex[i] != single.triIndex[i]) continue;
        EXPECT_EQ(floatBits(packet.dist[i]), floatBits(single.dist[i])) << "ray " << i;
        EXPECT_EQ(floatBits(packet.u[i]), floatBits(single.u[i])) << "ray " << i;
        EXPECT_EQ(floatBits(packet.v[i]), floatBits(single.v[i])) << "ray " << i;
        if (single.triIndex[i] < 0) {
            EXPECT_EQ(floatBits(single.dist[i]), floatBits(single.maxDist[i])) << "ray " << i;
            EXPECT_EQ(single.u[i], EyeRays::kUntouched) << "ray " << i;
            EXPECT_EQ(single.v[i], EyeRays::kUntouched) << "ray " << i;
        }
    }
    return {compared, hits};
}

// Tree blocks made by hand, slot by slot (8 bytes each), the entries of list leaves after the
// slots; slot 1 stays zero after the root unless the caller puts the root's children there.
struct HandTree {
    std::vector<uint32_t> words;
    explicit HandTree(int slots) : words(size_t(2 * slots), 0) {}
    const void* root() const { return words.data(); }
    void set(int slot, accel::KdNode node)
    {
        words[size_t(2 * slot)] = uint32_t(node.word0);
        words[size_t(2 * slot + 1)] = node.word1;
    }
    void inner(int slot, int axis, float split, int pairSlot)
    {
        set(slot, accel::encodeInner((pairSlot - slot) * 8, axis, split));
    }
    void leaf(int slot, int triangle)  // -1: an empty leaf
    {
        accel::KdNode node{INT32_MIN, 0};
        if (triangle >= 0) accel::encodeCompactLeaf(&triangle, 1, node);
        set(slot, node);
    }
    // A list leaf whose entries, in this order, follow everything so far.
    void list(int slot, const std::vector<int32_t>& order)
    {
        const int32_t offsetBytes = int32_t(words.size() * 4) - slot * 8;
        set(slot, accel::encodeListLeaf(offsetBytes, int32_t(order.size())));
        words.insert(words.end(), order.begin(), order.end());
    }
};

// A root that is a list leaf of the given triangles in that order.
inline HandTree listLeafTree(const std::vector<int32_t>& order)
{
    HandTree tree(2);
    tree.list(0, order);
    return tree;
}

// Triangles in planes x = c, each covering y, z in [-1, 1] and more, one per entry of xs.
inline Mesh wallsAt(const std::vector<float>& xs)
{
    Mesh mesh;
    for (float c : xs) {
        const int a = mesh.addVertex(c, -1, -1), b = mesh.addVertex(c, 3, -1);
        const int d = mesh.addVertex(c, -1, 3);
        mesh.addTriangle(a, b, d);
    }
    return mesh;
}

// Root splitting `axis` at `split`, lower leaf listing `lower`, upper leaf listing `upper`.
inline HandTree splitTree(int axis, float split, int lower, int upper)
{
    HandTree tree(4);
    tree.inner(0, axis, split, 2);
    tree.leaf(2, lower);
    tree.leaf(3, upper);
    return tree;
}

// A root that is a compact leaf of one triangle.
inline HandTree oneLeafTree(int triangle)
{
    HandTree tree(2);
    tree.leaf(0, triangle);
    return tree;
}

// The hand-made cases run every block twice: 4 x 4 takes the tiles, 4 x 3 one ray at a time.
// Rays (EyeRays or a kind of them) from origin along dirOf(i); returns run(rays) of each block.
template <class Rays, class DirFn, class Run>
auto onBothPaths(const float origin[3], DirFn dirOf, Run run)
{
    std::vector<decltype(run(std::declval<Rays&>()))> out;
    for (int height : {4, 3}) {
        Rays rays(4, height);
        std::copy(origin, origin + 3, rays.origin);
        for (int i = 0; i < rays.count(); ++i) {
            const std::array<float, 3> d = dirOf(i);
            for (int k = 0; k < 3; ++k)
                rays.dir[k][size_t(i)] = d[k];
        }
        out.push_back(run(rays));
    }
    return out;
}

// What a hand-made case's block shows: the triangle every ray reports (-2 when they disagree)
// and the first ray's distance.
struct Shot {
    int triangle;
    float dist;
};
inline Shot shotOf(const EyeRays& rays)
{
    Shot shot{rays.triIndex[0], rays.dist[0]};
    for (int i = 1; i < rays.count(); ++i)
        if (rays.triIndex[size_t(i)] != shot.triangle) shot.triangle = -2;
    return shot;
}

// The scenes and trees the traversal tests sweep: a triangle soup, or a bumpy height field in
// a closed box (every edge shared); the library's one-leaf and full-depth trees, and median
// trees with compact leaves, with list leaves only, and 48 levels deep.
enum class SceneKind { Soup, HeightFieldInBox };
enum class TreeKind { Simple, FullDepth, MedianCompact, MedianLists, MedianDeep };

// A scene and a tree of the sweeps, named as both ("SoupMedianDeep").
struct SceneCase {
    SceneKind scene;
    TreeKind tree;
};
inline std::string sceneCaseName(const SceneCase& c)
{
    static const char* kTrees[] = {"Simple", "FullDepth", "MedianCompact", "MedianLists",
                                   "MedianDeep"};
    return std::string(c.scene == SceneKind::Soup ? "Soup" : "HeightFieldInBox") +
           kTrees[int(c.tree)];
}
inline void PrintTo(const SceneCase& c, std::ostream* os)
{
    *os << sceneCaseName(c);
}

inline Mesh makeTestScene(SceneKind kind)
{
    if (kind == SceneKind::Soup) return makeTriangleSoup(400, 7);
    return concatenate(makeHeightField(14, 3), makeBoxMesh(-1.5f, 1.5f));
}

// A tree of the given kind over a mesh, freed with the object; a failed build leaves a null
// root.
class TestTree {
public:
    TestTree(const Mesh& mesh, TreeKind kind)
    {
        if (kind == TreeKind::Simple || kind == TreeKind::FullDepth) {
            const KDTreeBuildParams params =
                kind == TreeKind::Simple
                    ? KDTreeBuildParams{KDTreeBuildSimple, 0, 0.0f, 0, nullptr}
                    : KDTreeBuildParams{KDTreeBuildSahFullDepth, 50, 1.0f, 256, nullptr};
            int size = 0;
            if (vekrKDTreeBuildAlloc(&built_, mesh.vertices.data(), mesh.triangles.data(),
                                     mesh.vertexCount(), mesh.triangleCount(), &size,
                                     &params) != StatusOk)
                built_ = nullptr;
            return;
        }
        const bool lists = kind == TreeKind::MedianLists;
        const int depth = kind == TreeKind::MedianDeep ? 48 : lists ? 10 : 14;
        const int leafSize = kind == TreeKind::MedianDeep ? 1 : lists ? 6 : 3;
        median_ = std::make_unique<MedianKdTree>(mesh, depth, leafSize, lists);
    }
    ~TestTree() { vekrKDTreeFree(built_); }
    TestTree(const TestTree&) = delete;
    TestTree& operator=(const TestTree&) = delete;
    const void* root() const { return median_ ? median_->root() : built_; }
    const accel::KdNode* rootNode() const { return static_cast<const accel::KdNode*>(root()); }

private:
    std::unique_ptr<MedianKdTree> median_;
    void* built_ = nullptr;
};

// The fixture of the scene sweeps: every TEST_P on it, in whichever file, runs over every scene
// and tree kind (the one instantiation is in kd_traverse_test.cpp).
class RayScenes : public testing::TestWithParam<SceneCase> {
protected:
    void SetUp() override
    {
        scene = std::make_unique<PreparedScene>(makeTestScene(GetParam().scene));
        tree = std::make_unique<TestTree>(scene->mesh, GetParam().tree);
        ASSERT_NE(tree->root(), nullptr);
    }
    ray::SceneView view() const
    {
        return {&scene->box.minX, scene->records.data(), tree->rootNode()};
    }

    std::unique_ptr<PreparedScene> scene;
    std::unique_ptr<TestTree> tree;
};

}  // namespace vekr::test
