// The table through which every exported function is reached.
#pragma once

#include <string_view>

namespace vekr::frame {

using EntryFn = void (*)();

inline constexpr std::string_view kEntryNames[] = {
#define VEKR_ENTRY(name) #name,
#include "entry_list.h"
#undef VEKR_ENTRY
};

inline constexpr int kEntryCount = int(sizeof(kEntryNames) / sizeof(kEntryNames[0]));

// Byte order of the names, as strcmp sees it: upper-case letters sort before lower-case ones.
constexpr bool entryNamesAreSorted()
{
    for (int i = 1; i < kEntryCount; ++i)
        if (!(kEntryNames[i - 1] < kEntryNames[i])) return false;
    return true;
}
static_assert(entryNamesAreSorted(), "entry_list.h must be sorted by name in byte order");

}  // namespace vekr::frame

// Filled at build time and read-only afterwards (it lives in relocated read-only data).
extern "C" __attribute__((visibility("hidden"))) const vekr::frame::EntryFn vekrEntryTable[];
