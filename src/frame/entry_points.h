// Declarations of the implementations behind the exported functions. Each is declared with
// the exact type of its public declaration, so an implementation whose signature drifts from
// vekr.h fails to compile.
#pragma once

#include "vekr.h"

namespace vekr::entry {

#define VEKR_ENTRY(name) decltype(::name) name;
#include "entry_list.h"
#undef VEKR_ENTRY

}  // namespace vekr::entry
