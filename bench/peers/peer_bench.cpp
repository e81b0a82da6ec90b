// vekr beside a widely used BVH ray tracer, Embree 3 (Debian's libembree-dev), on the same
// meshes and the same rays: tree builds, eye rays in 4 x 4 tiles and one at a time, shadow
// rays to the renderer's default light and mirror reflections from the eye-ray hits. Prints
// the best time of several passes, the throughput and the ratio vekr / Embree, and how often
// the two libraries agree on hit or miss (their edge rules differ, so not always). A
// comparison for developers, not a test: the figures depend on the machine and its load.
#include <embree3/rtcore.h>
#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include "camera.h"
#include "lights.h"
}
#include "embree_tracing.h"
#include "peer_planes.h"
#include "peer_report.h"
#include "scene.h"
#include "vekcore.h"
#include "vekr.h"

using namespace vekr::bench;

namespace {

double loadAverage()
{
    double load = -1.0;
    if (FILE* f = std::fopen("/proc/loadavg", "r")) {
        if (std::fscanf(f, "%lf", &load) != 1) load = -1.0;
        std::fclose(f);
    }
    return load;
}

// Lets the other library's idle worker threads stop spinning before a build is timed: both
// runtimes spin a little after their parallel work, and the machine has few cores.
void settle()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// --- Command line ----------------------------------------------------------------------------

struct Options {
    int side = 1024;
    int repeat = 5;
    std::vector<int> threads{1, 2};
    std::string peerIsa;
    bool json = false;
    float ratio = 0.0f;  // the renderer's
    std::vector<std::string> meshes;
};

const char kUsage[] =
    "usage: peer_bench [--size N] [--repeat N] [--threads LIST] [--peer-isa ISA] [--ratio R] "
    "[--json] [MESH...]\n"
    "  --size N         side of the square image of eye rays, a multiple of 4 (default 1024)\n"
    "  --repeat N       passes of each measurement; the best is kept (default 5)\n"
    "  --threads LIST   thread counts, comma-separated (default 1,2)\n"
    "  --peer-isa ISA   instruction set Embree is limited to (sse4.2, avx, avx2, avx512);\n"
    "                   default: the best the processor has\n"
    "  --ratio R        vekr's build ratio, 0 to 1 (default 0, the renderer's)\n"
    "  --json           print the results as JSON instead of tables\n"
    "  MESH             an OFF or OBJ file, 'builtin' (the renderer's default scene) or\n"
    "                   'dense:N' (its displaced sphere of about N triangles); default: the\n"
    "                   built-in scene and the renderer's bundled meshes\n";

int parsePositive(const char* text, const char* option)
{
    char* end = nullptr;
    const long value = text ? std::strtol(text, &end, 10) : 0;
    if (!text || *end != '\0' || value < 1 || value > 1 << 20) {
        std::fprintf(stderr, "bad or missing value for '%s'\n%s", option, kUsage);
        std::exit(2);
    }
    return int(value);
}

Options parseOptions(int argc, char** argv)
{
    Options o;
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        const char* next = a + 1 < argc ? argv[a + 1] : nullptr;
        if (arg == "--size") {
            o.side = parsePositive(next, "--size");
            ++a;
            // Whole 4 x 4 tiles only, and at most 2^24 rays so every count fits an int.
            if (o.side % 4 != 0 || o.side > 4096) {
                std::fprintf(stderr, "--size: want a multiple of 4 up to 4096\n");
                std::exit(2);
            }
        } else if (arg == "--repeat") {
            o.repeat = parsePositive(next, "--repeat");
            ++a;
        } else if (arg == "--threads") {
            if (!next) parsePositive(next, "--threads");
            o.threads.clear();
            std::string list = next;
            for (size_t start = 0; start <= list.size();) {
                const size_t comma = std::min(list.find(',', start), list.size());
                o.threads.push_back(
                    parsePositive(list.substr(start, comma - start).c_str(), "--threads"));
                start = comma + 1;
            }
            ++a;
        } else if (arg == "--peer-isa") {
            if (!next) parsePositive(next, "--peer-isa");
            o.peerIsa = next;
            ++a;
        } else if (arg == "--ratio") {
            char* end = nullptr;
            o.ratio = next ? std::strtof(next, &end) : -1.0f;
            if (!next || *end != '\0' || !(o.ratio >= 0.0f && o.ratio <= 1.0f)) {
                std::fprintf(stderr, "bad or missing value for '--ratio'\n%s", kUsage);
                std::exit(2);
            }
            ++a;
        } else if (arg == "--json") {
            o.json = true;
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(stderr, "unknown option '%s'\n%s", arg.c_str(), kUsage);
            std::exit(2);
        } else {
            o.meshes.push_back(arg);
        }
    }
    if (o.meshes.empty())
        o.meshes = {"builtin", VEKR_RENDER_DATA_DIR "/house.obj",
                    VEKR_RENDER_DATA_DIR "/pyramid.off"};
    return o;
}

