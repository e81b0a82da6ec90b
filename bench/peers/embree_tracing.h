// The peer benchmark's side of Embree 3: a device, the mesh's BVH, and the rays of vekr's
// planes traced in 16-ray packets of 4 x 4 pixels or one at a time, hits written back to planes.
#ifndef VEKR_BENCH_PEERS_EMBREE_TRACING_H
#define VEKR_BENCH_PEERS_EMBREE_TRACING_H

#include <embree3/rtcore.h>

#include <cstdint>
#include <string>

#include "peer_planes.h"
#include "scene.h"

namespace vekr::bench {

// An Embree device with its build thread count, and the mesh as its one triangle geometry.
class PeerDevice {
public:
    // threads 0: Embree's default, every hardware thread; isa empty: the best the processor has.
    PeerDevice(const std::string& isa, int threads);
    ~PeerDevice();
    PeerDevice(const PeerDevice&) = delete;
    PeerDevice& operator=(const PeerDevice&) = delete;
    RTCDevice get() const { return device_; }
    // The mesh as one triangle geometry, made on the first call.
    RTCGeometry geometry(const SceneMesh& mesh);

private:
    RTCDevice device_ = nullptr;
    RTCGeometry geometry_ = nullptr;
};

// A BVH over the device's geometry of the mesh at the given quality; *seconds gets the time of
// rtcCommitScene.
RTCScene commitPeerScene(PeerDevice& device, const SceneMesh& mesh, RTCBuildQuality quality,
                         double* seconds);

// The rays of one family as Embree takes them from vekr's planes.
struct PeerRays {
    const float* sharedOrigin;  // one origin for every ray, or null
    const float* origin[3];     // per-ray origin planes, when sharedOrigin is null
    const float* dir[3];
    const int32_t* mask;  // negative: the ray is not traced; null: every ray is
    float tFar;           // far end of every traced ray
    RTCIntersectContextFlags coherence;
    int side;
};

// Nearest hits of strip `strip` (image rows 4 strip .. 4 strip + 3) into out: in 16-ray packets
// of 4 x 4 pixels, or one rtcIntersect1 call per ray. Untraced rays get triangle -1.
void intersectPeerTiles(RTCScene scene, const PeerRays& rays, const HitPlanes& out, int strip);
void intersectPeerSingle(RTCScene scene, const PeerRays& rays, const HitPlanes& out, int strip);

// Occlusion of the strip's rays whose mask word is not negative, on tNear 0 .. tFar: -1 goes to
// the mask word of every occluded ray, as vekr's occlusion test does.
void occludedPeerTiles(RTCScene scene, const PeerRays& rays, int32_t* mask, int strip);
void occludedPeerSingle(RTCScene scene, const PeerRays& rays, int32_t* mask, int strip);

}  // namespace vekr::bench

#endif  // VEKR_BENCH_PEERS_EMBREE_TRACING_H
