// Bindings of the acceleration and ray functions: triangle records, scene box, KD-tree build
// and the nearest-hit, layered-hit and occlusion queries on planar blocks of rays. Ray planes
// are C-contiguous float32 arrays of shape (3, n) (x, y, z planes) and the block is width x
// height rays, row after row. The queries take an extra `threads`: above 1 the block is cut
// into bands that threads trace at once; each ray's result does not depend on the cut.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "array_args.h"
#include "call_status.h"
#include "vekcore.h"

namespace vekr::python {
namespace {

// A tree block of vekrKDTreeBuildAlloc, released with the Python object.
struct KdTree {
    void* root = nullptr;
    int sizeBytes = 0;
    int triangleCount = 0;
    KdTree() = default;
    KdTree(const KdTree&) = delete;
    KdTree& operator=(const KdTree&) = delete;
    ~KdTree()
    {
        if (root == nullptr) return;
        if (PyGILState_Check()) {
            py::gil_scoped_release unlocked;
            vekrKDTreeFree(root);
        } else {
            vekrKDTreeFree(root);
        }
    }
};

// An IntersectContext with the arrays and the tree it points into kept alive.
struct Context {
    py::array box, records;
    std::shared_ptr<KdTree> tree;
    IntersectContext c{};
};

// Vertices (float32, three per vertex) and triangles (int32, four per triangle) after the
// index check that the library itself does not make.
struct MeshArg {
    const float* vertices;
    const int* triangles;
    int vertexCount, triangleCount;
};

MeshArg meshArg(const py::array& vertices, const py::array& triangles)
{
    MeshArg mesh;
    mesh.vertices = contiguousData<float>(vertices, "vertices", 0, false);
    mesh.triangles = contiguousData<int32_t>(triangles, "triangles", 0, false);
    if (vertices.size() % 3 != 0 || vertices.size() / 3 > INT32_MAX)
        throw py::value_error("vertices must hold three floats per vertex, fewer than 2^31");
    if (triangles.size() % 4 != 0 || triangles.size() / 4 > INT32_MAX)
        throw py::value_error("triangles must hold four ints per triangle (the fourth unused)");
    mesh.vertexCount = int(vertices.size() / 3);
    mesh.triangleCount = int(triangles.size() / 4);
    for (int64_t t = 0; t < mesh.triangleCount; ++t)
        for (int c = 0; c < 3; ++c) {
            const int v = mesh.triangles[t * 4 + c];
            if (v < 0 || v >= mesh.vertexCount)
                throw py::value_error("triangle " + std::to_string(t) + " refers to vertex " +
                                      std::to_string(v) + " of " +
                                      std::to_string(mesh.vertexCount));
        }
    return mesh;
}

const float* pointArg(const py::array& p, const char* name)
{
    if (p.ndim() != 1 || p.size() != 3)
        throw py::value_error(std::string(name) + " must have shape (3,), not " + shapeText(p));
    return contiguousData<float>(p, name, 3, false);
}

int64_t blockCount(int width, int height)
{
    return width > 0 && height > 0 ? int64_t(width) * height : 0;
}

// Cuts a width x height block into up to `threads` bands and runs trace(first, width, height)
// on each, the first band on the calling thread. Bands are whole rows, a multiple of 4 of them
// when the block could take the 4 x 4 packet path; a single row is cut into runs of columns.
template <class Trace>
void traceBands(int width, int height, int threads, Trace trace)
{
    constexpr int64_t kRaysPerThread = 2048;  // below this a thread costs more than it saves
    const int64_t count = blockCount(width, height);
    threads = int(std::clamp<int64_t>(count / kRaysPerThread, 1, std::max(threads, 1)));
    struct Band {
        int64_t first;
        int width, height;
    };
    std::vector<Band> bands;
    if (threads == 1) {
        bands.push_back({0, width, height});
    } else if (height == 1) {
        const int step = (width / threads + 3) & ~3;
        for (int x = 0; x < width; x += step)
            bands.push_back({x, std::min(step, width - x), 1});
    } else {
        const int unit = width % 4 == 0 && height % 4 == 0 ? 4 : 1;
        const int units = height / unit;
        const int perBand = (units + threads - 1) / threads * unit;
        for (int y = 0; y < height; y += perBand)
            bands.push_back({int64_t(y) * width, width, std::min(perBand, height - y)});
    }
    std::vector<std::thread> helpers;
    for (size_t b = 1; b < bands.size(); ++b)
        helpers.emplace_back([&trace, band = bands[b]] { trace(band.first, band.width, band.height); });
    trace(bands[0].first, bands[0].width, bands[0].height);
    for (std::thread& t : helpers)
        t.join();
}

py::array_t<uint8_t> triangleAccelInit(const py::array& records, const py::array& vertices,
                                       const py::array& triangles)
{
    const MeshArg mesh = meshArg(vertices, triangles);
    auto* out = contiguousData<uint8_t>(records, "records",
                                        int64_t(mesh.triangleCount) * sizeof(TriangleAccel), true);
    int status;
    {
        py::gil_scoped_release unlocked;
        status = vekrTriangleAccelInit(reinterpret_cast<TriangleAccel*>(out), mesh.vertices,
                                       mesh.triangles, mesh.triangleCount);
    }
    checkStatus(status, "vekrTriangleAccelInit");
    return records;
}

int setBoundBox(const py::array& vertices, const py::array& box)
{
    const float* v = contiguousData<float>(vertices, "vertices", 0, false);
    if (vertices.size() % 3 != 0 || vertices.size() / 3 > INT32_MAX)
        throw py::value_error("vertices must hold three floats per vertex, fewer than 2^31");
    float* out = contiguousData<float>(box, "box", 6, true);
    int status;
    {
        py::gil_scoped_release unlocked;
        status = vekrSetBoundBox_32f(v, int(vertices.size() / 3), out);
    }
    return checkStatus(status, "vekrSetBoundBox_32f");
}

std::shared_ptr<KdTree> buildTree(const py::array& vertices, const py::array& triangles,
                                  uint32_t method, uint32_t maxDepth, float ratio,
                                  uint32_t memoryLimitMB, const std::optional<py::array>& box)
{
    const MeshArg mesh = meshArg(vertices, triangles);
    const float* boxData = box ? contiguousData<float>(*box, "bound_box", 6, false) : nullptr;
    KDTreeBuildParams params = {method, maxDepth, ratio, memoryLimitMB, boxData};
    auto tree = std::make_shared<KdTree>();
    int status;
    {
        py::gil_scoped_release unlocked;
        status = vekrKDTreeBuildAlloc(&tree->root, mesh.vertices, mesh.triangles, mesh.vertexCount,
                                      mesh.triangleCount, &tree->sizeBytes, &params);
    }
    if (status < 0) tree->root = nullptr;  // nothing was written
    checkStatus(status, "vekrKDTreeBuildAlloc");
    tree->triangleCount = mesh.triangleCount;
    return tree;
}

Context makeContext(const py::array& box, const py::array& records,
                    const std::shared_ptr<KdTree>& tree)
{
    if (!tree || tree->root == nullptr) throw py::value_error("tree holds no KD-tree");
    Context ctx{box, records, tree, {}};
    ctx.c.boundBox = contiguousData<float>(box, "box", 6, false);
    ctx.c.triangleAccel = reinterpret_cast<const TriangleAccel*>(contiguousData<uint8_t>(
        records, "records", int64_t(tree->triangleCount) * sizeof(TriangleAccel), false));
    ctx.c.rootNode = tree->root;
    return ctx;
}

// The outputs of a nearest-hit query on a block of `count` rays.
struct HitArgs {
    float* dist;
    Planes uv;
    int32_t* tri;
};

HitArgs hitArgs(const py::array& dist, const py::array& uv, const py::array& tri, int64_t count)
{
    return {contiguousData<float>(dist, "dist", count, true), planesArg(uv, "hit_uv", count, true, 2),
            contiguousData<int32_t>(tri, "tri_index", count, true)};
}

int intersectEye(const py::array& origin, const py::array& dir, const py::array& dist,
                 const py::array& uv, const py::array& tri, const Context& ctx, int width,
                 int height, int threads)
{
    const int64_t count = blockCount(width, height);
    const float* o = pointArg(origin, "origin");
    const Planes d = planesArg(dir, "direction", count, false);
    const HitArgs h = hitArgs(dist, uv, tri, count);
    if (count == 0) return StatusOk;
    py::gil_scoped_release unlocked;
    traceBands(width, height, threads, [&](int64_t f, int w, int bh) {
        const float* dp[3] = {d.p[0] + f, d.p[1] + f, d.p[2] + f};
        float* uvp[2] = {h.uv.p[0] + f, h.uv.p[1] + f};
        vekrIntersectEyeSO_32f(o, dp, h.dist + f, uvp, h.tri + f, &ctx.c, w, bh);
    });
    return StatusOk;  // the function checks nothing and always succeeds
}

int intersectManyOrigins(const py::array& origin, const py::array& dir, const py::array& dist,
                         const py::array& uv, const py::array& tri, const Context& ctx,
                         int width, int height, int threads)
{
    const int64_t count = blockCount(width, height);
    const Planes o = planesArg(origin, "origin", count, false);
    const Planes d = planesArg(dir, "direction", count, false);
    const HitArgs h = hitArgs(dist, uv, tri, count);
    if (count == 0) return StatusOk;
    py::gil_scoped_release unlocked;
    traceBands(width, height, threads, [&](int64_t f, int w, int bh) {
        const float* op[3] = {o.p[0] + f, o.p[1] + f, o.p[2] + f};
        const float* dp[3] = {d.p[0] + f, d.p[1] + f, d.p[2] + f};
        float* uvp[2] = {h.uv.p[0] + f, h.uv.p[1] + f};
        vekrIntersectMO_32f(op, dp, h.dist + f, uvp, h.tri + f, &ctx.c, w, bh);
    });
    return StatusOk;
}

// The layered outputs hold `layers` blocks one after another, so a band is traced into its own
// scratch layers and copied into place.
int intersectLayers(const py::array& origin, const py::array& dir, const py::array& dist,
                    const py::array& uv, const py::array& tri, int width, int height, int layers,
                    const Context& ctx, int threads)
{
    const int64_t count = blockCount(width, height);
    const int64_t total = layers > 0 ? count * layers : 0;
    const float* o = pointArg(origin, "origin");
    const Planes d = planesArg(dir, "direction", count, false);
    const HitArgs h = hitArgs(dist, uv, tri, total);
    if (total == 0) return StatusOk;
    py::gil_scoped_release unlocked;
    traceBands(width, height, threads, [&](int64_t f, int w, int bh) {
        const float* dp[3] = {d.p[0] + f, d.p[1] + f, d.p[2] + f};
        if (f == 0 && w == width && bh == height) {
            vekrIntersectMultipleSO_32f(o, dp, h.dist, h.uv.p, h.tri, w, bh, layers, &ctx.c);
            return;
        }
        const int64_t n = int64_t(w) * bh;
        std::vector<float> bandDist(size_t(n * layers)), bandU(bandDist.size()),
            bandV(bandDist.size());
        std::vector<int32_t> bandTri(bandDist.size());
        std::copy_n(h.dist + f, n, bandDist.data());  // layer 0 holds the maximum distances
        float* uvp[2] = {bandU.data(), bandV.data()};
        vekrIntersectMultipleSO_32f(o, dp, bandDist.data(), uvp, bandTri.data(), w, bh, layers,
                                    &ctx.c);
        for (int k = 0; k < layers; ++k) {
            const size_t from = size_t(k * n);
            const int64_t to = k * count + f;
            std::copy_n(bandDist.data() + from, n, h.dist + to);
            std::copy_n(bandU.data() + from, n, h.uv.p[0] + to);
            std::copy_n(bandV.data() + from, n, h.uv.p[1] + to);
            std::copy_n(bandTri.data() + from, n, h.tri + to);
        }
    });
    return StatusOk;
}

int intersectAny(const py::array& origin, const py::array& dir, const py::array& tri,
                 const py::array& mask, int width, int height, const Context& ctx, int threads)
{
    const int64_t count = blockCount(width, height);
    const float* o = pointArg(origin, "origin");
    const Planes d = planesArg(dir, "direction", count, false);
    int32_t* t = contiguousData<int32_t>(tri, "tri_index", count, true);
    int32_t* m = contiguousData<int32_t>(mask, "mask", count, true);
    if (count == 0) return StatusOk;
    py::gil_scoped_release unlocked;
    traceBands(width, height, threads, [&](int64_t f, int w, int bh) {
        const float* dp[3] = {d.p[0] + f, d.p[1] + f, d.p[2] + f};
        vekrIntersectAnySO_32f(o, dp, t + f, m + f, w, bh, &ctx.c);
    });
    return StatusOk;
}

}  // namespace

void bindRays(py::module_& m)
{
    using py::arg;
    py::class_<KdTree, std::shared_ptr<KdTree>>(m, "KDTree",
                                                "A tree block of vekrKDTreeBuildAlloc, released "
                                                "with vekrKDTreeFree when the object goes.")
        .def_property_readonly("size", [](const KdTree& t) { return t.sizeBytes; },
                               "The block's size in bytes.")
        .def_property_readonly("triangle_count", [](const KdTree& t) { return t.triangleCount; });
    py::class_<Context>(m, "IntersectContext",
                        "An IntersectContext: box, triangle records and tree, kept alive.")
        .def(py::init(&makeContext), arg("box"), arg("records"), arg("tree"));

    m.attr("KD_TREE_BUILD_SIMPLE") = uint32_t(KDTreeBuildSimple);
    m.attr("KD_TREE_BUILD_SAH") = uint32_t(KDTreeBuildSah);
    m.attr("KD_TREE_BUILD_SAH_FULL_DEPTH") = uint32_t(KDTreeBuildSahFullDepth);
    m.def(
        "triangle_accel_get_size",
        [] {
            int size = 0, status;
            {
                py::gil_scoped_release unlocked;
                status = vekrTriangleAccelGetSize(&size);
            }
            checkStatus(status, "vekrTriangleAccelGetSize");
            return size;
        },
        "vekrTriangleAccelGetSize: the bytes of one record.");
    m.def("triangle_accel_init", &triangleAccelInit, arg("records"), arg("vertices"),
          arg("triangles"),
          "vekrTriangleAccelInit into the uint8 array records (40 bytes per triangle). "
          "vertices: float32, three per vertex; triangles: int32, four per triangle, every "
          "index checked against the vertex count first. Returns records.");
    m.def("set_bound_box", &setBoundBox, arg("vertices"), arg("box"),
          "vekrSetBoundBox_32f into six float32 elements of box. Returns the status.");
    m.def("kd_tree_build_alloc", &buildTree, arg("vertices"), arg("triangles"), arg("method"),
          arg("max_depth"), arg("ratio"), arg("memory_limit_mb"), arg("bound_box") = py::none(),
          "vekrKDTreeBuildAlloc with the fields of KDTreeBuildParams; returns a KDTree.");
    m.def("intersect_eye_so", &intersectEye, arg("origin"), arg("direction"), arg("dist"),
          arg("hit_uv"), arg("tri_index"), arg("context"), arg("width"), arg("height"),
          arg("threads") = 1,
          "vekrIntersectEyeSO_32f. direction (3, n) and hit_uv (2, n) float32 planes, dist "
          "float32 (n,) (maximum distances in), tri_index int32 (n,). Returns the status.");
    m.def("intersect_mo", &intersectManyOrigins, arg("origin"), arg("direction"), arg("dist"),
          arg("hit_uv"), arg("tri_index"), arg("context"), arg("width"), arg("height"),
          arg("threads") = 1, "vekrIntersectMO_32f: as intersect_eye_so with origin (3, n).");
    m.def("intersect_multiple_so", &intersectLayers, arg("origin"), arg("direction"),
          arg("dist"), arg("hit_uv"), arg("tri_index"), arg("width"), arg("height"),
          arg("layers"), arg("context"), arg("threads") = 1,
          "vekrIntersectMultipleSO_32f: dist, hit_uv planes and tri_index hold `layers` blocks "
          "one after another.");
    m.def("intersect_any_so", &intersectAny, arg("origin"), arg("direction"), arg("tri_index"),
          arg("mask"), arg("width"), arg("height"), arg("context"), arg("threads") = 1,
          "vekrIntersectAnySO_32f: segments origin + t direction, 0 < t < 1; mask int32 (n,), "
          "negative words skip a ray, occluded rays get -1.");
}

}  // namespace vekr::python
