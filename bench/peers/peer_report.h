// Results of the peer benchmark: the best time of each way of doing a family's work, how
// often each way agrees with Embree's one-ray calls, and the tables or JSON they are printed as.
#ifndef VEKR_BENCH_PEERS_PEER_REPORT_H
#define VEKR_BENCH_PEERS_PEER_REPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vekr::bench {

// One way of doing a family's work: its best time per thread count.
struct Measured {
    std::string library;  // "vekr" or "embree"
    std::string path;
    std::vector<double> bestSeconds;  // per entry of RunInfo::threads
};

// How often one way of tracing agrees with the reference (Embree's one-ray calls).
struct Agreement {
    std::string path;
    int64_t rays = 0;           // rays compared
    int64_t hitMissDiffer = 0;  // hit by one, missed by the other
    int64_t bothHit = 0;
    int64_t sameTriangle = 0;  // of bothHit; not counted for occlusion (no triangle asked)
    bool triangles = true;
};

// One family of work on one mesh: every way of doing it, and their agreement.
struct Family {
    std::string name;     // "build", "eye", "shadow", "reflection"
    std::string title;    // table heading
    std::string unit;     // "Mtris/s" or "Mrays/s"
    std::string against;  // what the agreement is measured against
    double items = 0;     // triangles or rays per pass
    std::vector<Measured> ways;
    std::vector<Agreement> agreement;
};

// The families measured on one mesh.
struct MeshResult {
    std::string name;
    int triangles = 0, vertices = 0;
    std::vector<Family> families;
};

// What a run compared, for the heading of the tables or the JSON.
struct RunInfo {
    std::string peerIsa;  // Embree's instruction-set limit; empty: its best
    bool peerNative16 = false;
    int side = 0;    // of the image of eye rays
    int repeat = 0;  // passes of each measurement
    std::vector<int> threads;
    double loadBefore = 0, loadAfter = 0;  // one-minute load averages
};

Family newFamily(const char* name, const char* title, const char* unit, const char* against,
                 double items);

// "library path" of a way.
std::string wayName(const Measured& way);

// a and b: per ray, >= 0 for a hit (the triangle) and < 0 for a miss; rays whose mask word is
// negative are left out (mask null: none).
Agreement compareHits(const std::string& path, const int32_t* a, const int32_t* b,
                      const int32_t* mask, size_t n, bool triangles);

void printTables(const std::vector<MeshResult>& meshes, const RunInfo& run);
void printJson(const std::vector<MeshResult>& meshes, const RunInfo& run);

}  // namespace vekr::bench

#endif  // VEKR_BENCH_PEERS_PEER_REPORT_H
