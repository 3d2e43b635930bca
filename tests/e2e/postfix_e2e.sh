#!/usr/bin/env bash
# End to end with the real neighbours: Postfix takes mail over SMTP on a
# loopback port, its pipe transport runs the *installed* ferndrop as the
# delivery user popuser, ferndrop runs a registered handler, .qmail lines and
# Dovecot's LDA, and postfix_e2e.py reads the mailboxes back over IMAP from a
# Dovecot in the same place.
#
# Everything happens in private mount, network and pid namespaces: the
# install tree (cmake --install with DESTDIR) is the upper layer of overlays
# over /usr, /etc, /var and /run, so the compiled-in paths, the popuser
# account, the Postfix queue and the Dovecot state exist only there. When the
# namespace's first process ends, the kernel kills whatever is left in it;
# the scratch directory is removed afterwards. Nothing touches the host.
#
# usage: postfix_e2e.sh BUILD_DIR
#        FERNDROP_SBIN=/usr/sbin postfix_e2e.sh   (the ferndrop a package installed
#        and laid out, with its own dovecot-lda path; tests/package)
# Exit 77: cannot run here (not root, no namespaces); ctest counts it skipped.
set -euo pipefail
# The trees made here are read by Postfix's and Dovecot's unprivileged users.
umask 022
here=$(cd "$(dirname "$0")" && pwd)
mailnames=/var/qmail/mailnames
smtp_port=2525
imap_port=1143
sbin=${FERNDROP_SBIN:-/usr/local/sbin}

if [ "${1:-}" != --inside ]; then
    [ -n "${FERNDROP_SBIN:-}" ] || build=$(cd "${1:?usage: postfix_e2e.sh BUILD_DIR}" && pwd)
    if [ "$(id -u)" != 0 ] || ! unshare --mount --net --pid --fork true 2>/dev/null; then
        echo "postfix_e2e: needs root and namespaces; skipped" >&2
        exit 77
    fi
    T=$(mktemp -d /tmp/ferndrop-postfix-e2e.XXXXXX)
    chmod 0755 "$T"
    trap 'rm -rf "$T"' EXIT
    [ -n "${FERNDROP_SBIN:-}" ] || DESTDIR=$T/upper cmake --install "$build" --prefix /usr/local >/dev/null
    rc=0
    unshare --mount --net --pid --fork --mount-proc --propagation private \
        "$0" --inside "$T" || rc=$?
    exit "$rc"
fi

# ---------------------------------------------------------------- inside
T=$2
ip link set lo up
for d in /usr /etc /var /run; do
    mkdir -p "$T/upper$d" "$T/work$d"
    mount -t overlay overlay -o "lowerdir=$d,upperdir=$T/upper$d,workdir=$T/work$d" "$d"
done
# A /dev of our own, for a /dev/log that collects the syslog of everything.
mkdir "$T/olddev"
mount --rbind /dev "$T/olddev"
mount -t tmpfs -o mode=0755,size=16m tmpfs /dev
for n in null zero full random urandom tty; do
    [ -e "$T/olddev/$n" ] || continue
    touch "/dev/$n"
    mount --bind "$T/olddev/$n" "/dev/$n"
done
umount -l "$T/olddev"
ln -s /proc/self/fd /dev/fd
ln -s /proc/self/fd/0 /dev/stdin
ln -s /proc/self/fd/1 /dev/stdout
ln -s /proc/self/fd/2 /dev/stderr
mkdir -m 1777 /dev/shm

log=$T/syslog.txt
/usr/bin/python3 "$here/postfix_e2e.py" syslog "$log" &
syslog_pid=$!
for _ in $(seq 100); do [ -S /dev/log ] && break; sleep 0.05; done

dump_logs() {
    echo "---- syslog (postfix, dovecot, ferndrop)"
    cat "$log" || true
}
trap dump_logs ERR

# The documented setup step, exactly as an administrator runs it.
[ -n "${FERNDROP_SBIN:-}" ] || /usr/local/sbin/ferndrop-setup --user popuser >/dev/null

# A handler for the whole domain: stamps the recipient it saw, passes the rest.
mkdir -p /usr/local/qrn/handlers/bin
cat >/usr/local/qrn/handlers/bin/stamp <<'EOF'
#!/bin/sh
printf 'X-Ferndrop-Stamp: %s %s\n' "$3" "$(id -un)"
exec cat
EOF
chmod 0755 /usr/local/qrn/handlers/bin/stamp
sqlite3 /var/lib/kavra/mail/handlers/handlers.db \
    "INSERT INTO handlers VALUES(2,3,1,10,'stamp','example.com','/usr/local/qrn/handlers/bin/stamp','',0);"

