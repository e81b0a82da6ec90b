// Rays: eye-ray generation (rays/s and bytes/s beside a plain store of the same bytes), shadow
// and reflection rays (beside a stream of the same bytes), nearest hits per ray and per 4x4
// tile on the example renderer's scenes through each kind of KD-tree, hit points, the
// occlusion of a renderer's shadow rays per ray and per tile beside the nearest hit of the
// same segments, the nearest hits of mirror reflections and of coherent rays with their own
// origins per ray and per tile, and successive hits along eye rays beside one eye-ray pass.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "ray/eye_rays.h"
#include "ray/hit_points.h"
#include "ray/kd_layers.h"
#include "ray/kd_many_origins.h"
#include "ray/kd_occlusion.h"
#include "ray/kd_traverse.h"
#include "ray/secondary_rays.h"
#include "scene.h"
#include "store_bandwidth.h"
#include "vekcore.h"
#include "vekr.h"

namespace {

// A float plane from the core allocator (64-byte aligned, so the packet path applies).
struct Plane {
    float* data;
    // Touched once, so no benchmark pays for the first page faults.
    explicit Plane(size_t n) : data(static_cast<float*>(vekMalloc(n * sizeof(float))))
    {
        std::memset(data, 0, n * sizeof(float));
    }
    ~Plane() { vekFree(data); }
    Plane(const Plane&) = delete;
    Plane& operator=(const Plane&) = delete;
};

void setRayThroughput(benchmark::State& state, int64_t raysPerIteration)
{
    state.counters["rays/s"] = benchmark::Counter(
        double(state.iterations()) * double(raysPerIteration), benchmark::Counter::kIsRate);
}

// --- Eye rays ------------------------------------------------------------------------------

const float kCorner[3] = {-0.8f, 0.6f, -1.0f};
const float kStepX[3] = {0.0015f, 0.0f, 0.0001f};
const float kStepY[3] = {0.0f, -0.0015f, 0.0001f};

template <bool kExported,
          void (*Cast)(const vekr::ray::ImagePlane&, const vekr::ray::EyeRayBlockOut&)>
void BM_CastEye(benchmark::State& state)
{
    const int side = int(state.range(0));
    const size_t n = size_t(side) * size_t(side);
    Plane x(n), y(n), z(n);
    float* const planes[3] = {x.data, y.data, z.data};
    for (auto _ : state) {
        if (kExported)
            vekrCastEye_32f(kCorner, kStepX, kStepY, 1, 2, Size2D{side, side}, planes,
                            Size2D{side, side});
        else
            Cast({kCorner, kStepX, kStepY},
                 {1, 2, side, side, side, side, {x.data, y.data, z.data}});
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n) * 12);
    setRayThroughput(state, int64_t(n));
}

// The store-bandwidth reference: unaligned 8-float stores of a constant into three planes of
// the same size, as fast as one core writes memory.
void BM_StreamingWrite(benchmark::State& state)
{
    const int side = int(state.range(0));
    const size_t n = size_t(side) * size_t(side);
    Plane x(n), y(n), z(n);
    float* const planes[3] = {x.data, y.data, z.data};
    for (auto _ : state) {
        for (float* p : planes)
            vekr::bench::storeConstant(p, n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n) * 12);
}

BENCHMARK(BM_CastEye<true, nullptr>)->Name("BM_CastEye")->Arg(64)->Arg(512)->Arg(2048)->Arg(4096);
BENCHMARK(BM_CastEye<false, vekr::ray::castEyeRaysScalar>)
    ->Name("BM_CastEyeScalar")
    ->Arg(512)
    ->Arg(4096);
BENCHMARK(BM_StreamingWrite)->Arg(64)->Arg(512)->Arg(2048)->Arg(4096);

// --- Shadow and reflection rays ------------------------------------------------------------

// planeCount planes of n floats from the core allocator, filled with values in [-1, 1]; each
// starts `lead` floats into its block, so a lead of 1 leaves 16-byte alignment.
class BenchPlanes {
public:
    BenchPlanes(int planeCount, size_t n, size_t lead, uint32_t seed) : lead_(lead)
    {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> value(-1.0f, 1.0f);
        for (int k = 0; k < planeCount; ++k) {
            raw_.push_back(static_cast<float*>(vekMalloc((n + lead) * sizeof(float))));
            for (size_t i = 0; i < n + lead; ++i)
                raw_.back()[i] = value(rng);
        }
    }
    ~BenchPlanes()
    {
        for (float* p : raw_)
            vekFree(p);
    }
    BenchPlanes(const BenchPlanes&) = delete;
    BenchPlanes& operator=(const BenchPlanes&) = delete;
    float* operator[](int k) const { return raw_[size_t(k)] + lead_; }
    // Plane k as mask words: one in five -1, the others 0.
    int32_t* maskWords(int k, size_t n) const
    {
        int32_t* words = reinterpret_cast<int32_t*>((*this)[k]);
        for (size_t i = 0; i < n; ++i)
            words[i] = i % 5 == 3 ? -1 : 0;
        return words;
    }

private:
    std::vector<float*> raw_;
    size_t lead_;
};

