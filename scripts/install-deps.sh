#!/usr/bin/env bash
# Installs everything ferndrop's build, tests and demo need from Debian's
# package repository. Idempotent: packages already present are not fetched.
# Extra package names on the command line (the benchmarks' peers, say) are
# installed the same way.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libsqlite3-dev sqlite3
  libtokyocabinet-dev tokyocabinet-bin
  libboost-dev
  libxxhash-dev xxhash
  googletest libgtest-dev
  util-linux mount strace procps e2fsprogs
  dovecot-core dovecot-imapd dovecot-lmtpd
  llvm-14
  clang libclang-rt-14-dev
  postfix python3 iproute2 man-db
  dpkg-dev debhelper lintian systemd zlib1g-dev libbz2-dev
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  # Services must not start on a build machine; the tests run their own.
  printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d.ferndrop
  chmod 755 /usr/sbin/policy-rc.d.ferndrop
  [ -e /usr/sbin/policy-rc.d ] || ln -s policy-rc.d.ferndrop /usr/sbin/policy-rc.d
  # Postfix without a configuration: its tests write their own.
  echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  [ "$(readlink /usr/sbin/policy-rc.d 2>/dev/null)" = policy-rc.d.ferndrop ] && rm -f /usr/sbin/policy-rc.d
  rm -f /usr/sbin/policy-rc.d.ferndrop
fi
