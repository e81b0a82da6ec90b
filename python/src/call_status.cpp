#include "call_status.h"

#include <string>

namespace py = pybind11;

namespace vekr::python {
namespace {

struct StatusText {
    int code;
    const char* name;
    const char* meaning;
};

// The codes and meanings of vekr.h, in its order.
constexpr StatusText kStatusTexts[] = {
    {StatusOk, "StatusOk", "success"},
    {StatusWarnNoOperation, "StatusWarnNoOperation",
     "completed; nothing to do, or a division by zero met"},
    {StatusWarnVoiOutsideSource, "StatusWarnVoiOutsideSource",
     "the source box origin lies outside the source volume; nothing was written"},
    {StatusBuildMismatch, "StatusBuildMismatch",
     "a KD-tree build failed its partition consistency test"},
    {StatusNoMemory, "StatusNoMemory", "memory unavailable, or the build budget too small"},
    {StatusBadArgument, "StatusBadArgument", "an argument outside the set the function knows"},
    {StatusBadSize, "StatusBadSize", "a count or size is negative, or zero where one is needed"},
    {StatusOutOfRange, "StatusOutOfRange", "a spherical-harmonic order or band out of range"},
    {StatusNullPointer, "StatusNullPointer", "a required pointer is null"},
    {StatusMemoryLimit, "StatusMemoryLimit", "the KD-tree build ran out of its memory budget"},
    {StatusBadParameter, "StatusBadParameter", "a field of a parameter record is out of range"},
    {StatusBadInterpolation, "StatusBadInterpolation", "an unknown interpolation kind"},
    {StatusBadScale, "StatusBadScale", "a scale factor that is zero or negative"},
    {StatusBadChannels, "StatusBadChannels", "an unsupported channel count"},
    {StatusBadCoefficients, "StatusBadCoefficients",
     "an affine matrix with |determinant| below 1e-10"},
};

// Owned by the module for the life of the interpreter (created once in registerStatusTypes).
PyObject* gErrorType = nullptr;
PyObject* gWarningType = nullptr;

const StatusText* findStatus(int status)
{
    for (const StatusText& s : kStatusTexts)
        if (s.code == status) return &s;
    return nullptr;
}

std::string describe(int status, const char* function)
{
    const StatusText* s = findStatus(status);
    return std::string(function) + ": " + statusName(status) + " (" + std::to_string(status) +
           "): " + (s != nullptr ? s->meaning : "unknown status");
}

}  // namespace

void registerStatusTypes(py::module_& m)
{
    gErrorType = PyErr_NewExceptionWithDoc(
        "vekr._vekr.VekrError",
        "A vekr function returned an error status; nothing was written. The attributes "
        "`status` (the negative code) and `status_name` (\"StatusBadScale\") tell which.",
        PyExc_RuntimeError, nullptr);
    gWarningType = PyErr_NewExceptionWithDoc(
        "vekr._vekr.VekrWarning",
        "A vekr function returned a warning status; its outputs are valid (or untouched when "
        "there was nothing to do).",
        PyExc_UserWarning, nullptr);
    if (gErrorType == nullptr || gWarningType == nullptr) throw py::error_already_set();
    m.add_object("VekrError", py::handle(gErrorType));
    m.add_object("VekrWarning", py::handle(gWarningType));
    m.def(
        "status_name", [](int status) { return statusName(status); }, py::arg("status"),
        "The enumerator name of a status code of vekr.h, e.g. status_name(-23) == "
        "'StatusBadScale'.");
}

const char* statusName(int status)
{
    const StatusText* s = findStatus(status);
    if (s != nullptr) return s->name;
    thread_local std::string unknown;
    unknown = "Status" + std::to_string(status);
    return unknown.c_str();
}

int checkStatus(int status, const char* function)
{
    if (status == StatusOk) return status;
    const std::string message = describe(status, function);
    if (status > 0) {
        // A warning filter may turn the warning into an exception.
        if (PyErr_WarnEx(gWarningType, message.c_str(), 2) != 0) throw py::error_already_set();
        return status;
    }
    py::object error = py::reinterpret_steal<py::object>(
        PyObject_CallFunction(gErrorType, "s", message.c_str()));
    if (!error) throw py::error_already_set();
    error.attr("status") = status;
    error.attr("status_name") = statusName(status);
    PyErr_SetObject(gErrorType, error.ptr());
    throw py::error_already_set();
}

void raiseValueError(const std::string& message) { throw py::value_error(message); }

}  // namespace vekr::python
