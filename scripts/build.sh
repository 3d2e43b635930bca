#!/usr/bin/env bash
# Configures and builds one flavour of ferndrop: "release" (default) or
# "sanitize" (AddressSanitizer + UndefinedBehaviorSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."
flavour=${1:-release}
case "$flavour" in
  release)  opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  sanitize) opts=(-DCMAKE_BUILD_TYPE=Debug -DFERNDROP_SANITIZE=ON) ;;
  *) echo "unknown flavour $flavour" >&2; exit 2 ;;
esac
cmake -S . -B "build/$flavour" "${opts[@]}" >/dev/null
cmake --build "build/$flavour" -j"$(nproc)"
