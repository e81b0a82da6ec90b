// Tables and JSON of the peer benchmark's results.
#include "peer_report.h"

#include <embree3/rtcore.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "vekr.h"

namespace vekr::bench {

namespace {

double percent(int64_t part, int64_t whole)
{
    return whole > 0 ? 100.0 * double(part) / double(whole) : 100.0;
}

// Width of the ratio column against one of Embree's ways: its heading is "vekr/" + path.
int ratioWidth(const Measured& peer)
{
    return int(std::max<size_t>(10, peer.path.size() + 5));
}

void printTable(const MeshResult& mesh, const RunInfo& run)
{
    std::printf("\n%s: %d triangles, %d vertices\n", mesh.name.c_str(), mesh.triangles,
                mesh.vertices);
    for (const Family& f : mesh.families) {
        std::vector<const Measured*> peers;
        for (const Measured& m : f.ways)
            if (m.library != "vekr") peers.push_back(&m);
        std::printf("\n%s (%.0f %s per pass)\n", f.title.c_str(), f.items,
                    f.name == "build" ? "triangles" : "rays");
        std::printf("  %-7s %-28s %7s %10s %9s", "library", "path", "threads", "ms",
                    f.unit.c_str());
        for (const Measured* p : peers)
            std::printf("  %*s", ratioWidth(*p), ("vekr/" + p->path).c_str());
        std::printf("\n");
        for (size_t c = 0; c < run.threads.size(); ++c)
            for (const Measured& m : f.ways) {
                const double seconds = m.bestSeconds[c];
                std::printf("  %-7s %-28s %7d %10.3f %9.3f", m.library.c_str(), m.path.c_str(),
                            run.threads[c], seconds * 1e3, f.items / seconds * 1e-6);
                for (const Measured* p : peers) {
                    if (m.library == "vekr")
                        std::printf("  %*.2f", ratioWidth(*p), p->bestSeconds[c] / seconds);
                    else
                        std::printf("  %*s", ratioWidth(*p), "");
                }
                std::printf("\n");
            }
        for (const Agreement& a : f.agreement) {
            std::printf("  agreement of %s with %s: hit/miss on %.4f%% of %lld rays (%lld differ)",
                        a.path.c_str(), f.against.c_str(), 100.0 - percent(a.hitMissDiffer, a.rays),
                        (long long)a.rays, (long long)a.hitMissDiffer);
            if (a.triangles)
                std::printf(", same triangle on %.4f%% of the hits",
                            percent(a.sameTriangle, a.bothHit));
            std::printf("\n");
        }
    }
}

std::string jsonString(const std::string& s)
{
    std::string out = "\"";
    for (char ch : s) {
        if (ch == '"' || ch == '\\') out += '\\';
        out += ch;
    }
    return out + "\"";
}

}  // namespace

Family newFamily(const char* name, const char* title, const char* unit, const char* against,
                 double items)
{
    return {name, title, unit, against, items, {}, {}};
}

std::string wayName(const Measured& way)
{
    return way.library + " " + way.path;
}

Agreement compareHits(const std::string& path, const int32_t* a, const int32_t* b,
                      const int32_t* mask, size_t n, bool triangles)
{
    Agreement r;
    r.path = path;
    r.triangles = triangles;
    for (size_t i = 0; i < n; ++i) {
        if (mask && mask[i] < 0) continue;
        ++r.rays;
        const bool hitA = a[i] >= 0, hitB = b[i] >= 0;
        r.hitMissDiffer += hitA != hitB;
        r.bothHit += hitA && hitB;
        r.sameTriangle += hitA && hitB && a[i] == b[i];
    }
    return r;
}

void printTables(const std::vector<MeshResult>& meshes, const RunInfo& run)
{
    std::printf(
        "vekr %s beside Embree %s (%s, 16-ray packets %s); %d x %d eye rays, best of %d "
        "passes; load average %.2f before, %.2f after, on %u hardware threads\n",
        vekrGetLibVersion()->versionText, RTC_VERSION_STRING,
        run.peerIsa.empty() ? "its best instruction set" : ("isa=" + run.peerIsa).c_str(),
        run.peerNative16 ? "native" : "emulated", run.side, run.side, run.repeat, run.loadBefore,
        run.loadAfter, std::thread::hardware_concurrency());
    std::printf("ratios: vekr's throughput over Embree's (above 1: vekr is faster)\n");
    for (const MeshResult& mesh : meshes)
        printTable(mesh, run);
}

void printJson(const std::vector<MeshResult>& meshes, const RunInfo& run)
{
    std::printf(
        "{\"peer\": \"Embree %s\", \"peerIsa\": %s, \"peerNative16\": %s, "
        "\"side\": %d, \"repeat\": %d, \"load\": [%.2f, %.2f], \"meshes\": [",
        RTC_VERSION_STRING, jsonString(run.peerIsa.empty() ? "best" : run.peerIsa).c_str(),
        run.peerNative16 ? "true" : "false", run.side, run.repeat, run.loadBefore, run.loadAfter);
    for (size_t m = 0; m < meshes.size(); ++m) {
        const MeshResult& mesh = meshes[m];
        std::printf("%s\n {\"name\": %s, \"triangles\": %d, \"vertices\": %d, \"families\": [",
                    m ? "," : "", jsonString(mesh.name).c_str(), mesh.triangles, mesh.vertices);
        for (size_t fi = 0; fi < mesh.families.size(); ++fi) {
            const Family& f = mesh.families[fi];
            std::printf("%s\n  {\"family\": %s, \"items\": %.0f, \"unit\": %s, \"results\": [",
                        fi ? "," : "", jsonString(f.name).c_str(), f.items,
                        jsonString(f.unit).c_str());
            bool first = true;
            for (size_t c = 0; c < run.threads.size(); ++c)
                for (const Measured& w : f.ways) {
                    std::printf(
                        "%s\n   {\"library\": %s, \"path\": %s, \"threads\": %d, "
                        "\"ms\": %.4f, \"perSecond\": %.1f}",
                        first ? "" : ",", jsonString(w.library).c_str(), jsonString(w.path).c_str(),
                        run.threads[c], w.bestSeconds[c] * 1e3, f.items / w.bestSeconds[c]);
                    first = false;
                }
            std::printf("], \"agreement\": [");
            for (size_t a = 0; a < f.agreement.size(); ++a) {
                const Agreement& g = f.agreement[a];
                std::printf(
                    "%s\n   {\"path\": %s, \"against\": %s, \"rays\": %lld, "
                    "\"hitMissDiffer\": %lld, \"bothHit\": %lld, \"sameTriangle\": %lld}",
                    a ? "," : "", jsonString(g.path).c_str(), jsonString(f.against).c_str(),
                    (long long)g.rays, (long long)g.hitMissDiffer, (long long)g.bothHit,
                    g.triangles ? (long long)g.sameTriangle : -1LL);
            }
            std::printf("]}");
        }
        std::printf("]}");
    }
    std::printf("]}\n");
}

}  // namespace vekr::bench