// --- vekr ------------------------------------------------------------------------------------

// Records, box and tree of a mesh, as the renderer's scene preparation makes them.
struct VekrScene {
    std::unique_ptr<TriangleAccel, VekFreeDeleter> records;
    BoundBox box{};
    void* tree = nullptr;
    int treeBytes = 0;

    VekrScene() = default;
    ~VekrScene() { vekrKDTreeFree(tree); }
    VekrScene(const VekrScene&) = delete;
    VekrScene& operator=(const VekrScene&) = delete;
    IntersectContext context() const { return {&box.minX, records.get(), tree}; }
};

// The renderer's build parameters: at most 50 splits (in all, or on each path for the
// full-depth method), ratio 0 unless asked otherwise (split only where the cost model expects a
// clear gain), and its memory
// budget: the least the build accepts, 12 bytes per vertex + 84 per triangle + 32 MiB, plus
// room for the node and leaf pools (up to about 300 bytes per triangle for full depth).
KDTreeBuildParams rendererBuildParams(const SceneMesh& mesh, uint32_t method, float ratio,
                                      const float* box)
{
    const double neededMB =
        std::ceil((12.0 * mesh.vertexCount + 84.0 * mesh.triangleCount + 33554676.0) / 1048576.0);
    const double roomMB = 64 + std::ceil(384.0 * mesh.triangleCount / 1048576.0);
    if (neededMB > 4095) fail("mesh too large for the surface-area-heuristic build budget");
    return {method, 50, ratio, uint32_t(std::min(4095.0, neededMB + roomMB)), box};
}

// Builds records, box and tree into scene (whose records block is allocated beforehand, as
// Embree's buffers are); returns the seconds the three took.
double buildVekrScene(const SceneMesh& mesh, uint32_t method, float ratio, VekrScene& scene)
{
    if (!scene.records) {
        scene.records.reset(static_cast<TriangleAccel*>(
            vekMalloc(size_t(mesh.triangleCount) * sizeof(TriangleAccel))));
        if (!scene.records) fail("out of memory for the triangle records");
    }
    vekrKDTreeFree(scene.tree);
    scene.tree = nullptr;
    const double start = omp_get_wtime();
    vekrTriangleAccelInit(scene.records.get(), mesh.vertices, mesh.triangles, mesh.triangleCount);
    vekrSetBoundBox_32f(mesh.vertices, mesh.vertexCount, &scene.box.minX);
    const KDTreeBuildParams params = rendererBuildParams(mesh, method, ratio, &scene.box.minX);
    const Status built =
        vekrKDTreeBuildAlloc(&scene.tree, mesh.vertices, mesh.triangles, mesh.vertexCount,
                             mesh.triangleCount, &scene.treeBytes, &params);
    const double seconds = omp_get_wtime() - start;
    if (built != StatusOk) fail("vekrKDTreeBuildAlloc failed");
    return seconds;
}

// --- Measurements ----------------------------------------------------------------------------

// One traced family: each way is a function of a strip of four image rows (a row of 4 x 4
// tiles) and a reset of its outputs that runs untimed before every pass.
struct Tracer {
    std::string library, path;
    std::function<void()> reset;
    std::function<void(int strip)> trace;
};

// Both libraries' calls run in the same OpenMP loop over the strips, handed out one at a time
// (rows of sky cost less than rows of dense geometry). The passes of the ways alternate, so
// that a change of load on the shared machine falls on all of them alike.
std::vector<Measured> timeTracers(const std::vector<Tracer>& tracers, const Options& o)
{
    std::vector<Measured> measured;
    for (const Tracer& t : tracers)
        measured.push_back({t.library, t.path, std::vector<double>(o.threads.size(), 1e300)});
    const int strips = o.side / 4;
    for (int pass = 0; pass < o.repeat; ++pass)
        for (size_t c = 0; c < o.threads.size(); ++c)
            for (size_t w = 0; w < tracers.size(); ++w) {
                tracers[w].reset();
                const std::function<void(int)>& trace = tracers[w].trace;
                const double start = omp_get_wtime();
#pragma omp parallel for num_threads(o.threads[c]) schedule(dynamic, 1)
                for (int s = 0; s < strips; ++s)
                    trace(s);
                const double seconds = omp_get_wtime() - start;
                measured[w].bestSeconds[c] = std::min(measured[w].bestSeconds[c], seconds);
            }
    return measured;
}

