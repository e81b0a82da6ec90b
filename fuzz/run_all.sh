#!/usr/bin/env bash
# Runs every fuzz target over its committed corpus for a bounded time each (default 60 s) and
# fails on the first finding. Builds nothing: run `cmake --workflow --preset fuzz` first.
#   fuzz/run_all.sh [seconds per target]
# New inputs go to a scratch directory, so the committed corpus is only read; a crashing input
# is kept under build/fuzz/findings/ (or $VEKR_FUZZ_FINDINGS) for replay:
#   build/fuzz/fuzz/<target> <file>
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "$0")/.." && pwd)"
bin="${VEKR_FUZZ_BIN:-$root/build/fuzz/fuzz}"
findings="${VEKR_FUZZ_FINDINGS:-$root/build/fuzz/findings}"
targets=(kd_build_fuzz volume_fuzz sh_fuzz shade_rays_fuzz)

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$findings"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

for target in "${targets[@]}"; do
    if [[ ! -x "$bin/$target" ]]; then
        echo "missing $bin/$target: build it with cmake --workflow --preset fuzz" >&2
        exit 2
    fi
    mkdir -p "$scratch/$target"
    echo "== $target: ${seconds} s"
    # Inputs of up to 1 KiB from the start: the targets draw bulk data from seeded generators,
    # so length buys choices, not time.
    if ! "$bin/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
            -max_len=1024 -len_control=0 -print_final_stats=1 -artifact_prefix="$findings/$target-" \
            "$scratch/$target" "$root/fuzz/corpus/$target" 2>"$scratch/$target.log"; then
        tail -n 80 "$scratch/$target.log" >&2
        echo "FAILED: $target; the input is in $findings/" >&2
        exit 1
    fi
    grep -E "^(#[0-9]+ +DONE|stat::number_of_executed_units|Done )" "$scratch/$target.log" || true
done
echo "fuzzing passed: ${#targets[@]} targets, ${seconds} s each"
