// The step that runs when the library is attached to a process.
#pragma once

namespace vekr::frame {

// Set at attach when the core library reports both AVX (0x10) and the operating system's
// AVX register state (0x20). Kept for a future dispatcher; no kernel reads it.
bool processorAvxFlag();

}  // namespace vekr::frame