// Builds: vekr's two surface-area-heuristic methods, records and box included, and Embree's
// BVH at high quality (with spatial splits) and medium quality, each with vekSetNumThreads or
// a device of that many build threads. The device lives only through Embree's builds of a
// pass, so that its worker threads never compete with vekr's builds for the cores.
Family measureBuilds(const SceneMesh& mesh, const Options& o)
{
    Family f = newFamily("build", "builds: vekr records + box + KD-tree, Embree rtcCommitScene",
                         "Mtris/s", "", double(mesh.triangleCount));
    f.ways = {{"vekr", "sah (50 splits in all)", {}},
              {"vekr", "sah-full (50 per path)", {}},
              {"embree", "HIGH", {}},
              {"embree", "MEDIUM", {}}};
    const uint32_t methods[2] = {KDTreeBuildSah, KDTreeBuildSahFullDepth};
    const RTCBuildQuality qualities[2] = {RTC_BUILD_QUALITY_HIGH, RTC_BUILD_QUALITY_MEDIUM};
    const int threadsBefore = vekGetNumThreads();
    for (int threads : o.threads) {
        vekSetNumThreads(threads);
        double best[4] = {1e300, 1e300, 1e300, 1e300};
        for (int pass = 0; pass < o.repeat; ++pass) {
            for (int m = 0; m < 2; ++m) {
                VekrScene scene;
                settle();
                best[m] = std::min(best[m], buildVekrScene(mesh, methods[m], o.ratio, scene));
            }
            PeerDevice device(o.peerIsa, threads);
            for (int q = 0; q < 2; ++q) {
                double seconds = 0;
                settle();
                rtcReleaseScene(commitPeerScene(device, mesh, qualities[q], &seconds));
                best[2 + q] = std::min(best[2 + q], seconds);
            }
        }
        for (int w = 0; w < 4; ++w)
            f.ways[size_t(w)].bestSeconds.push_back(best[w]);
    }
    vekSetNumThreads(threadsBefore);
    return f;
}

// The mesh, vekr's full-depth tree (the renderer's default) and Embree's high-quality BVH, the
// renderer's camera framing the mesh and its default light; the eye rays of a side x side
// image, and the shadow and reflection rays of their hits, as the renderer makes them.
class RayBench {
public:
    RayBench(const SceneMesh& mesh, const Options& o)
        : mesh_(mesh), o_(o), n_(size_t(o.side) * size_t(o.side)), device_(o.peerIsa, 0)
    {
        buildVekrScene(mesh, KDTreeBuildSahFullDepth, o.ratio, vekr_);
        context_ = vekr_.context();
        double seconds = 0;
        peer_ = commitPeerScene(device_, mesh, RTC_BUILD_QUALITY_HIGH, &seconds);

        float eye[3], target[3], up[3], fovY;
        sceneDefaultCamera(&mesh, eye, target, up, &fovY);
        if (makeCamera(eye, target, up, fovY, o.side, o.side, &camera_) != 0)
            fail("no camera for this mesh");
        vekrCastEye_32f(camera_.planeOrigin, camera_.stepX, camera_.stepY, 0, 0,
                        Size2D{o.side, o.side}, eyeDirs_.out, Size2D{o.side, o.side});
        Lighting lighting{};
        completeLights(&lighting, &vekr_.box);
        std::memcpy(light_, lighting.lights[0].position, sizeof light_);
    }
    ~RayBench() { rtcReleaseScene(peer_); }
    RayBench(const RayBench&) = delete;
    RayBench& operator=(const RayBench&) = delete;

    bool nativePacket16() const
    {
        return rtcGetDeviceProperty(device_.get(), RTC_DEVICE_PROPERTY_NATIVE_RAY16_SUPPORTED) != 0;
    }

