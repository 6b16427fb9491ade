#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz (or FUZZ_BUILD_DIR) and runs each
# for the given number of seconds (default 30), from its seed corpus in tests/fuzz/corpus/<target>.
# New inputs go to build-fuzz/corpus/<target>; crashes to build-fuzz/findings/<target>.
# Usage: scripts/fuzz.sh [seconds] [target...]     Exit status: non-zero when a target found a crash.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$here/build-fuzz}
seconds=${1:-30}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(fuzz_feed_cms_xz fuzz_feed_loaders fuzz_version fuzz_recent_projects fuzz_git_config
    fuzz_api_dispatcher fuzz_http_front fuzz_vm_options)
fi
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$here} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DHANGAR_FUZZ=ON -DHANGAR_BUILD_TESTS=OFF -DHANGAR_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" --target "${targets[@]}"
export QT_QPA_PLATFORM=offscreen ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1
status=0
for t in "${targets[@]}"; do
  mkdir -p "$build/corpus/$t" "$build/findings/$t"
  seeds="$here/tests/fuzz/corpus/$t"
  [ -d "$seeds" ] || seeds=""
  echo "== $t (${seconds}s)"
  if ! nice "$build/fuzz/$t" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=1536 -timeout=120 \
      -print_final_stats=1 -artifact_prefix="$build/findings/$t/" "$build/corpus/$t" $seeds 2>"$build/$t.log"; then
    echo "FINDING in $t: see $build/findings/$t and $build/$t.log"
    status=1
  fi
  grep -E "^stat::(number_of_executed_units|new_units_added|peak_rss_mb)" "$build/$t.log" | tr '\n' ' '
  echo
done
exit $status