// Per ray, shadow rays read eyeDot, normal, point and mask (32 bytes) and write mask, shadowDot
// and direction (20 bytes); reflections read direction, mask and normal (28 bytes) and write
// the reflected direction (12 bytes).
constexpr int64_t kShadowBytesPerRay = 52;
constexpr int64_t kReflectionBytesPerRay = 40;
const float kLight[3] = {0.5f, 3.0f, -0.25f};

// Cast: a twin, or null for the exported function.
template <void (*Cast)(const vekr::ray::ShadowRayRun&)>
void BM_CastShadow(benchmark::State& state)
{
    const int n = int(state.range(0));
    const BenchPlanes p(8, size_t(n), 0, 5);    // eyeDot, normal, point, mask
    const BenchPlanes out(4, size_t(n), 0, 6);  // shadowDot, direction
    const float* normal[3] = {p[1], p[2], p[3]};
    const float* hit[3] = {p[4], p[5], p[6]};
    float* dir[3] = {out[1], out[2], out[3]};
    int32_t* mask = p.maskWords(7, size_t(n));
    for (auto _ : state) {
        if constexpr (Cast != nullptr)
            Cast({kLight, p[0], normal, hit, mask, out[0], dir, n});
        else
            vekrCastShadowSO_32f(kLight, p[0], normal, hit, mask, out[0], dir, n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * kShadowBytesPerRay);
    setRayThroughput(state, n);
}

// Reflect: a path, or null for the exported function; kLead 1 takes the planes off 16-byte
// alignment.
template <void (*Reflect)(const vekr::ray::ReflectionRayRun&), size_t kLead>
void BM_CastReflection(benchmark::State& state)
{
    const int n = int(state.range(0));
    const BenchPlanes p(10, size_t(n), kLead, 7);
    const float* incident[3] = {p[0], p[1], p[2]};
    const float* normal[3] = {p[3], p[4], p[5]};
    float* reflected[3] = {p[6], p[7], p[8]};
    const int32_t* mask = p.maskWords(9, size_t(n));
    for (auto _ : state) {
        if constexpr (Reflect != nullptr)
            Reflect({incident, mask, normal, reflected, n});
        else
            vekrCastReflectionRay_32f(incident, mask, normal, reflected, n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * n * kReflectionBytesPerRay);
    setRayThroughput(state, n);
}

// The bandwidth reference of a generator: 8-float loads of kRead planes, their sum stored to
// kWriteNew other planes and over the last kWriteInPlace of the read ones, the same streams
// and bytes per element as the generator.
template <int kRead, int kWriteNew, int kWriteInPlace>
void BM_StreamPlanes(benchmark::State& state)
{
    const size_t n = size_t(state.range(0));
    const BenchPlanes p(kRead + kWriteNew, n, 0, 9);
    float* in[kRead];
    float* out[kWriteNew + kWriteInPlace];
    for (int k = 0; k < kRead; ++k)
        in[k] = p[k];
    for (int k = 0; k < kWriteNew + kWriteInPlace; ++k)
        out[k] = p[k < kWriteNew ? kRead + k : kRead - kWriteInPlace + (k - kWriteNew)];
    for (auto _ : state) {
        for (size_t i = 0; i + 8 <= n; i += 8) {
            __m256 sum = _mm256_loadu_ps(in[0] + i);
            for (int k = 1; k < kRead; ++k)
                sum = _mm256_add_ps(sum, _mm256_loadu_ps(in[k] + i));
            for (float* o : out)
                _mm256_storeu_ps(o + i, sum);
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n) *
                            (kRead + kWriteNew + kWriteInPlace) * 4);
    setRayThroughput(state, int64_t(n));
}

// 1e3 rays stay in the first-level caches; 1e7 (400 to 520 MB) go through memory.
void secondaryRayArgs(benchmark::internal::Benchmark* b)
{
    b->Arg(1000)->Arg(10'000'000);
}
BENCHMARK(BM_CastShadow<nullptr>)->Name("BM_CastShadow")->Apply(secondaryRayArgs);
BENCHMARK(BM_CastShadow<vekr::ray::castShadowRaysScalar>)
    ->Name("BM_CastShadowScalar")
    ->Apply(secondaryRayArgs);
BENCHMARK(BM_StreamPlanes<8, 4, 1>)->Name("BM_StreamShadowBytes")->Apply(secondaryRayArgs);
BENCHMARK(BM_CastReflection<nullptr, 0>)->Name("BM_CastReflection")->Apply(secondaryRayArgs);
BENCHMARK(BM_CastReflection<nullptr, 1>)
    ->Name("BM_CastReflectionUnaligned")
    ->Apply(secondaryRayArgs);
BENCHMARK(BM_CastReflection<vekr::ray::reflectOneByOne, 0>)
    ->Name("BM_CastReflectionOneByOne")
    ->Apply(secondaryRayArgs);
BENCHMARK(BM_CastReflection<vekr::ray::reflectQuadsScalar, 0>)
    ->Name("BM_CastReflectionQuadsScalar")
    ->Apply(secondaryRayArgs);
BENCHMARK(BM_StreamPlanes<7, 3, 0>)->Name("BM_StreamReflectionBytes")->Apply(secondaryRayArgs);

// --- Nearest hits --------------------------------------------------------------------------

// A scene of the example renderer with its records, box and tree, and the coherent eye rays
// of its default camera over a width x height image.
struct BenchScene {
    SceneMesh mesh{};
    std::vector<TriangleAccel> records;
    BoundBox box{};
    void* tree = nullptr;
    float eye[3] = {};
    float corner[3] = {}, stepX[3] = {}, stepY[3] = {};

    explicit BenchScene(int denseTriangles, uint32_t method)
    {
        if (denseTriangles > 0)
            sceneMakeDense(&mesh, denseTriangles);
        else
            sceneMakeDefault(&mesh);
        records.resize(size_t(mesh.triangleCount));
        vekrTriangleAccelInit(records.data(), mesh.vertices, mesh.triangles, mesh.triangleCount);
        vekrSetBoundBox_32f(mesh.vertices, mesh.vertexCount, &box.minX);
        // 1024 MB: far more than the builds of these scenes need.
        const KDTreeBuildParams params{method, 50, 1.0f, 1024, &box.minX};
        int size = 0;
        vekrKDTreeBuildAlloc(&tree, mesh.vertices, mesh.triangles, mesh.vertexCount,
                             mesh.triangleCount, &size, &params);
        float target[3], up[3], fovY;
        sceneDefaultCamera(&mesh, eye, target, up, &fovY);
        setCamera(target, up, fovY);
    }
    ~BenchScene()
    {
        vekrKDTreeFree(tree);
        sceneFree(&mesh);
    }
    BenchScene(const BenchScene&) = delete;
    BenchScene& operator=(const BenchScene&) = delete;

    vekr::ray::SceneView view() const
    {
        return {&box.minX, records.data(), static_cast<const vekr::accel::KdNode*>(tree)};
    }
    IntersectContext context() const { return {&box.minX, records.data(), tree}; }

    // Directions for a 1 x 1 image plane at distance 1; the rays use pixel steps of it.
    void setCamera(const float target[3], const float up[3], float fovY)
    {
        float forward[3], right[3], trueUp[3];
        for (int k = 0; k < 3; ++k)
            forward[k] = target[k] - eye[k];
        normalise(forward);
        cross(forward, up, right);
        normalise(right);
        cross(right, forward, trueUp);
        const float halfHeight = std::tan(fovY * 3.14159265f / 360.0f);
        for (int k = 0; k < 3; ++k) {
            corner[k] = forward[k] + halfHeight * (trueUp[k] - right[k]);
            stepX[k] = 2.0f * halfHeight * right[k];
            stepY[k] = -2.0f * halfHeight * trueUp[k];
        }
    }
    static void normalise(float v[3])
    {
        const float length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int k = 0; k < 3; ++k)
            v[k] /= length;
    }
    static void cross(const float a[3], const float b[3], float out[3])
    {
        out[0] = a[1] * b[2] - a[2] * b[1];
        out[1] = a[2] * b[0] - a[0] * b[2];
        out[2] = a[0] * b[1] - a[1] * b[0];
    }
};

// The scenes are built on first use and kept for the whole run (a few MB each), so each tree
// is built once however the benchmarks using it are ordered.
BenchScene& benchScene(int denseTriangles, uint32_t method)
{
    static std::map<std::pair<int, uint32_t>, std::unique_ptr<BenchScene>> scenes;
    std::unique_ptr<BenchScene>& scene = scenes[{denseTriangles, method}];
    if (!scene) scene = std::make_unique<BenchScene>(denseTriangles, method);
    return *scene;
}

// Thread CPU time, the clock the benchmark library times single-threaded runs with: for
// ratios of two calls timed in the same loop.
double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

// The planes of one square image of side x side rays.
struct ImageRays {
    int side;
    Plane dx, dy, dz, dist, u, v, tri;
    ImageRays(const BenchScene& scene, int side_)
        : side(side_), dx(n()), dy(n()), dz(n()), dist(n()), u(n()), v(n()), tri(n())
    {
        float step[2][3];
        for (int k = 0; k < 3; ++k) {
            step[0][k] = scene.stepX[k] / float(side);
            step[1][k] = scene.stepY[k] / float(side);
        }
        float* const planes[3] = {dx.data, dy.data, dz.data};
        vekrCastEye_32f(scene.corner, step[0], step[1], 0, 0, Size2D{side, side}, planes,
                        Size2D{side, side});
        dirs[0] = dx.data;
        dirs[1] = dy.data;
        dirs[2] = dz.data;
    }
    ImageRays(const ImageRays&) = delete;
    ImageRays& operator=(const ImageRays&) = delete;
    size_t n() const { return size_t(side) * size_t(side); }
    int32_t* triIndex() const { return reinterpret_cast<int32_t*>(tri.data); }
    vekr::ray::EyeRayBlock block(const float* origin)
    {
        return {origin, dirs, dist.data, u.data, v.data, triIndex(), side, side};
    }
    void resetDistances()
    {
        for (size_t i = 0; i < n(); ++i)
            dist.data[i] = FLT_MAX;
    }
    const float* dirs[3] = {};
};

enum class Path { Single, Packet, Exported };

// One nearest-hit pass of eye rays through the given path.
void intersectEyeBlock(Path path, const BenchScene& scene, const vekr::ray::EyeRayBlock& block)
{
    if (path == Path::Single) {
        vekr::ray::intersectEyeRaysSingle(scene.view(), block);
    } else if (path == Path::Packet) {
        vekr::ray::intersectEyeRaysPacket4x4(scene.view(), block);
    } else {
        const IntersectContext context = scene.context();
        float* uv[2] = {block.hitU, block.hitV};
        vekrIntersectEyeSO_32f(block.origin, block.dir, block.dist, uv, block.triIndex, &context,
                               block.width, block.height);
    }
}

// The tree argument of the intersection benchmarks.
enum TreeArg { kFullDepthTree = 0, kSahTree = 1, kSimpleTree = 2 };
const uint32_t kTreeMethods[] = {KDTreeBuildSahFullDepth, KDTreeBuildSah, KDTreeBuildSimple};

// Arguments: dense-mesh triangles (0 for the default scene), image side, tree (TreeArg).
template <Path kPath>
void BM_IntersectEye(benchmark::State& state)
{
    const BenchScene& scene = benchScene(int(state.range(0)), kTreeMethods[state.range(2)]);
    ImageRays rays(scene, int(state.range(1)));
    const vekr::ray::EyeRayBlock block = rays.block(scene.eye);
    int64_t hits = 0;
    for (auto _ : state) {
        rays.resetDistances();
        intersectEyeBlock(kPath, scene, block);
        benchmark::ClobberMemory();
    }
    for (size_t i = 0; i < rays.n(); ++i)
        hits += block.triIndex[i] >= 0;
    state.counters["hit%"] = 100.0 * double(hits) / double(rays.n());
    state.counters["triangles"] = double(scene.mesh.triangleCount);
    setRayThroughput(state, int64_t(rays.n()));
}

// The full-depth surface-area-heuristic tree (the renderer's default), the one limited to
// 50 splits in all, and the one-leaf tree, where every ray tests every triangle: images on
// the one-leaf tree are small, and the rays/s counters compare the trees on one scene.
void intersectArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"dense", "side", "tree"});
    for (int tree : {kFullDepthTree, kSahTree, kSimpleTree})
        b->Args({0, 64, tree});
    b->Args({0, 512, kFullDepthTree});
    b->Args({100000, 256, kFullDepthTree})->Args({100000, 16, kSimpleTree});
    b->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_IntersectEye<Path::Single>)->Name("BM_IntersectEyePerRay")->Apply(intersectArgs);
