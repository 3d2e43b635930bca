#!/usr/bin/env bash
# Installs dependencies, builds ferndrop, installs it into a staging tree and
# runs a narrated demo delivery with the installed binary inside a sandbox
# (a private mount namespace under /tmp, removed afterwards): two handlers,
# a .qmail with maildir, mbox, program and forward lines, and INBOX delivery
# through Dovecot's own LDA.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh release
stage=$(mktemp -d /tmp/ferndrop-demo-install.XXXXXX)
trap 'rm -rf "$stage"' EXIT
DESTDIR="$stage" cmake --install build/release --prefix /usr/local >/dev/null
binary=$(find "$stage" -type f -name ferndrop -perm -u+x | head -n 1)
echo "installed: ${binary#$stage} (staged in $stage)"
build/release/tests/e2e/ferndrop_demo "$binary"
