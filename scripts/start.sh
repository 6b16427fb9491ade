#!/usr/bin/env bash
# Installs what is needed, builds, and starts the manager.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
"$here/scripts/install-deps.sh"
# Only the manager and the feed signer that the demo feed needs; the tests are built by scripts/test.sh.
BUILD_TARGETS="hangar hangar-feed" "$here/scripts/build.sh"
# A machine without a display gets headless mode: no window, the page and its API on a
# loopback port (HANGAR_WS_PORT, default: a free one) whose address the manager prints.
headless=
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  export QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen}
  headless=1
fi
# The demo feed: small demo tools signed with this build's development CA, served by nginx on
# 127.0.0.1 (demo/make-demo-feed.py --build "$build" --stop ends it). A feed list of your own in
# VANTREL_HANGAR_FEED_URLS takes precedence.
if [ -z "${VANTREL_HANGAR_FEED_URLS:-}" ]; then
  if demo_feed=$(python3 "$here/demo/make-demo-feed.py" --build "$build"); then
    export VANTREL_HANGAR_FEED_URLS=$demo_feed
  else
    echo "The demo feed could not be served; starting with the built-in feeds" >&2
  fi
fi
if [ -n "$headless" ]; then
  echo "No display: starting headless; open the address below in a browser on this machine" >&2
  # Without --debug the log stays in its file, so the address is all this prints.
  exec "$build/src/main/hangar" --internal-headless --ws-port "${HANGAR_WS_PORT:-0}" "$@"
fi
exec "$build/src/main/hangar" --debug "$@"