BENCHMARK(BM_IntersectEye<Path::Packet>)->Name("BM_IntersectEyePacket4x4")->Apply(intersectArgs);
BENCHMARK(BM_IntersectEye<Path::Exported>)
    ->Name("BM_IntersectEyeSO")
    ->ArgNames({"dense", "side", "tree"})
    ->Args({0, 256, kFullDepthTree})
    ->Unit(benchmark::kMillisecond);

// --- Hit points ----------------------------------------------------------------------------

template <bool kSharedOrigin, void (*Compute)(const vekr::ray::HitPointRays&, float* const[3])>
void BM_HitPoints(benchmark::State& state)
{
    const int n = int(state.range(0));
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> planes[7];
    for (auto& p : planes) {
        p.resize(size_t(n));
        for (float& x : p)
            x = value(rng);
    }
    std::vector<int32_t> mask(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        mask[size_t(i)] = i % 3 == 0 ? -1 : 0;
    std::vector<float> out[3] = {std::vector<float>(size_t(n)), std::vector<float>(size_t(n)),
                                 std::vector<float>(size_t(n))};
    const float origin[3] = {0.5f, 0.25f, 2.0f};
    const float* dirs[3] = {planes[0].data(), planes[1].data(), planes[2].data()};
    const float* origins[3] = {planes[3].data(), planes[4].data(), planes[5].data()};
    float* const points[3] = {out[0].data(), out[1].data(), out[2].data()};
    const vekr::ray::HitPointRays rays{kSharedOrigin ? origin : nullptr,
                                       kSharedOrigin ? nullptr : origins,
                                       dirs,
                                       planes[6].data(),
                                       mask.data(),
                                       n,
                                       0.999f};
    for (auto _ : state) {
        Compute(rays, points);
        benchmark::ClobberMemory();
    }
    setRayThroughput(state, n);
    state.SetBytesProcessed(int64_t(state.iterations()) * n * (kSharedOrigin ? 32 : 44));
}

BENCHMARK(BM_HitPoints<true, vekr::ray::computeHitPointsAvx>)
    ->Name("BM_HitPointS0")
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000);
BENCHMARK(BM_HitPoints<true, vekr::ray::computeHitPointsScalar>)
    ->Name("BM_HitPointS0Scalar")
    ->Arg(1000)
    ->Arg(100000);
