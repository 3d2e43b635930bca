#!/usr/bin/env bash
# Installs dependencies, builds ferndrop twice (release and sanitized) and
# runs every test against both builds.
set -euo pipefail
# What gets built and installed here is run and read by unprivileged users
# (the delivery user, Postfix, Dovecot); a hardened root umask must not
# lock them out.
umask 022
cd "$(dirname "$0")/.."
scripts/install-deps.sh
for flavour in release sanitize; do
  echo "== $flavour build"
  scripts/build.sh "$flavour"
  echo "== $flavour tests"
  # The injected-fault sweep is disabled on the sanitized build, whose
  # runtime makes system calls of its own.
  ctest --test-dir "build/$flavour" --output-on-failure -j"$(nproc)"
done
scripts/fuzz.sh  # each libFuzzer target for 15 s
