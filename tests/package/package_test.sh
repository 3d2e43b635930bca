#!/usr/bin/env bash
# The Debian package of this checkout: built, lintian-clean, then, in a mount namespace with
# throw-away /usr, /etc, /var and /run cleared of any earlier ferndrop: installed, delivering
# through Postfix and Dovecot, installed again, cleaned by its tmpfiles.d file, purged.
# usage: package_test.sh SOURCE_DIR   (exit 77: not root, no namespaces, no tools)
set -euo pipefail
umask 022
here=$(cd "$(dirname "$0")" && pwd)
spool=/usr/local/qrn/handlers/spool state=/var/lib/kavra/mail/local registry=/var/lib/kavra/mail/handlers/handlers.db

if [ "${1:-}" != --inside ]; then
    src=$(cd "${1:?usage: package_test.sh SOURCE_DIR}" && pwd)
    [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null && type -P dpkg-buildpackage lintian >/dev/null ||
        { echo "package_test: needs root, namespaces, dpkg-buildpackage and lintian; skipped" >&2; exit 77; }
    T=$(mktemp -d /tmp/ferndrop-package.XXXXXX)
    trap 'rm -rf "$T"' EXIT
    # Built from a copy: a package build leaves its by-products in and beside the tree.
    chmod 0755 "$T" && mkdir "$T/src" && tar -C "$src" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$T/src" -x
    (cd "$T/src" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -us -uc -b) >"$T/build.log" 2>&1 ||
        { tail -n 40 "$T/build.log"; exit 1; }
    lint=$(lintian --fail-on error,warning "$T"/ferndrop_*.deb 2>/dev/null) || { echo "$lint"; exit 1; }
    echo "lintian: ${lint:-no error, no warning}"
    unshare -m --propagation private "$0" --inside "$T"
    exit
fi

T=$2
for d in /usr /etc /var /run; do
    mkdir -p "$T/upper$d" "$T/work$d"
    mount -t overlay overlay -o "lowerdir=$d,upperdir=$T/upper$d,workdir=$T/work$d" "$d"
done
{ userdel popuser; groupdel popuser; } 2>/dev/null || true
rm -rf /usr/local/qrn /var/lib/kavra
# dpkg's own records, logs and caches (the manual page index) change by design.
tree() { find /usr /etc /var -xdev \( -path /var/lib/dpkg -o -path /var/log -o -path /var/cache \) -prune \
    -o -printf '%p %M %u %g\n' | sort; }
tree >"$T/before"
cp /etc/passwd /etc/group "$T/"
expect() {  # what, got, want
    [ "$2" = "$3" ] || { printf 'package_test: %s\n  got: %s\n want: %s\n' "$1" "$2" "$3" >&2; exit 1; }
    echo "package_test: $1: as expected"
}
layout() { echo $(getent passwd popuser | cut -d: -f1,6,7; stat -c '%n %U:%G %a' "$spool" "$state" "$registry"
                  sqlite3 "$registry" 'SELECT name FROM handlers'; ls "$state"); }
want="popuser:/nonexistent:/usr/sbin/nologin $spool popuser:popuser 750 $state popuser:popuser 750"
want="$want $registry root:popuser 640"

dpkg -i "$T"/ferndrop_*.deb >/dev/null
expect "installed layout" "$(layout)" "$want"
FERNDROP_SBIN=/usr/sbin "$here/../e2e/postfix_e2e.sh"
expect "version" "$(ferndrop --version)" "ferndrop $(dpkg-query -W -f '${Version}' ferndrop)"

# docs/postfix.md's transport, then the check: clean, and naming what a broken registry mode breaks.
cp /etc/postfix/master.cf "$T/master.cf" && touch /etc/postfix/main.cf
postconf -e ferndrop_destination_recipient_limit=1
postconf -M "ferndrop/unix=ferndrop unix - n n - - pipe flags=DRXhu user=popuser:popuser null_sender= argv=/usr/sbin/"\
'ferndrop -f ${sender} -d ${recipient} -p /var/qmail/mailnames'
ferndrop-setup --check >"$T/check" || { cat "$T/check"; exit 1; }
chmod 0600 "$registry"
expect "check with the registry's mode broken" "$(ferndrop-setup --check | grep -o '^FAIL: [a-z ]*registry'; echo $?)" \
    "$(printf 'FAIL: handler registry\nFAIL: popuser reads the handler registry\n1')"
chmod 0640 "$registry"

# The panel's registry row and the delivery state outlive an upgrade.
sqlite3 "$registry" "INSERT INTO handlers VALUES(2,3,1,10,'kept','example.com','/bin/cat','',0)"
touch "$state/local.db"
dpkg -i "$T"/ferndrop_*.deb >/dev/null
expect "layout after the upgrade" "$(layout)" "$want kept local.db"

# What killed runs leave, then, once that is older than the shortened age,
# the same kinds of files of runs still going: only the first ones go.
touch "$spool/messageAAAAAA" "$spool/messageAAAAAA.tmp" "$state/local.db.init.4242"
sed 's/ 1d$/ 2s/' /usr/lib/tmpfiles.d/ferndrop.conf >"$T/aged.conf"
sleep 3
touch "$spool/messageBBBBBB" "$spool/messageBBBBBB.tmp" "$state/local.db.init.4343"
systemd-tmpfiles --clean "$T/aged.conf"
expect "left by systemd-tmpfiles --clean" "$(echo $(ls "$spool" "$state"))" \
    "$spool: messageBBBBBB messageBBBBBB.tmp $state: local.db local.db.init.4343"

dpkg --purge ferndrop 2>"$T/purge.err" >/dev/null
expect "warning at removal" "$(grep -c 'master.cf still names ferndrop' "$T/purge.err")" 1
cp "$T/master.cf" /etc/postfix/master.cf && rm -f /etc/postfix/main.cf
tree >"$T/after"
expect "tree after the purge" "$(diff "$T/before" "$T/after"; dpkg-query -W ferndrop 2>&1)" \
    "dpkg-query: no packages found matching ferndrop"
# The account stays (debian/README.Debian says why).
expect "accounts added and left" \
    "$(echo $(grep -vxhF -f <(cat "$T/passwd" "$T/group") /etc/passwd /etc/group | cut -d: -f1))" "popuser popuser"
