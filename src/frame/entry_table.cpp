// The entry table: one pointer per export, in the order of entry_list.h. Each export stub in
// entry_stubs.S jumps through its slot. Another processor variant would be substituted here.
#include "entry_table.h"

#include "entry_points.h"

extern "C" const vekr::frame::EntryFn vekrEntryTable[] = {
#define VEKR_ENTRY(name) reinterpret_cast<vekr::frame::EntryFn>(&vekr::entry::name),
#include "entry_list.h"
#undef VEKR_ENTRY
};

static_assert(sizeof(vekrEntryTable) / sizeof(vekrEntryTable[0]) == vekr::frame::kEntryCount);
