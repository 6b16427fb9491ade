#!/usr/bin/env bash
# Installs what is needed, builds, and starts the manager.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
"$here/scripts/build.sh"
# A headless machine has no display: the offscreen platform keeps the manager running there.
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  export QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen}
fi
exec "$build/src/main/hangar" --debug "$@"
