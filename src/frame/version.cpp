// The version record. Numbers come from the build (project version and source revision);
// the date is the compiler's __DATE__ with the padding blank of one-digit days removed.
#include <array>
#include <cstddef>

#include "entry_points.h"

#ifndef VEKR_VERSION_MAJOR
#error "the build defines VEKR_VERSION_MAJOR, VEKR_VERSION_MINOR, VEKR_VERSION_PATCH, VEKR_REVISION"
#endif

#define VEKR_STR_(x) #x
#define VEKR_STR(x) VEKR_STR_(x)

// Four ints, the 4-byte tag, then the text pointers from byte 20 rounded up to their alignment.
constexpr size_t kFirstTextOffset =
    (20 + alignof(const char*) - 1) / alignof(const char*) * alignof(const char*);
static_assert(offsetof(LibVersion, revision) == 12 && offsetof(LibVersion, cpuTag) == 16 &&
              offsetof(LibVersion, name) == kFirstTextOffset);

namespace vekr::frame {
namespace {

// "Nov  1 2026" -> "Nov 1 2026"; "Nov 21 2026" stays as it is.
constexpr std::array<char, 12> normaliseBuildDate(const char (&date)[12])
{
    std::array<char, 12> out{};
    int n = 0;
    for (int i = 0; i < 11; ++i) {
        if (date[i] == ' ' && n > 0 && out[n - 1] == ' ') continue;
        out[n++] = date[i];
    }
    return out;
}

constexpr std::array<char, 12> kBuildDate = normaliseBuildDate(__DATE__);

const LibVersion kLibVersion = {
    VEKR_VERSION_MAJOR,
    VEKR_VERSION_MINOR,
    VEKR_VERSION_PATCH,
    VEKR_REVISION,
    {'A', 'V', 'X', '\0'},
    "vekr (AVX)",
    VEKR_STR(VEKR_VERSION_MAJOR) "." VEKR_STR(VEKR_VERSION_MINOR) "." VEKR_STR(
        VEKR_VERSION_PATCH) " (" VEKR_STR(VEKR_REVISION) ")",
    kBuildDate.data(),
};

}  // namespace
}  // namespace vekr::frame

const LibVersion* vekr::entry::vekrGetLibVersion()
{
    return &frame::kLibVersion;
}