    Family measureEyeRays();
    Family measureShadowRays();
    Family measureReflections();

private:
    size_t stripOffset(int strip) const { return size_t(strip) * 4 * size_t(o_.side); }
    // vekr's nearest hits of one strip through the exported call for rays sharing the eye
    // (origins null) or with their own: a side x 4 block takes the 4 x 4 path (sides multiples
    // of 4, planes 64-byte aligned); the same rays as one row of 4 x side, a height that is no
    // multiple of 4, take the per-ray path.
    void intersectVekr(const float* const origins[3], const float* const dirs[3],
                       const HitPlanes& out, int strip, bool tiles) const;
    std::vector<Tracer> nearestHitTracers(const PeerRays& peerRays, const float* const origins[3],
                                          const float* const dirs[3], const float* maxDist,
                                          std::vector<HitPlanes>& outs);
    void prepareSecondaryRays(const HitPlanes& eyeHits);

    const SceneMesh& mesh_;
    const Options& o_;
    size_t n_;
    VekrScene vekr_;
    IntersectContext context_{};
    PeerDevice device_;
    RTCScene peer_ = nullptr;
    Camera camera_{};
    float light_[3] = {};
    VectorPlanes eyeDirs_{n_};
    // Of the eye rays' hits through vekr's tile path: 0 for a hit, -1 for a miss; points a
    // thousandth of the eye distance in front of the surface; flat normals turned to the eye.
    Plane hitMask_{n_}, eyeDot_{n_};
    VectorPlanes points_{n_}, normals_{n_};
    // Shadow rays from the light to the points (mask -1: not tested) and mirror reflections
    // from the points (maximum distance 0: the eye ray missed, nothing traced).
    Plane shadowDot_{n_}, shadowMaskIn_{n_}, reflectionDist_{n_};
    VectorPlanes shadowDirs_{n_}, reflected_{n_};
    bool secondaryReady_ = false;
    int64_t shadowRays_ = 0, reflectionRays_ = 0;
};

void RayBench::intersectVekr(const float* const origins[3], const float* const dirs[3],
                             const HitPlanes& out, int strip, bool tiles) const
{
    const size_t off = stripOffset(strip);
    const float* d[3] = {dirs[0] + off, dirs[1] + off, dirs[2] + off};
    float* uv[2] = {out.u.f() + off, out.v.f() + off};
    const int width = tiles ? o_.side : 4 * o_.side, height = tiles ? 4 : 1;
    if (origins) {
        const float* org[3] = {origins[0] + off, origins[1] + off, origins[2] + off};
        vekrIntersectMO_32f(org, d, out.dist.f() + off, uv, out.tri.words() + off, &context_, width,
                            height);
    } else {
        vekrIntersectEyeSO_32f(camera_.eye, d, out.dist.f() + off, uv, out.tri.words() + off,
                               &context_, width, height);
    }
}

// The four ways of a nearest-hit family, writing to outs[0..3]: vekr's tiles and per-ray path
// (their distances reset to maxDist, or FLT_MAX when it is null), Embree's packets of 16 and
// single rays.
std::vector<Tracer> RayBench::nearestHitTracers(const PeerRays& peerRays,
                                                const float* const origins[3],
                                                const float* const dirs[3], const float* maxDist,
                                                std::vector<HitPlanes>& outs)
{
    for (int w = 0; w < 4; ++w)
        outs.emplace_back(n_);
    auto resetDist = [this, maxDist](const HitPlanes& out) {
        return [this, maxDist, &out] {
            if (maxDist)
                std::memcpy(out.dist.f(), maxDist, n_ * sizeof(float));
            else
                std::fill(out.dist.f(), out.dist.f() + n_, FLT_MAX);
        };
    };
    const char* peerPacket = origins ? "rtcIntersect16 (incoherent)" : "rtcIntersect16";
    return {{"vekr", "4x4 tiles", resetDist(outs[0]),
             [=, this, &outs](int s) { intersectVekr(origins, dirs, outs[0], s, true); }},
            {"vekr", "per ray", resetDist(outs[1]),
             [=, this, &outs](int s) { intersectVekr(origins, dirs, outs[1], s, false); }},
            {"embree", peerPacket, [] {},
             [=, this, &outs](int s) { intersectPeerTiles(peer_, peerRays, outs[2], s); }},
            {"embree", "rtcIntersect1", [] {},
             [=, this, &outs](int s) { intersectPeerSingle(peer_, peerRays, outs[3], s); }}};
}

