#!/usr/bin/env bash
# Configures (once) and builds the project into ./build with Ninja and ccache.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
# Paths relative to the checkout, so clones and worktrees share one compiler cache.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$here}
# With debug info ccache would hash the build folder too; leaving it out lets other build
# folders of the same sources (worktrees, the self-update tests' newer manager) share objects.
export CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$here" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
fi
# BUILD_TARGETS (space-separated) limits the build to those targets and what they need.
cmake --build "$build" ${BUILD_TARGETS:+--target $BUILD_TARGETS}