# Mailboxes. alice, carol and dave have no .qmail (INBOX through dovecot-lda);
# bob keeps a copy and forwards; refuse's program line refuses permanently;
# loop1 and loop2 forward to each other.
for box in alice bob carol dave refuse loop1 loop2; do
    mkdir -p "$mailnames/example.com/$box"
done
mkdir -p "$mailnames/example.com/bob/Maildir/"{tmp,new,cur}
printf '&dave@example.com\n./Maildir/\n' >"$mailnames/example.com/bob/.qmail"
printf '|exit 100\n' >"$mailnames/example.com/refuse/.qmail"
echo '&loop2@example.com' >"$mailnames/example.com/loop1/.qmail"
echo '&loop1@example.com' >"$mailnames/example.com/loop2/.qmail"
chmod 0600 "$mailnames"/example.com/*/.qmail
chown -R popuser:popuser "$mailnames"

# Dovecot: IMAP on loopback for the test's reading, and the LDA's userdb.
rm -rf /etc/dovecot/conf.d
cat >/etc/dovecot/dovecot.conf <<EOF
protocols = imap
listen = 127.0.0.1
ssl = no
disable_plaintext_auth = no
auth_mechanisms = plain
first_valid_uid = 1
mail_location = maildir:~/Maildir
service imap-login {
  inet_listener imap {
    port = $imap_port
  }
  inet_listener imaps {
    port = 0
  }
}
# dovecot-lda runs as popuser:popuser under Postfix's pipe: it asks the
# auth socket for the mailbox's home and reports to the stats socket; what it
# cannot reach it complains about on standard error, which Postfix reads.
service auth {
  unix_listener auth-userdb {
    mode = 0660
    group = popuser
  }
}
service stats {
  unix_listener stats-writer {
    mode = 0660
    group = popuser
  }
}
passdb {
  driver = passwd-file
  args = scheme=PLAIN /etc/dovecot/users
}
userdb {
  driver = static
  args = uid=popuser gid=popuser home=$mailnames/%d/%n allow_all_users=yes
}
protocol lda {
  postmaster_address = postmaster@example.com
}
EOF
: >/etc/dovecot/users
for box in alice bob carol dave refuse; do
    echo "$box@example.com:{PLAIN}secret" >>/etc/dovecot/users
done
[ -n "${FERNDROP_SBIN:-}" ] || ln -sfn /usr/lib/dovecot /usr/libexec/dovecot

# Postfix: example.com is local, and every local recipient goes to ferndrop.
cat >/etc/postfix/main.cf <<EOF
compatibility_level = 3.6
myhostname = mx.example.com
mydomain = example.com
myorigin = \$mydomain
mydestination = \$mydomain, localhost
inet_interfaces = loopback-only
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
smtpd_relay_restrictions = permit_mynetworks, reject_unauth_destination
local_recipient_maps =
alias_maps =
alias_database =
biff = no
local_transport = ferndrop
ferndrop_destination_recipient_limit = 1
EOF
postconf -MX smtp/inet
postconf -M "127.0.0.1:$smtp_port/inet=127.0.0.1:$smtp_port inet n - n - - smtpd"
postconf -M "ferndrop/unix=ferndrop unix - n n - - pipe flags=DRXhu user=popuser:popuser null_sender=<> argv=$sbin/ferndrop"' -f ${sender} -d ${recipient} -p /var/qmail/mailnames'
postconf -F '*/*/chroot = n'

dovecot
postfix start >/dev/null 2>&1 || { postfix start; exit 1; }

rc=0
/usr/bin/python3 "$here/postfix_e2e.py" check --smtp "$smtp_port" --imap "$imap_port" \
    --log "$log" || rc=$?

postfix stop >/dev/null 2>&1 || true
doveadm stop 2>/dev/null || true
for _ in $(seq 100); do
    pgrep -x master >/dev/null || pgrep -x dovecot >/dev/null || break
    sleep 0.1
done
kill "$syslog_pid" 2>/dev/null || true
[ "$rc" = 0 ] || dump_logs
exit "$rc"