Family RayBench::measureEyeRays()
{
    Family f = newFamily("eye", "eye rays from the renderer's camera: nearest hit", "Mrays/s",
                         "rtcIntersect1", double(n_));
    const float* const* dirs = eyeDirs_.in;
    const PeerRays peerRays{camera_.eye, {},      {dirs[0], dirs[1], dirs[2]},
                            nullptr,     FLT_MAX, RTC_INTERSECT_CONTEXT_FLAG_COHERENT,
                            o_.side};
    std::vector<HitPlanes> outs;
    f.ways = timeTracers(nearestHitTracers(peerRays, nullptr, dirs, nullptr, outs), o_);
    for (size_t w = 0; w < 3; ++w)
        f.agreement.push_back(compareHits(wayName(f.ways[w]), outs[w].tri.words(),
                                          outs[3].tri.words(), nullptr, n_, true));
    prepareSecondaryRays(outs[0]);
    return f;
}

void RayBench::prepareSecondaryRays(const HitPlanes& eyeHits)
{
    const int n = int(n_);
    int32_t* hitMask = hitMask_.words();
    for (size_t i = 0; i < n_; ++i)
        hitMask[i] = eyeHits.tri.words()[i] < 0 ? -1 : 0;
    vekrHitPoint3DEpsS0_32f_M(camera_.eye, eyeDirs_.in, eyeHits.dist.f(), hitMask, points_.out, n,
                              0.999f);
    std::vector<float> triangleNormals(size_t(mesh_.triangleCount) * 3);
    vekrTriangleNormal_32f(mesh_.vertices, mesh_.triangles, triangleNormals.data(),
                           mesh_.triangleCount);
    vekrSurfFlatNormal_32f(triangleNormals.data(), eyeHits.tri.words(), normals_.out, n);
    vekrDotChangeNorm_32f_IM(eyeDirs_.in, hitMask, normals_.out, eyeDot_.f(), n);

    int32_t* shadowMask = shadowMaskIn_.words();
    std::memcpy(shadowMask, hitMask, n_ * sizeof(int32_t));
    vekrCastShadowSO_32f(light_, eyeDot_.f(), normals_.in, points_.in, shadowMask, shadowDot_.f(),
                         shadowDirs_.out, n);
    vekrCastReflectionRay_32f(eyeDirs_.in, hitMask, normals_.in, reflected_.out, n);
    shadowRays_ = reflectionRays_ = 0;
    // A missed eye ray leaves a reflection of direction zero and no length; it starts at the
    // eye rather than at the point the hit points give it (infinite when a whole group of
    // eight missed): Embree's emulated 16-ray packets assert on such lanes even when their
    // valid word is 0.
    for (size_t i = 0; i < n_; ++i) {
        shadowRays_ += shadowMask[i] >= 0;
        reflectionRays_ += hitMask[i] == 0;
        reflectionDist_.f()[i] = hitMask[i] == 0 ? FLT_MAX : 0.0f;
        if (hitMask[i] != 0)
            for (int k = 0; k < 3; ++k)
                points_.out[k][i] = camera_.eye[k];
    }
    secondaryReady_ = true;
}

Family RayBench::measureShadowRays()
{
    if (!secondaryReady_) fail("the eye rays come first");
    Family f = newFamily("shadow",
                         "shadow rays from the light to the lit eye-ray hits: any hit on 0 < t < 1",
                         "Mrays/s", "rtcOccluded1", double(shadowRays_));
    const float* const* dirs = shadowDirs_.in;
    const PeerRays peerRays{light_,  {},   {dirs[0], dirs[1], dirs[2]},
                            nullptr, 1.0f, RTC_INTERSECT_CONTEXT_FLAG_COHERENT,
                            o_.side};
    // Per way: the mask the calls update (reset from the cast's mask before every pass) and,
    // for vekr, the occluding triangles.
    std::vector<Plane> masks, occluders;
    for (int w = 0; w < 4; ++w) {
        masks.emplace_back(n_);
        occluders.emplace_back(n_);
    }
    auto resetMask = [this, &masks](int w) {
        return [this, &masks, w] {
            std::memcpy(masks[size_t(w)].words(), shadowMaskIn_.words(), n_ * sizeof(int32_t));
        };
    };
    auto vekrOcclusion = [this, dirs, &masks, &occluders](int w, bool tiles) {
        return [this, dirs, &masks, &occluders, w, tiles](int s) {
            const size_t off = stripOffset(s);
            const float* d[3] = {dirs[0] + off, dirs[1] + off, dirs[2] + off};
            vekrIntersectAnySO_32f(light_, d, occluders[size_t(w)].words() + off,
                                   masks[size_t(w)].words() + off, tiles ? o_.side : 4 * o_.side,
                                   tiles ? 4 : 1, &context_);
        };
    };
    const std::vector<Tracer> tracers = {
        {"vekr", "4x4 tiles", resetMask(0), vekrOcclusion(0, true)},
        {"vekr", "per ray", resetMask(1), vekrOcclusion(1, false)},
        {"embree", "rtcOccluded16", resetMask(2),
         [&](int s) { occludedPeerTiles(peer_, peerRays, masks[2].words(), s); }},
        {"embree", "rtcOccluded1", resetMask(3),
         [&](int s) { occludedPeerSingle(peer_, peerRays, masks[3].words(), s); }}};
    f.ways = timeTracers(tracers, o_);
    // As hits for the comparison: 0 for an occluded ray, -1 for one that reaches the light.
    std::vector<std::vector<int32_t>> occluded(4, std::vector<int32_t>(n_));
    for (size_t w = 0; w < 4; ++w)
        for (size_t i = 0; i < n_; ++i)
            occluded[w][i] = masks[w].words()[i] < 0 ? 0 : -1;
    for (size_t w = 0; w < 3; ++w)
        f.agreement.push_back(compareHits(wayName(f.ways[w]), occluded[w].data(),
                                          occluded[3].data(), shadowMaskIn_.words(), n_, false));
    return f;
}

