// Embree 3 side of the peer benchmark. Packing vekr's planes into Embree's ray records and the
// hits back into planes is part of what is timed: a caller holding planes pays it.
#include "embree_tracing.h"

#include <omp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vekr::bench {

namespace {

void reportPeerError(void*, RTCError code, const char* text)
{
    std::fprintf(stderr, "embree error %d: %s\n", int(code), text ? text : "");
    std::exit(1);
}

void fillRay(const PeerRays& rays, size_t i, float& ox, float& oy, float& oz, float& dx, float& dy,
             float& dz)
{
    const bool shared = rays.sharedOrigin != nullptr;
    ox = shared ? rays.sharedOrigin[0] : rays.origin[0][i];
    oy = shared ? rays.sharedOrigin[1] : rays.origin[1][i];
    oz = shared ? rays.sharedOrigin[2] : rays.origin[2][i];
    dx = rays.dir[0][i];
    dy = rays.dir[1][i];
    dz = rays.dir[2][i];
}

// The plane index of lane `lane` of the 4 x 4 tile at column x0 of a strip of four image rows.
size_t tileRay(const PeerRays& rays, int strip, int x0, int lane)
{
    return size_t(strip * 4 + lane / 4) * size_t(rays.side) + size_t(x0 + lane % 4);
}

}  // namespace

PeerDevice::PeerDevice(const std::string& isa, int threads)
{
    // Build threads start with the device, so that no timed build pays for their creation.
    std::string config = "start_threads=1,threads=" + std::to_string(threads);
    if (!isa.empty()) config += ",isa=" + isa;
    device_ = rtcNewDevice(config.c_str());
    if (!device_) fail("rtcNewDevice failed (a bad --peer-isa?)");
    rtcSetDeviceErrorFunction(device_, reportPeerError, nullptr);
}

PeerDevice::~PeerDevice()
{
    if (geometry_) rtcReleaseGeometry(geometry_);
    rtcReleaseDevice(device_);
}

// The mesh as one triangle geometry, copied into Embree's own buffers (which it pads so
// its vector loads stay inside them).
RTCGeometry PeerDevice::geometry(const SceneMesh& mesh)
{
    if (geometry_) return geometry_;
    geometry_ = rtcNewGeometry(device_, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* vertices = static_cast<float*>(
        rtcSetNewGeometryBuffer(geometry_, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                3 * sizeof(float), size_t(mesh.vertexCount)));
    std::memcpy(vertices, mesh.vertices, size_t(mesh.vertexCount) * 3 * sizeof(float));
    auto* indices = static_cast<unsigned*>(
        rtcSetNewGeometryBuffer(geometry_, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                3 * sizeof(unsigned), size_t(mesh.triangleCount)));
    for (size_t t = 0; t < size_t(mesh.triangleCount); ++t)
        for (int c = 0; c < 3; ++c)
            indices[t * 3 + c] = unsigned(mesh.triangles[t * 4 + c]);
    rtcCommitGeometry(geometry_);
    return geometry_;
}

RTCScene commitPeerScene(PeerDevice& device, const SceneMesh& mesh, RTCBuildQuality quality,
                         double* seconds)
{
    RTCGeometry geometry = device.geometry(mesh);
    RTCScene scene = rtcNewScene(device.get());
    rtcSetSceneBuildQuality(scene, quality);
    rtcAttachGeometry(scene, geometry);
    const double start = omp_get_wtime();
    rtcCommitScene(scene);
    *seconds = omp_get_wtime() - start;
    return scene;
}

// Lanes whose mask word is negative are marked invalid; a tile with none valid is not traced.
void intersectPeerTiles(RTCScene scene, const PeerRays& rays, const HitPlanes& out, int strip)
{
    alignas(64) int valid[16];
    RTCRayHit16 packet;
    for (int x0 = 0; x0 < rays.side; x0 += 4) {
        bool any = false;
        for (int lane = 0; lane < 16; ++lane) {
            const size_t i = tileRay(rays, strip, x0, lane);
            valid[lane] = !rays.mask || rays.mask[i] >= 0 ? -1 : 0;
            any = any || valid[lane] != 0;
            RTCRay16& r = packet.ray;
            fillRay(rays, i, r.org_x[lane], r.org_y[lane], r.org_z[lane], r.dir_x[lane],
                    r.dir_y[lane], r.dir_z[lane]);
            r.tnear[lane] = 0.0f;
            r.tfar[lane] = rays.tFar;
            r.time[lane] = 0.0f;
            r.mask[lane] = ~0u;
            r.id[lane] = unsigned(lane);
            r.flags[lane] = 0;
            packet.hit.geomID[lane] = RTC_INVALID_GEOMETRY_ID;
            packet.hit.instID[0][lane] = RTC_INVALID_GEOMETRY_ID;
        }
        if (any) {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            context.flags = rays.coherence;
            rtcIntersect16(valid, scene, &context, &packet);
        }
        for (int lane = 0; lane < 16; ++lane) {
            const size_t i = tileRay(rays, strip, x0, lane);
            const bool hit = packet.hit.geomID[lane] != RTC_INVALID_GEOMETRY_ID;
            out.dist.f()[i] = packet.ray.tfar[lane];
            out.u.f()[i] = packet.hit.u[lane];
            out.v.f()[i] = packet.hit.v[lane];
            out.tri.words()[i] = hit ? int32_t(packet.hit.primID[lane]) : -1;
        }
    }
}

void intersectPeerSingle(RTCScene scene, const PeerRays& rays, const HitPlanes& out, int strip)
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    context.flags = rays.coherence;
    const size_t begin = size_t(strip) * 4 * size_t(rays.side), end = begin + 4 * size_t(rays.side);
    for (size_t i = begin; i < end; ++i) {
        if (rays.mask && rays.mask[i] < 0) {
            out.tri.words()[i] = -1;
            continue;
        }
        RTCRayHit rh;
        fillRay(rays, i, rh.ray.org_x, rh.ray.org_y, rh.ray.org_z, rh.ray.dir_x, rh.ray.dir_y,
                rh.ray.dir_z);
        rh.ray.tnear = 0.0f;
        rh.ray.tfar = rays.tFar;
        rh.ray.time = 0.0f;
        rh.ray.mask = ~0u;
        rh.ray.id = 0;
        rh.ray.flags = 0;
        rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(scene, &context, &rh);
        const bool hit = rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
        out.dist.f()[i] = rh.ray.tfar;
        out.u.f()[i] = rh.hit.u;
        out.v.f()[i] = rh.hit.v;
        out.tri.words()[i] = hit ? int32_t(rh.hit.primID) : -1;
    }
}