BENCHMARK(BM_HitPoints<false, vekr::ray::computeHitPointsAvx>)
    ->Name("BM_HitPointM0")
    ->Arg(1000)
    ->Arg(100000)
    ->Arg(1000000);

}  // namespace

// --- Shadow rays: occlusion ----------------------------------------------------------------

namespace {

// The surfaces the default camera's eye rays of a side x side image hit, as a renderer finds
// them: the eye rays' nearest hits through the exported function, the points a hair in front
// of the surface and the flat normals there.
struct EyeHits {
    ImageRays eye;
    // 0 for a hit, -1 for a miss: the hit points clear bits by the mask word, so it must not be
    // a triangle index.
    std::vector<int32_t> hitMask;
    Plane px, py, pz, nx, ny, nz;
    float* points[3] = {px.data, py.data, pz.data};
    float* normals[3] = {nx.data, ny.data, nz.data};

    EyeHits(const BenchScene& scene, int side)
        : eye(scene, side), hitMask(eye.n()), px(eye.n()), py(eye.n()), pz(eye.n()),
          nx(eye.n()), ny(eye.n()), nz(eye.n())
    {
        eye.resetDistances();
        intersectEyeBlock(Path::Exported, scene, eye.block(scene.eye));
        for (size_t i = 0; i < eye.n(); ++i)
            hitMask[i] = eye.triIndex()[i] < 0 ? -1 : 0;
        vekrHitPoint3DEpsS0_32f_M(scene.eye, eye.dirs, eye.dist.data, hitMask.data(), points,
                                  int(eye.n()), 0.9999f);
        std::vector<float> triangleNormals(size_t(scene.mesh.triangleCount) * 3);
        vekrTriangleNormal_32f(scene.mesh.vertices, scene.mesh.triangles, triangleNormals.data(),
                               scene.mesh.triangleCount);
        vekrSurfFlatNormal_32f(triangleNormals.data(), eye.triIndex(), normals, int(eye.n()));
    }
    bool hit(size_t i) const { return hitMask[i] == 0; }
};

// The shadow segments a renderer casts: one light above and beside the scene, towards the
// points where the default camera's eye rays hit (a hair in front of the surface) and that
// face the light on their seen side; the other rays are masked out.
struct ShadowRays {
    int side;
    float light[3];
    Plane dx, dy, dz, dist, u, v, maskPlane, triPlane;
    std::vector<int32_t> maskIn;  // the mask every call starts from
    int64_t tested = 0;

