#!/usr/bin/env bash
# End to end with the real neighbours: Postfix takes mail over SMTP on loopback, its pipe transport runs
# the *installed* ferndrop as popuser, ferndrop runs a registered handler, .qmail lines and Dovecot's LDA,
# and the mailboxes are read back over IMAP (docs/postfix.md, section 7, lists the checks).
# It all happens in private mount, network and pid namespaces: the install tree (cmake --install with
# DESTDIR) is the upper layer of overlays over /usr, /etc, /var and /run, and a tmpfs /dev has a /dev/log
# that collects everyone's syslog. When the namespace's first process ends, the kernel kills whatever is
# left in it; the scratch directory goes afterwards. Nothing touches the host.
# usage: postfix_e2e.sh BUILD_DIR
#        FERNDROP_SBIN=/usr/sbin postfix_e2e.sh   (a ferndrop a package installed and laid out; tests/package)
# Exit 77: cannot run here (not root, no namespaces); ctest counts it skipped.
set -euo pipefail
umask 022  # the trees made here are read by Postfix's and Dovecot's unprivileged users
sbin=${FERNDROP_SBIN:-/usr/local/sbin}

if [ "${1:-}" != --inside ]; then
    [ -n "${FERNDROP_SBIN:-}" ] || build=$(cd "${1:?usage: postfix_e2e.sh BUILD_DIR}" && pwd)
    [ "$(id -u)" = 0 ] && unshare --mount --net --pid --fork true 2>/dev/null ||
        { echo "postfix_e2e: needs root and namespaces; skipped" >&2; exit 77; }
    T=$(mktemp -d /tmp/ferndrop-postfix-e2e.XXXXXX)
    chmod 0755 "$T"
    trap 'rm -rf "$T"' EXIT
    [ -n "${FERNDROP_SBIN:-}" ] || DESTDIR=$T/upper cmake --install "$build" --prefix /usr/local >/dev/null
    unshare --mount --net --pid --fork --mount-proc --propagation private "$0" --inside "$T"
    exit
fi

T=$2 log=$2/syslog.txt m=/var/qmail/mailnames/example.com
ip link set lo up
for d in /usr /etc /var /run; do
    mkdir -p "$T/upper$d" "$T/work$d"
    mount -t overlay overlay -o "lowerdir=$d,upperdir=$T/upper$d,workdir=$T/work$d" "$d"
done
mkdir "$T/dev" && mount -t tmpfs -o mode=0755,size=16m tmpfs "$T/dev"
for n in null zero full random urandom; do touch "$T/dev/$n" && mount --bind "/dev/$n" "$T/dev/$n"; done
ln -s /proc/self/fd "$T/dev/fd" && mkdir -m 1777 "$T/dev/shm" && mount --move "$T/dev" /dev
python3 -c 'import os, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM); s.bind("/dev/log"); os.chmod("/dev/log", 0o666)
out = open(sys.argv[1], "ab", 0)
while True: out.write(s.recv(65536).rstrip(b"\0\n") + b"\n")' "$log" &
for _ in $(seq 100); do [ -S /dev/log ] && break; sleep 0.05; done
trap 'echo "---- syslog (postfix, dovecot, ferndrop)"; cat "$log"' ERR

[ -n "${FERNDROP_SBIN:-}" ] || { /usr/local/sbin/ferndrop-setup --user popuser >/dev/null
                                 ln -sfn /usr/lib/dovecot /usr/libexec/dovecot; }
