// The extension module vekr._vekr: the exported C functions of libvekr and libvekcore, one
// Python function each, for the pure-Python layer of the package to build on. Every call into
// the library runs with the GIL released.
#include <pybind11/pybind11.h>

#include "call_status.h"
#include "vekcore.h"
#include "vekr.h"

namespace py = pybind11;

namespace vekr::python {
void bindVolume(py::module_& m);
void bindRays(py::module_& m);
void bindSh(py::module_& m);
}  // namespace vekr::python

PYBIND11_MODULE(_vekr, m)
{
    using namespace vekr::python;
    m.doc() = "Direct bindings of the vekr C functions (the public API is the vekr package).";
    registerStatusTypes(m);
    m.def(
        "get_num_threads",
        [] {
            py::gil_scoped_release unlocked;
            return vekGetNumThreads();
        },
        "vekGetNumThreads: the threads the library's parallel functions use.");
    m.def(
        "set_num_threads",
        [](int threads) {
            int status;
            {
                py::gil_scoped_release unlocked;
                status = vekSetNumThreads(threads);
            }
            return checkStatus(status, "vekSetNumThreads");
        },
        py::arg("threads"), "vekSetNumThreads; StatusBadSize for a count below 1.");
    m.def(
        "get_enabled_cpu_features",
        [] {
            py::gil_scoped_release unlocked;
            return vekGetEnabledCpuFeatures();
        },
        "vekGetEnabledCpuFeatures: the processor feature bits of vekcore.h.");
    m.def(
        "get_lib_version",
        [] {
            const LibVersion* v;
            {
                py::gil_scoped_release unlocked;
                v = vekrGetLibVersion();
            }
            py::dict d;
            d["major"] = v->majorVersion;
            d["minor"] = v->minorVersion;
            d["update"] = v->updateNumber;
            d["revision"] = v->revision;
            d["name"] = v->name;
            d["version"] = v->versionText;
            d["build_date"] = v->buildDate;
            return d;
        },
        "vekrGetLibVersion as a dict.");
    m.def(
        "get_live_allocation_count",
        [] {
            py::gil_scoped_release unlocked;
            return vekGetLiveAllocationCount();
        },
        "vekGetLiveAllocationCount: vekMalloc blocks not yet released (a testing hook).");
    bindVolume(m);
    bindRays(m);
    bindSh(m);
}