    ShadowRays(const BenchScene& scene, int side_)
        : side(side_), dx(n()), dy(n()), dz(n()), dist(n()), u(n()), v(n()), maskPlane(n()),
          triPlane(n())
    {
        EyeHits hits(scene, side);
        const float* box = &scene.box.minX;
        const float extent = std::max({box[3] - box[0], box[4] - box[1], box[5] - box[2]});
        const float offset[3] = {0.3f, 1.2f, 0.5f};
        for (int k = 0; k < 3; ++k)
            light[k] = 0.5f * (box[k] + box[k + 3]) + offset[k] * extent;
        // The normals' side towards the eye, then the library's shadow rays: points the light
        // cannot reach on their seen side are masked out.
        Plane eyeDot(n()), shadowDot(n());
        vekrDot_32f_P3C1M(hits.eye.dirs, hits.normals, hits.hitMask.data(), eyeDot.data, int(n()));
        maskIn = hits.hitMask;
        float* dirs[3] = {dx.data, dy.data, dz.data};
        vekrCastShadowSO_32f(light, eyeDot.data, hits.normals, hits.points, maskIn.data(),
                             shadowDot.data, dirs, int(n()));
        for (size_t i = 0; i < n(); ++i)
            tested += maskIn[i] >= 0;
        resetMask();
    }
    size_t n() const { return size_t(side) * size_t(side); }
    int32_t* mask() const { return reinterpret_cast<int32_t*>(maskPlane.data); }
    int32_t* tri() const { return reinterpret_cast<int32_t*>(triPlane.data); }
    void resetMask() { std::memcpy(mask(), maskIn.data(), n() * sizeof(int32_t)); }
    vekr::ray::OcclusionBlock block()
    {
        dirs[0] = dx.data;
        dirs[1] = dy.data;
        dirs[2] = dz.data;
        return {light, dirs, tri(), mask(), side, side};
    }
    // The same segments as nearest-hit rays: maximum distance 1, and 0 for the masked ones.
    vekr::ray::EyeRayBlock nearestBlock()
    {
        for (size_t i = 0; i < n(); ++i)
            dist.data[i] = maskIn[i] < 0 ? 0.0f : 1.0f;
        dirs[0] = dx.data;
        dirs[1] = dy.data;
        dirs[2] = dz.data;
        return {light, dirs, dist.data, u.data, v.data, tri(), side, side};
    }
    const float* dirs[3] = {};
};

enum class ShadowPath { AnySingle, AnyPacket, NearestSingle };

// Arguments: dense-mesh triangles (0 for the default scene), image side. Rays/s counts the
// tested segments (the hits of the eye rays).
template <ShadowPath kPath>
void BM_ShadowRays(benchmark::State& state)
{
    const BenchScene& scene = benchScene(int(state.range(0)), KDTreeBuildSahFullDepth);
    ShadowRays rays(scene, int(state.range(1)));
    const vekr::ray::SceneView view = scene.view();
    for (auto _ : state) {
        if (kPath == ShadowPath::NearestSingle) {
            vekr::ray::intersectEyeRaysSingle(view, rays.nearestBlock());
        } else {
            rays.resetMask();  // a memcpy of one int per ray: well under 1% of the time
            if (kPath == ShadowPath::AnySingle)
                vekr::ray::findOccludersSingle(view, rays.block());
            else
                vekr::ray::findOccludersPacket4x4(view, rays.block());
        }
        benchmark::ClobberMemory();
    }
    int64_t occluded = 0;
    for (size_t i = 0; i < rays.n(); ++i)
        occluded += rays.maskIn[i] >= 0 && rays.tri()[i] >= 0;
    state.counters["occluded%"] = 100.0 * double(occluded) / double(rays.tested);
    state.counters["triangles"] = double(scene.mesh.triangleCount);
    setRayThroughput(state, rays.tested);
}

void shadowArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"dense", "side"})->Args({0, 512})->Args({100000, 512});
    b->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_ShadowRays<ShadowPath::AnySingle>)->Name("BM_OcclusionPerRay")->Apply(shadowArgs);