# A handler for the whole domain: stamps the recipient it was given and the user it runs as.
h=/usr/local/qrn/handlers/bin/stamp
mkdir -p ${h%/*} && printf '%s\n' '#!/bin/sh' 'printf "X-Ferndrop-Stamp: %s %s\n" "$3" "$(id -un)"' 'exec cat' >$h
chmod 0755 $h && sqlite3 /var/lib/kavra/mail/handlers/handlers.db \
    "INSERT INTO handlers VALUES(2,3,1,10,'stamp','example.com','$h','',0);"
# alice, carol and dave: INBOX through dovecot-lda; bob keeps a copy and forwards; refuse refuses for good.
# gone and gone2 are removed after the recipient table is made (a stale table); slow has a handler that hangs
# until it is fixed.
mkdir -p $m/{alice,carol,dave,refuse,gone,gone2,slow} $m/bob/Maildir/{tmp,new,cur}
printf '%s\n' '#!/bin/sh' '[ -e /usr/local/qrn/handlers/fixed ] || sleep 60' 'exec cat' >${h%/*}/hang
chmod 0755 ${h%/*}/hang && sqlite3 /var/lib/kavra/mail/handlers/handlers.db \
    "INSERT INTO handlers VALUES(2,1,1,10,'hang','slow@example.com','${h%/*}/hang','',0);"
printf '&dave@example.com\n./Maildir/\n' >$m/bob/.qmail
echo '|exit 100' >$m/refuse/.qmail
chown -R popuser:popuser /var/qmail/mailnames

# IMAP for reading back, and the LDA's userdb. The LDA runs as popuser:popuser without supplementary
# groups and must reach the auth and stats sockets.
rm -rf /etc/dovecot/conf.d
cat >/etc/dovecot/dovecot.conf <<'EOF'
protocols = imap lmtp
listen = 127.0.0.1
ssl = no
first_valid_uid = 1
mail_location = maildir:~/Maildir
service auth {
  unix_listener auth-userdb {
    mode = 0660
    group = popuser
  }
}
service lmtp {
  unix_listener lmtp {
    mode = 0666
  }
}
protocol lmtp {
  postmaster_address = postmaster@example.com
}
service stats {
  unix_listener stats-writer {
    mode = 0660
    group = popuser
  }
}
passdb {
  driver = static
  args = password=secret
}
userdb {
  driver = static
  args = uid=popuser gid=popuser home=/var/qmail/mailnames/%d/%n allow_all_users=yes
}
protocol lda {
  postmaster_address = postmaster@example.com
  deliver_log_format = msgid=%m envelope_to=%{to_envelope}: %$
}
EOF
# docs/postfix.md's layout: example.com is a virtual mailbox domain whose recipient table comes from the
# mailnames tree, so unknown addresses are refused at the door; postmaster@ goes through /etc/aliases.
cat >/etc/postfix/main.cf <<'EOF'
compatibility_level = 3.6
myhostname = mx.example.com
mydestination = $myhostname, localhost
alias_maps = hash:/etc/aliases
alias_database = hash:/etc/aliases
virtual_mailbox_domains = example.com
virtual_mailbox_maps = hash:/etc/postfix/ferndrop_recipients
virtual_alias_maps = hash:/etc/postfix/virtual
virtual_transport = ferndrop
recipient_delimiter = +
ferndrop_destination_recipient_limit = 1
EOF
$sbin/ferndrop-setup --recipient-map /var/qmail/mailnames >/etc/postfix/ferndrop_recipients
rm -r $m/gone $m/gone2
echo 'postmaster@example.com postmaster' >/etc/postfix/virtual
echo 'postmaster: alice@example.com' >/etc/aliases
postmap /etc/postfix/ferndrop_recipients /etc/postfix/virtual && newaliases
postconf -M "ferndrop/unix=ferndrop unix - n n - - pipe flags=DRXhu user=popuser:popuser null_sender="\
" argv=$sbin/ferndrop"' -f ${sender} -d ${recipient} -p /var/qmail/mailnames'
postconf -F '*/*/chroot = n'
dovecot
postfix start 2>/dev/null

python3 - "$log" <<'EOF'
import email, imaplib, os, smtplib, subprocess, sys, time
C, log = "carol@example.com", lambda: open(sys.argv[1], errors="replace").read()
cases = {"eightbit": (C, "alice", "Grüße, €100\n".encode() + bytes(range(0x80, 0x100)) + b"\n.\n..a\nBye.\n"),
         "mixedcase": (C, "Alice@Example.COM", b"Case does not matter.\n"),
         "nullsender": ("", "alice", b"A notification with the null sender.\n"),
         "forward": (C, "bob", b"Bob keeps one, Dave gets one.\n"),
         "nullforward": ("", "bob", b"A bounce that bob forwards stays a bounce.\n"),
         "plus": (C, "alice+shop", b"An address extension reaches the base mailbox.\n"),
         "refused": (C, "refuse", b"This one comes back.\n"),
         "postmaster": (C, "postmaster", b"Reaches alice through /etc/aliases.\n"),
         "unknown": (C, "nobody", b"Nobody lives here.\n"),
         "gone": (C, "gone", b"The table still lists gone: ferndrop bounces it.\n"),
         "dropped": (C, "gone2", b"Dropped on request, no bounce.\n"),
         "hang": (C, "slow", b"Delivered once the hanging handler is fixed.\n"),
         "lmtp": (C, "dave+news", b"Into dave's INBOX through Dovecot's LMTP server.\n")}
refused = {}


def send(subjects, until=lambda: not subprocess.run(["postqueue", "-j"], capture_output=True).stdout):
    smtp = smtplib.SMTP("127.0.0.1", local_hostname="client.example.org")
    for subject in subjects:
        sender, rcpt, body = cases[subject]
        rcpt += "" if "@" in rcpt else "@example.com"
        head = "To: %s\nSubject: %s\nMessage-ID: <%s@e2e.example.org>\nMIME-Version: 1.0\nContent-Type: text/plain;" \
               " charset=utf-8\nContent-Transfer-Encoding: 8bit\n\n" % (rcpt, subject, subject)
        try:
            smtp.sendmail(sender, [rcpt], (head.encode() + body).replace(b"\n", b"\r\n"), mail_options=["BODY=8BITMIME"])
        except smtplib.SMTPRecipientsRefused as e:
            refused[subject] = e.recipients[rcpt][0]
    smtp.quit()
    # Postfix holds everything it accepted; once its queue is empty nothing more can arrive.
    for _ in range(300):
        if until():
            break
        time.sleep(0.2)


send([c for c in cases if c not in ("dropped", "hang", "lmtp")])
os.makedirs("/etc/ferndrop", exist_ok=True)
open("/etc/ferndrop/ferndrop.conf", "w").write("unknown_user drop\nhandler_time_limit 2\nstore lmtp:unix:/run/dovecot/lmtp\n")
send(["dropped", "lmtp", "hang"], until=lambda: "status=deferred" in log())
open("/usr/local/qrn/handlers/fixed", "w").close()
subprocess.run(["postqueue", "-f"], check=True)
send([])

problems, got, boxes = [], {}, {}
for box in ["alice", "bob", "carol", "dave", "refuse", "slow"]:
    imap = imaplib.IMAP4("127.0.0.1")
    imap.login(box + "@example.com", "secret")
    imap.select("INBOX", readonly=True)
    boxes[box] = [imap.fetch(n, "(BODY.PEEK[])")[1][0][1].replace(b"\r\n", b"\n")
                  for n in imap.search(None, "ALL")[1][0].split()]
    for raw in boxes[box]:
        head, body = raw.split(b"\n\n", 1)
        head = email.message_from_bytes(head + b"\n\n")
        got.setdefault(box, []).append(head["Subject"])
        if head["Subject"] not in cases:
            continue
        # Postfix writes the null sender, which it hands over as <>, quoted into Return-Path; a forwarded
        # copy went through sendmail again with the envelope sender kept and carries both passes' stamps.
        sender, rcpt, sent = cases[head["Subject"]]
        to = [box + "@example.com", "bob@example.com"] if box == "dave" and rcpt == "bob" else [
            "alice@example.com"] * (rcpt == "postmaster") or [rcpt.lower() + "@example.com" * ("@" not in rcpt)]
        stamps = ["%s popuser" % t for t in to]
        if body != sent or head.get_all("X-Ferndrop-Stamp") != stamps or head["Return-Path"] != "<%s>" % sender:
            problems.append("%s in %s: want the body as sent, stamps %s, Return-Path of %r:\n%s"
                            % (head["Subject"], box, stamps, sender, raw.decode(errors="replace")))
want = {"alice": ["eightbit", "mixedcase", "nullsender", "plus", "postmaster"], "bob": ["forward", "nullforward"],
        "carol": ["Undelivered Mail Returned to Sender"] * 2, "dave": ["forward", "lmtp", "nullforward"], "slow": ["hang"]}
if (got := {box: sorted(subjects) for box, subjects in got.items()}) != want:
    problems.append("stored %s, want %s" % (got, want))
bounce = b"".join(boxes["carol"])
if not all(b in bounce for b in [b"Subject: refused", b"Status: 5.7.1", b"Subject: gone", b"Status: 5.1.1"]):
    problems.append("carol's bounces are not the 5.7.1 one of refused and the 5.1.1 one of gone")
if refused != {"unknown": 550}:
    problems.append("refused at SMTP time: %s, want only unknown, with 550" % refused)
text = log()
problems += ["not in the log: " + s for s in [
    "ferndrop: from=<>, to=alice@example.com", "Unknown user: gone@example.com", "Unknown user: gone2@example.com",
    "/usr/local/qrn/handlers/bin/hang exceeded its time limit of 2 seconds; killed",
    "LMTP lmtp:unix:/run/dovecot/lmtp: 250 2.0.0 <dave@example.com>",
    "msgid=<plus@e2e.example.org> envelope_to=alice+shop@example.com: saved mail to INBOX"] if s not in text]
problems += ["Postfix deferred a delivery other than the hanging one"] * any(
    "status=deferred" in l and "slow@example.com" not in l for l in text.splitlines())
problems += ["spool not empty: %s" % f for f in os.listdir("/usr/local/qrn/handlers/spool")]
if problems:
    sys.exit("postfix_e2e: FAILED\n" + "\n".join(problems))
print("postfix_e2e: %d messages sent, 1 refused, %d stored, all as expected" % (len(cases), sum(map(len, got.values()))))
EOF
