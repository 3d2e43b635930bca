#!/usr/bin/env bash
# Installs dependencies, builds ferndrop twice (release and sanitized) and
# runs every test against both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
for flavour in release sanitize; do
  echo "== $flavour build"
  scripts/build.sh "$flavour"
  echo "== $flavour tests"
  # The strace-driven reliability tests skip themselves on the sanitized
  # build, whose runtime makes system calls of its own.
  ctest --test-dir "build/$flavour" --output-on-failure -j"$(nproc)"
done
scripts/fuzz.sh  # each libFuzzer target for 15 s
