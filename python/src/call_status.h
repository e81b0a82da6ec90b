// The one place where a library Status becomes a Python exception or warning.
#ifndef VEKR_PYTHON_CALL_STATUS_H
#define VEKR_PYTHON_CALL_STATUS_H

#include <pybind11/pybind11.h>

#include "vekr.h"

namespace vekr::python {

// Creates vekr._vekr.VekrError (a RuntimeError) and VekrWarning (a UserWarning) in the module.
void registerStatusTypes(pybind11::module_& m);

// The enumerator name of a status ("StatusBadScale"), or "Status<code>" for an unknown code.
const char* statusName(int status);

// Raises VekrError for a negative status and issues VekrWarning for a positive one, both naming
// the C function and the status; returns the status otherwise unchanged. Call with the GIL held.
int checkStatus(int status, const char* function);

// Raises ValueError with the message (argument checks of the bindings).
[[noreturn]] void raiseValueError(const std::string& message);

}  // namespace vekr::python

#endif  // VEKR_PYTHON_CALL_STATUS_H
