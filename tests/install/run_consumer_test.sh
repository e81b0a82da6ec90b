#!/usr/bin/env bash
# Installs the built project into a fresh prefix and uses it as a client would: a C and a C++
# program configured with find_package(vekr 0.1), the C program once more compiled by hand with
# the flags of pkg-config, and the installed tools. Each program checks its own results.
# Compilers, flags, generator and build type come from the environment (CC, CXX, CFLAGS,
# CXXFLAGS, LDFLAGS, CMAKE_GENERATOR, CMAKE_BUILD_TYPE), which CMake reads too, so a sanitizer
# build gets sanitized clients; PYTHON is the interpreter of the Python package, if built.
# Usage: run_consumer_test.sh CMAKE BUILD_DIR WORK_DIR LIBDIR BINDIR
set -euo pipefail
cmake=$1 build=$2 work=$3 libdir=$4 bindir=$5
here=$(cd "$(dirname "$0")" && pwd)
prefix=$work/prefix

rm -rf "$work"
"$cmake" --install "$build" --prefix "$prefix"

# Only the prefix tells CMake where the package is.
"$cmake" -S "$here" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix"
"$cmake" --build "$work/build"
"$work/build/trace_rays"
"$work/build/resize_volume"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
read -ra pc_flags <<<"$(pkg-config --cflags --libs vekr)"
pc_libdir=$(pkg-config --variable=libdir vekr)
read -ra cflags <<<"${CFLAGS-}"
read -ra ldflags <<<"${LDFLAGS-}"
"${CC:-cc}" -std=c11 -pedantic -Wall -Wextra -Werror "${cflags[@]}" "$here/trace_rays.c" \
    -o "$work/trace_rays_pc" "${pc_flags[@]}" -lm "${ldflags[@]}" -Wl,-rpath,"$pc_libdir"
"$work/trace_rays_pc"

# The tools find the libraries of their own prefix.
if [[ -x $prefix/$bindir/vekr-render ]]; then
    out=$("$prefix/$bindir/vekr-render" -w 32 -h 24 -o "$work/render.png")
    [[ $out =~ hit\ [1-9][0-9]*\ of ]] || { echo "vekr-render: $out"; exit 1; }
    out=$("$prefix/$bindir/vekr-volume" --size 16 --resize 2 -o "$work/volume.png")
    [[ $out =~ result:\ 32\ x\ 32\ x\ 32 ]] || { echo "vekr-volume: $out"; exit 1; }
fi
# The Python package, where it was built, imports from the prefix and finds the libraries there.
for package in "$prefix"/lib*/python3*/*-packages; do
    [[ -d $package/vekr ]] || continue
    PYTHONPATH=$package "${PYTHON:-python3}" -c \
        'import numpy, vekr; assert vekr.resize(numpy.ones((2, 2, 2), numpy.float32), 2).shape == (4, 4, 4)'
done
echo "installed package works"
