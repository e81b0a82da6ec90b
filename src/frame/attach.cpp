#include "attach.h"

#include "vekcore.h"

namespace vekr::frame {
namespace {

constexpr unsigned long long kAvxFeatureBits = 0x10 | 0x20;
bool gProcessorAvxFlag = false;

// Attach never refuses a processor: it only records what the core library reports.
[[gnu::constructor]] void attachLibrary()
{
    gProcessorAvxFlag = (vekGetEnabledCpuFeatures() & kAvxFeatureBits) == kAvxFeatureBits;
}

}  // namespace

bool processorAvxFlag()
{
    return gProcessorAvxFlag;
}

}  // namespace vekr::frame
