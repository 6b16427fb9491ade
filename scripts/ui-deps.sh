#!/usr/bin/env bash
# Installs the browser tests' npm packages (playwright-core, pinned by tests/ui/package-lock.json)
# into BUILD/tests/ui/node_modules with `npm ci`, again only when the lockfile changed.
# The browser itself is Debian's chromium; nothing is downloaded at test time.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$here/build}
target=$build/tests/ui
mkdir -p "$target"
if [ -d "$target/node_modules" ] && cmp -s "$here/tests/ui/package-lock.json" "$target/package-lock.json"; then
  exit 0
fi
cp "$here/tests/ui/package.json" "$here/tests/ui/package-lock.json" "$target/"
cd "$target"
npm ci --no-audit --no-fund --ignore-scripts --loglevel=error
