#!/usr/bin/env bash
# Installs dependencies, builds ferndrop, installs it into a staging tree and
# runs a narrated demo delivery with the installed binary inside a sandbox
# (a private mount namespace under /tmp, removed afterwards), in the layout the
# installed ferndrop-setup makes, as the delivery user mail: two handlers,
# a .qmail with maildir, mbox, program and forward lines, and INBOX delivery
# through Dovecot's own LDA and then through its LMTP server.
set -euo pipefail
# What gets built and installed here is run and read by unprivileged users
# (the delivery user, Postfix, Dovecot); a hardened root umask must not
# lock them out.
umask 022
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh release
stage=$(mktemp -d /tmp/ferndrop-demo-install.XXXXXX)
trap 'rm -rf "$stage"' EXIT
chmod 0755 "$stage"  # the delivery user runs the staged binaries
DESTDIR="$stage" cmake --install build/release --prefix /usr/local
sbin=$stage/usr/local/sbin
build/release/demo/ferndrop_demo "$sbin/ferndrop" "$sbin/ferndrop-setup"
