#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh"
# The browser tests' npm packages, from the lockfile (also a CTest fixture of the ui tests).
"$here/scripts/ui-deps.sh"
(cd "$build" && ctest --output-on-failure -j "$(nproc)")
# Every fuzz target for half a minute, from its seed corpus (a clang build in build-fuzz).
"$here/scripts/fuzz.sh" 30