BENCHMARK(BM_ShadowRays<ShadowPath::AnyPacket>)->Name("BM_OcclusionPacket4x4")->Apply(shadowArgs);
BENCHMARK(BM_ShadowRays<ShadowPath::NearestSingle>)
    ->Name("BM_NearestHitOnShadowSegmentsPerRay")
    ->Apply(shadowArgs);

}  // namespace

// --- Rays with their own origins; successive hits ------------------------------------------

namespace {

enum class OwnOrigins { Reflection, Eye };

// A side x side block of rays with one origin each and the planes of their nearest hits.
// Reflection: the renderer's mirror rays, from the points where the default camera's eye rays
// hit (a hair in front of the surface) along the eye direction reflected about the flat
// normal there, no farther than the largest float. The rays whose eye ray missed stay in the
// block, as they would in a renderer's tile: they start at the eye with the zero direction the
// reflection gives a masked ray and a maximum distance of 0, so they can hit nothing and leave
// at the box test (a zero component is parallel to its slab, and the eye lies outside the
// box); they are not counted as traced.
// Eye: the same image's eye rays, each with the eye as its own origin: coherent rays, for the
// tile path's gain to be compared with the reflections'.
struct OwnOriginRays {
    int side;
    Plane ox, oy, oz, dx, dy, dz, dist, u, v, tri;
    std::vector<float> maxDist;  // the distances every call starts from
    int64_t traced = 0;          // rays with a maximum distance above 0
    const float* origins[3] = {ox.data, oy.data, oz.data};
    const float* dirs[3] = {dx.data, dy.data, dz.data};