Family RayBench::measureReflections()
{
    if (!secondaryReady_) fail("the eye rays come first");
    Family f = newFamily(
        "reflection",
        "mirror reflections from every eye-ray hit, each from its own origin: nearest hit",
        "Mrays/s", "rtcIntersect1", double(reflectionRays_));
    const float* const* origins = points_.in;
    const float* const* dirs = reflected_.in;
    const PeerRays peerRays{nullptr,
                            {origins[0], origins[1], origins[2]},
                            {dirs[0], dirs[1], dirs[2]},
                            hitMask_.words(),
                            FLT_MAX,
                            RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT,
                            o_.side};
    std::vector<HitPlanes> outs;
    f.ways = timeTracers(nearestHitTracers(peerRays, origins, dirs, reflectionDist_.f(), outs), o_);
    for (size_t w = 0; w < 3; ++w)
        f.agreement.push_back(compareHits(wayName(f.ways[w]), outs[w].tri.words(),
                                          outs[3].tri.words(), hitMask_.words(), n_, true));
    return f;
}

// The mesh a command-line word names; false after a message when it cannot be made.
bool loadMesh(const std::string& word, SceneMesh* mesh, std::string* name)
{
    if (word == "builtin") {
        *name = "built-in scene";
        return sceneMakeDefault(mesh) == 0;
    }
    if (word.rfind("dense:", 0) == 0) {
        const int count = std::atoi(word.c_str() + 6);
        *name = "dense mesh of " + std::to_string(count) + " triangles asked";
        return count > 0 && sceneMakeDense(mesh, count) == 0;
    }
    *name = word;
    return sceneLoadFile(word.c_str(), mesh) == 0;  // prints its own message
}

}  // namespace

int main(int argc, char** argv)
{
    const Options o = parseOptions(argc, argv);
    RunInfo run{o.peerIsa, false, o.side, o.repeat, o.threads, loadAverage(), 0.0};
    std::vector<MeshResult> results;
    for (const std::string& word : o.meshes) {
        SceneMesh mesh{};
        MeshResult r;
        if (!loadMesh(word, &mesh, &r.name)) {
            std::fprintf(stderr, "peer_bench: cannot make the mesh '%s'\n", word.c_str());
            return 1;
        }
        r.triangles = mesh.triangleCount;
        r.vertices = mesh.vertexCount;
        std::fprintf(stderr, "%s: %d triangles: builds...\n", r.name.c_str(), mesh.triangleCount);
        r.families.push_back(measureBuilds(mesh, o));
        {
            RayBench bench(mesh, o);
            run.peerNative16 = bench.nativePacket16();
            std::fprintf(stderr, "  eye rays...\n");
            r.families.push_back(bench.measureEyeRays());
            std::fprintf(stderr, "  shadow rays...\n");
            r.families.push_back(bench.measureShadowRays());
            std::fprintf(stderr, "  reflections...\n");
            r.families.push_back(bench.measureReflections());
        }
        sceneFree(&mesh);
        results.push_back(std::move(r));
    }
    run.loadAfter = loadAverage();
    if (o.json)
        printJson(results, run);
    else
        printTables(results, run);
    return 0;
}
