// Planes of rays and hits from vekr's allocator, shared by both libraries in the peer
// benchmark, and its way out on a failure.
#ifndef VEKR_BENCH_PEERS_PEER_PLANES_H
#define VEKR_BENCH_PEERS_PEER_PLANES_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vekcore.h"

namespace vekr::bench {

[[noreturn]] inline void fail(const char* what)
{
    std::fprintf(stderr, "peer_bench: %s\n", what);
    std::exit(1);
}

struct VekFreeDeleter {
    void operator()(void* p) const { vekFree(p); }
};

// n 32-bit words from the core allocator: 64-byte aligned, so blocks of whole tile rows take
// vekr's 4 x 4 paths. Zeroed once, so no timed pass pays for the first page faults.
class Plane {
public:
    explicit Plane(size_t n) : data_(static_cast<float*>(vekMalloc(n * sizeof(float))))
    {
        if (!data_) fail("out of memory for the ray planes");
        std::memset(data_.get(), 0, n * sizeof(float));
    }
    float* f() const { return data_.get(); }
    int32_t* words() const { return reinterpret_cast<int32_t*>(data_.get()); }

private:
    std::unique_ptr<float, VekFreeDeleter> data_;
};

// The x, y and z planes of one vector per ray.
struct VectorPlanes {
    Plane x, y, z;
    float* out[3] = {x.f(), y.f(), z.f()};
    const float* in[3] = {x.f(), y.f(), z.f()};
    explicit VectorPlanes(size_t n) : x(n), y(n), z(n) {}
    VectorPlanes(const VectorPlanes&) = delete;
    VectorPlanes& operator=(const VectorPlanes&) = delete;
};

// The nearest-hit outputs of one way of tracing: distance, weights and triangle (-1: miss).
struct HitPlanes {
    Plane dist, u, v, tri;
    explicit HitPlanes(size_t n) : dist(n), u(n), v(n), tri(n) {}
};

}  // namespace vekr::bench

#endif  // VEKR_BENCH_PEERS_PEER_PLANES_H
