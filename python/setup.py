"""The extension module for pip (see pyproject.toml): the sources of src/, compiled with
pybind11's helpers and linked to the vekr that pkg-config finds, which the module then loads
from that library directory."""
import glob
import subprocess

from pybind11.setup_helpers import Pybind11Extension, build_ext
from setuptools import setup


def pkg_config(option):
    try:
        result = subprocess.run(["pkg-config", option, "vekr"], check=True, capture_output=True,
                                text=True)
    except (OSError, subprocess.CalledProcessError) as error:
        raise SystemExit("pkg-config cannot find vekr: install the library (cmake --install) and "
                         "point PKG_CONFIG_PATH at its lib/pkgconfig directory") from error
    return result.stdout.split()


def flags(option, prefix):
    return [f[len(prefix):] for f in pkg_config(option) if f.startswith(prefix)]


libdir = pkg_config("--variable=libdir")[0]
extension = Pybind11Extension(
    "vekr._vekr",
    sorted(glob.glob("src/*.cpp")),
    cxx_std=20,
    include_dirs=flags("--cflags", "-I"),
    library_dirs=flags("--libs", "-L"),
    libraries=flags("--libs", "-l"),
    runtime_library_dirs=[libdir],
    extra_compile_args=["-ffp-contract=off"],
)
setup(ext_modules=[extension], cmdclass={"build_ext": build_ext})