    OwnOriginRays(const BenchScene& scene, int side_, OwnOrigins kind)
        : side(side_), ox(n()), oy(n()), oz(n()), dx(n()), dy(n()), dz(n()), dist(n()), u(n()),
          v(n()), tri(n()), maxDist(n(), FLT_MAX)
    {
        float* const origin[3] = {ox.data, oy.data, oz.data};
        float* const dir[3] = {dx.data, dy.data, dz.data};
        if (kind == OwnOrigins::Eye) {
            const ImageRays eye(scene, side);
            for (int k = 0; k < 3; ++k) {
                std::memcpy(dir[k], eye.dirs[k], n() * sizeof(float));
                std::fill(origin[k], origin[k] + n(), scene.eye[k]);
            }
        } else {
            const EyeHits hits(scene, side);
            vekrCastReflectionRay_32f(hits.eye.dirs, hits.hitMask.data(), hits.normals, dir,
                                      int(n()));
            for (size_t i = 0; i < n(); ++i) {
                for (int k = 0; k < 3; ++k)
                    origin[k][i] = hits.hit(i) ? hits.points[k][i] : scene.eye[k];
                if (!hits.hit(i)) maxDist[i] = 0.0f;
            }
        }
        for (float d : maxDist)
            traced += d > 0.0f;
    }
    size_t n() const { return size_t(side) * size_t(side); }
    int32_t* triIndex() const { return reinterpret_cast<int32_t*>(tri.data); }
    void resetDistances() { std::memcpy(dist.data, maxDist.data(), n() * sizeof(float)); }
    vekr::ray::ManyOriginRayBlock block() const
    {
        return {origins, dirs, dist.data, u.data, v.data, triIndex(), side, side};
    }
};

// Arguments: dense-mesh triangles (0 for the default scene), image side. Rays/s counts the
// traced rays: the reflections of the eye rays that hit, or every eye ray.
template <Path kPath, OwnOrigins kKind>
void BM_ManyOrigins(benchmark::State& state)
{
    const BenchScene& scene = benchScene(int(state.range(0)), KDTreeBuildSahFullDepth);
    OwnOriginRays rays(scene, int(state.range(1)), kKind);
    const vekr::ray::SceneView view = scene.view();
    const IntersectContext context = scene.context();
    const vekr::ray::ManyOriginRayBlock block = rays.block();
    for (auto _ : state) {
        rays.resetDistances();  // a memcpy of one float per ray: well under 1% of the time
        if (kPath == Path::Single) {
            vekr::ray::intersectManyOriginsSingle(view, block);
        } else if (kPath == Path::Packet) {
            vekr::ray::intersectManyOriginsPacket4x4(view, block);
        } else {
            float* uv[2] = {block.hitU, block.hitV};
            vekrIntersectMO_32f(block.origin, block.dir, block.dist, uv, block.triIndex, &context,
                                block.width, block.height);
        }
        benchmark::ClobberMemory();
    }
    int64_t hits = 0;
    for (size_t i = 0; i < rays.n(); ++i)
        hits += rays.triIndex()[i] >= 0;
    state.counters["hit%"] = 100.0 * double(hits) / double(std::max<int64_t>(rays.traced, 1));
    state.counters["traced%"] = 100.0 * double(rays.traced) / double(rays.n());
    state.counters["triangles"] = double(scene.mesh.triangleCount);
    setRayThroughput(state, rays.traced);
}

// The blocks of the eye-ray benchmarks on the full-depth tree, so the figures sit side by side.
void ownOriginArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"dense", "side"})->Args({0, 512})->Args({100000, 256});
    b->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_ManyOrigins<Path::Single, OwnOrigins::Reflection>)
    ->Name("BM_ReflectionPerRay")
    ->Apply(ownOriginArgs);
BENCHMARK(BM_ManyOrigins<Path::Packet, OwnOrigins::Reflection>)
    ->Name("BM_ReflectionPacket4x4")
    ->Apply(ownOriginArgs);
BENCHMARK(BM_ManyOrigins<Path::Exported, OwnOrigins::Reflection>)
    ->Name("BM_ReflectionMO")
    ->Apply(ownOriginArgs);
BENCHMARK(BM_ManyOrigins<Path::Single, OwnOrigins::Eye>)
    ->Name("BM_ManyOriginsCoherentPerRay")
    ->Apply(ownOriginArgs);
BENCHMARK(BM_ManyOrigins<Path::Packet, OwnOrigins::Eye>)
    ->Name("BM_ManyOriginsCoherentPacket4x4")
    ->Apply(ownOriginArgs);