// Embree marks an occluded ray with a far end of -infinity.
void occludedPeerTiles(RTCScene scene, const PeerRays& rays, int32_t* mask, int strip)
{
    alignas(64) int valid[16];
    RTCRay16 packet;
    for (int x0 = 0; x0 < rays.side; x0 += 4) {
        bool any = false;
        for (int lane = 0; lane < 16; ++lane) {
            const size_t i = tileRay(rays, strip, x0, lane);
            valid[lane] = mask[i] >= 0 ? -1 : 0;
            any = any || valid[lane] != 0;
            fillRay(rays, i, packet.org_x[lane], packet.org_y[lane], packet.org_z[lane],
                    packet.dir_x[lane], packet.dir_y[lane], packet.dir_z[lane]);
            packet.tnear[lane] = 0.0f;
            packet.tfar[lane] = rays.tFar;
            packet.time[lane] = 0.0f;
            packet.mask[lane] = ~0u;
            packet.id[lane] = unsigned(lane);
            packet.flags[lane] = 0;
        }
        if (!any) continue;
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        context.flags = rays.coherence;
        rtcOccluded16(valid, scene, &context, &packet);
        for (int lane = 0; lane < 16; ++lane)
            if (valid[lane] && packet.tfar[lane] < 0.0f) mask[tileRay(rays, strip, x0, lane)] = -1;
    }
}

void occludedPeerSingle(RTCScene scene, const PeerRays& rays, int32_t* mask, int strip)
{
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    context.flags = rays.coherence;
    const size_t begin = size_t(strip) * 4 * size_t(rays.side), end = begin + 4 * size_t(rays.side);
    for (size_t i = begin; i < end; ++i) {
        if (mask[i] < 0) continue;
        RTCRay r;
        fillRay(rays, i, r.org_x, r.org_y, r.org_z, r.dir_x, r.dir_y, r.dir_z);
        r.tnear = 0.0f;
        r.tfar = rays.tFar;
        r.time = 0.0f;
        r.mask = ~0u;
        r.id = 0;
        r.flags = 0;
        rtcOccluded1(scene, &context, &r);
        if (r.tfar < 0.0f) mask[i] = -1;
    }
}

}  // namespace vekr::bench