// The eye rays of a side x side image with `layers` blocks of hit planes for their successive
// hits; the image's own planes take the eye-ray pass the layers are compared with.
struct LayeredRays {
    ImageRays eye;
    int layers;
    Plane dist, u, v, tri;

    LayeredRays(const BenchScene& scene, int side, int layers_)
        : eye(scene, side), layers(layers_), dist(size()), u(size()), v(size()), tri(size())
    {
    }
    size_t size() const { return eye.n() * size_t(layers); }
    int32_t* triIndex() const { return reinterpret_cast<int32_t*>(tri.data); }
    // The maximum distances of layer 0, the only one read (both paths fill every layer's
    // triangle plane with -1 themselves).
    void resetDistances() { std::fill(dist.data, dist.data + eye.n(), FLT_MAX); }
    vekr::ray::LayeredRayBlock block(const float* origin)
    {
        return {origin, eye.dirs, dist.data, u.data, v.data, triIndex(), eye.side, eye.side,
                layers};
    }
};

// Arguments: dense-mesh triangles (0 for the default scene), image side, layers. Every
// iteration also runs, untimed, one nearest-hit pass of the same eye rays through the same
// path, timed on its own, so both see the same load and caches. Counters:
//   layers/s: hits found (rays x layers actually found) per second; layers/ray their mean;
//   eyePasses: the call's time in eye-ray passes over the same block;
//   furtherLayer/eyePass: the time of each further layer found, in eye-ray passes,
//     (T - E) / E / ((H - H0) / H0), with T the call, E the eye-ray pass, H the hits of all
//     layers and H0 those of layer 0: the rays that hit go on for (H - H0) / H0 further layers
//     on average. The last search of a ray that leaves the object finds nothing and is
//     charged to the layers found;
//   furtherSearch/eyePass: the same per search instead, (T - E) / E / (S / H0), with S the
//     searches after the first: one per further layer found, and one more for each ray that
//     found fewer than `layers` hits and then left the object.
template <Path kPath>
void BM_Layers(benchmark::State& state)
{
    const BenchScene& scene = benchScene(int(state.range(0)), KDTreeBuildSahFullDepth);
    LayeredRays rays(scene, int(state.range(1)), int(state.range(2)));
    const vekr::ray::SceneView view = scene.view();
    const vekr::ray::EyeRayBlock eyeBlock = rays.eye.block(scene.eye);
    const vekr::ray::LayeredRayBlock block = rays.block(scene.eye);
    double eyeSeconds = 0.0, layerSeconds = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        double start = threadSeconds();
        rays.eye.resetDistances();
        intersectEyeBlock(kPath, scene, eyeBlock);
        benchmark::ClobberMemory();
        eyeSeconds += threadSeconds() - start;
        state.ResumeTiming();
        start = threadSeconds();
        rays.resetDistances();
        if (kPath == Path::Single)
            vekr::ray::intersectLayersSingle(view, block);
        else
            vekr::ray::intersectLayersPacket4x4(view, block);
        benchmark::ClobberMemory();
        layerSeconds += threadSeconds() - start;
    }
    const size_t n = rays.eye.n();
    int64_t first = 0, found = 0, furtherSearches = 0;
    for (size_t i = 0; i < n; ++i) {
        int rayFound = 0;  // a ray's layers stop at its first miss
        while (rayFound < rays.layers && rays.triIndex()[size_t(rayFound) * n + i] >= 0)
            ++rayFound;
        first += rayFound > 0;
        found += rayFound;
        if (rayFound > 0) furtherSearches += std::min(rayFound, rays.layers - 1);
    }
    state.counters["layers/s"] =
        benchmark::Counter(double(state.iterations()) * double(found), benchmark::Counter::kIsRate);
    state.counters["layers/ray"] = double(found) / double(n);
    state.counters["hit%"] = 100.0 * double(first) / double(n);
    if (eyeSeconds > 0.0) {
        state.counters["eyePasses"] = layerSeconds / eyeSeconds;
        const double extra = (layerSeconds - eyeSeconds) / eyeSeconds * double(first);
        if (found > first)
            state.counters["furtherLayer/eyePass"] = extra / double(found - first);
        if (furtherSearches > 0)
            state.counters["furtherSearch/eyePass"] = extra / double(furtherSearches);
    }
    state.counters["triangles"] = double(scene.mesh.triangleCount);
    setRayThroughput(state, int64_t(n));
}

void layerArgs(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"dense", "side", "layers"});
    for (int layers : {1, 4, 16})
        b->Args({0, 512, layers})->Args({100000, 256, layers});
    b->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_Layers<Path::Single>)->Name("BM_LayersPerRay")->Apply(layerArgs);
BENCHMARK(BM_Layers<Path::Packet>)->Name("BM_LayersPacket4x4")->Apply(layerArgs);

}  // namespace
