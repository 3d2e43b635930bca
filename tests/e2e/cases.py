"""The delivery as the transfer agent sees it: one row per case (fixture, command line, input) with the exit status,
status line, log lines and stores it must leave. Cases that need more than one run follow the table."""
import os, sqlite3, subprocess, time
from harness import BIN, MSG, KEY, R, S, SPOOL, STATE, REGISTRY, check, expect, main

P = "{p}"  # the mailnames directory, in args
USAGE = '5 ferndrop usage: ferndrop -f <sender> -d <recipient> -p <mailnames dir>'
HOSTILE = b"Subject: \x00\xff\r\n\r\n\x00no final newline"
STAMP = 'echo "X-$(basename $0): 1"; cat'  # a handler passing the message on under a header of its own


def row(status, *logs, args=None, rcpt=R, msg=MSG, qmail=None, qmode=0o644, h=(), files=(), rm=(), env=(),
        out=None, setup=lambda w: None, then=lambda w, r: None):
    """One case; "{d}" in handler bodies and the .qmail stands for the case's own directory."""
    def case(w):
        for type_, address, body, *more in h:
            w.handler(type_, address, body.replace("{d}", w.dir), *more)
        for p, content, *mode in files:
            w.write(p, content, *mode)
        if qmail is not None:
            w.write(".qmail", qmail.replace("{d}", w.dir), qmode)
        for p in rm:
            subprocess.run(["rm", "-rf", w.path(p)], check=True)
        setup(w)
        a = [x.replace(P, w.mailnames) for x in args] if args else None
        r = w.run(a, msg=msg, rcpt=rcpt, env=env)
        expect(r, status, *[l.replace(P, w.mailnames) for l in logs], out=out)
        then(w, r)
    return case


def delivered(w, want):
    check(w.read("out") == want, f"delivered {w.read('out')!r}, wanted {want!r}")


def new(w):
    return [w.read(f) for f in w.files("Maildir/new")]


def deliver_all(w, r):
    """.qmail grammar: comments, blanks, "&" with blanks kept, a note after an address, a dir-like address, a
    program with blanks around it, maildir, mbox relative and absolute, the last line without a line feed."""
    argv = [c["argv"] for c in w.calls()]
    want = [f"-i\n-bm\n-f\n{S}\n{d}\n" for d in ("  spaced@example.net", "plain@example.net", "dir/")]
    check(argv == want, f"sendmail argv {argv}")
    check(w.read("out") == MSG and new(w) == [MSG] and w.read("mbox") == MSG + "\n", "stores")
    check(w.read(w.dir + "/abs.mbox") == MSG + "\n" and w.record() is None and os.path.exists(STATE), "abs/state")


def forward_env(w, r):
    [c] = w.calls()
    check(c["argv"] == f"-i\n-bm\n-f\n{S}\n-t\n" and c["stdin"] == MSG and c["fds"] == "0 1 2 ", f"call {c}")
    check(f"QX_SENDER_EMAIL={R}\n" in c["env"] and f"DELIVERED_TO={R}\n" in c["env"], c["env"])
    check(w.read("before") == "[preset]\n" and w.read("after") == "[unset]\n", "QX_SENDER_EMAIL around the forward")


def agent_call(w, r):
    [c] = w.calls("/usr/libexec/dovecot/dovecot-lda")
    check(c["argv"] == "-d\nAlice@Example.COM\n" and c["stdin"] == MSG and c["fds"] == "0 1 2 ", f"agent {c}")


CASES = {
    # Command line and recipient
    "usage_unknown_option": row(64, '2 ferndrop usage error: "invalid option -x"', USAGE,
                                args=["-x", "-f", S, "-d", R, "-p", P]),
    "usage_extra_argument": row(64, '2 ferndrop usage error: "extra arguments"', args=["-f", S, "-d", R, "-p", P, "x"]),
    "usage_empty_sender": row(64, '2 ferndrop usage error: "unspecified -f <sender>"', args=["-f", "", "-d", R, "-p", P]),
    "usage_no_recipient": row(64, '2 ferndrop usage error: "unspecified -d <recipient>"', args=["-f", S, "-p", P]),
    "usage_empty_mailnames": row(64, '2 ferndrop usage error: "unspecified -p <mailnames dir>"',
                                 args=["-f", S, "-d", R, "-p", ""]),
    "later_option_wins": row(0, f"6 ferndrop: from=second@a, to={R}, dirname={P}", args=["-f", "a@b", "-f", "second@a",
                                                                                        "-d", R, "-p", P]),
    "recipient_without_domain": row(65, "3 Invalid e-mail address - no domain part: alice", rcpt="alice"),
    "recipient_501_accepted": row(0, "3 Unknown user: " + "a" * 489 + "@example.com", rcpt="a" * 489 + "@example.com"),
    "recipient_502_refused": row(65, "3 Invalid e-mail address - too long: " + "a" * 490 + "@example.com",
                                 rcpt="a" * 490 + "@example.com"),
    "spool_missing": row(75, "3 Unable to read message from stdin", rm=[SPOOL],
                         out="4.6.0 Unable to read message content\n"),
    # Mailbox directory: caseless match, nothing outside the tree, unknown users dropped
    "caseless_mailbox": row(0, rcpt="ALICE@Example.Com", qmail="|cat > out\n", then=lambda w, r: delivered(w, MSG)),
    "unknown_domain": row(0, "3 Unknown user: alice@example.net", rcpt="alice@example.net"),
    "empty_domain": row(0, "3 Unknown user: alice@", rcpt="alice@"),
    "slash_in_domain": row(0, "3 bad entry ../example.com/alice (contains /)", "3 Unknown user: x@../example.com/alice",
                           rcpt="x@../example.com/alice"),
    "dotdot_mailname": row(0, "3 Unknown user: ..@example.com", rcpt="..@example.com", qmail="|cat > out\n",
                           files=[("../.qmail", "|cat > /tmp/escaped\n")],
                           then=lambda w, r: check(not os.path.exists("/tmp/escaped"), "left the tree")),
    "caseless_symlink_not_followed": row(0, "3 Unknown user: Bob@example.com", rcpt="Bob@example.com",
                                         then=lambda w, r: check(not new(w), "delivered through a link"),
                                         setup=lambda w: os.symlink("alice", w.path("../bob"))),
    # .qmail lines
    "all_line_kinds": row(0, qmail="# note\n\n  \t \n&  spaced@example.net\nplain@example.net   # note\ndir/\n"
                             "|   cat > out   \n./Maildir/\n./mbox\n{d}/abs.mbox", then=deliver_all),
    "forward_environment": row(0, env=[("QX_SENDER_EMAIL", "preset")], then=forward_env,
                               qmail='|echo "[${QX_SENDER_EMAIL-unset}]" > before\n&\n'
                                     '|echo "[${QX_SENDER_EMAIL-unset}]" > after\n'),
    "sendmail_fails": row(75, "3 Unable to forward original message. sendmail status: 75",
                          "3 Unable to send mail for: bob@example.net\n", setup=lambda w: w.recorder(
                              "/usr/sbin/sendmail", 75), qmail="./mbox\n&bob@example.net\n./Maildir/\n",
                          then=lambda w, r: check(w.record() == "./mbox\n" and not new(w), "record")),
    "no_message_id": row(0, "4 deliveryManager: Get empty message id, delivery state will be disabled for this mail",
                         msg="Subject: x\n\nbody\n", qmail="./Maildir/\n./Maildir/\n",
                         then=lambda w, r: check(len(new(w)) == 2 and not os.path.exists(STATE), "no key")),
    "qmail_group_writable": row(75, "3 File .qmail is writable for group or others\n", "3 Wrong permissions for .qmail",
                                qmail="./Maildir/\n", qmode=0o664),
    "qmail_x_bit": row(75, qmail="&bob@example.net\n./Maildir/\n", qmode=0o744,
                       then=lambda w, r: check(r.err == b".qmail has prog delivery but has x bit set. (#4.7.0)\n"
                                               and len(w.calls()) == 1 and w.record() == "&bob@example.net\n", "x bit")),
    "program_exit_77": row(77, qmail="|exit 77\n"),
    "program_exit_100": row(71, qmail="|exit 100\n"),
    "program_exit_99_stops": row(0, qmail="./Maildir/\n|exit 99\n./mbox\n",
                                 then=lambda w, r: check(len(new(w)) == 1 and not os.path.exists(w.path("mbox")), "99")),
    "program_killed": row(75, qmail="|kill -9 $$\n./Maildir/\n", then=lambda w, r: check(not new(w), "went on")),
    "mbox_unopenable": row(75, "3 Unable to open ./nodir/mbox: No such file or directory. (#4.2.1)\n",
                           qmail="./nodir/mbox\n"),
    "maildir_without_tmp": row(75, qmail="./Maildir/\n", rm=["Maildir/tmp"]),
    "hostile_bytes_kept": row(0, msg=HOSTILE, qmail="./Maildir/\n./mbox\n",
                              then=lambda w, r: check([open(f, "rb").read() for f in w.files("Maildir/new") + [
                                  w.path("mbox")]] == [HOSTILE, HOSTILE + b"\n"], "bytes changed")),
    "torn_state_database": row(0, f"3 init: cannot open delivery database {STATE}: invalid meta data",
                               files=[(STATE, "HDB\x00garbage" * 100)], qmail="./Maildir/\n",
                               then=lambda w, r: check(len(new(w)) == 1, "not delivered")),
    # The store's delivery agent for INBOX
    "inbox_through_agent": row(0, rcpt="Alice@Example.COM", then=agent_call),
    "agent_over_quota": row(77, files=[("/usr/libexec/dovecot/dovecot-lda", "#!/bin/sh\nexit 77\n", 0o755)]),
    "agent_permanent": row(71, files=[("/usr/libexec/dovecot/dovecot-lda", "#!/bin/sh\nexit 65\n", 0o755)]),
    "agent_temporary": row(75, files=[("/usr/libexec/dovecot/dovecot-lda", "#!/bin/sh\nexit 75\n", 0o755)]),
    # Handlers
    "handlers_in_order": row(0, qmail="|cat > out\n", h=[
        (4, "all", STAMP, 20, 1, "c", "all20"), (4, "all", STAMP, 10, 1, "c", "all10"),
        (4, "all-recipients", STAMP, 0, 1, "c", "allrcpt"), (3, "example.com", STAMP, 0, 1, "c", "rdomain"),
        (2, "example.org", STAMP, 0, 1, "c", "sdomain"), (1, R, STAMP, 0, 1, "c", "recipient"),
        (0, S, STAMP, 0, 1, "c", "sender"), (0, S, STAMP, 0, 0, "c", "disabled"), (1, "Alice@example.com", STAMP)],
        then=lambda w, r: delivered(w, "".join(f"X-{n}: 1\n" for n in
                                             "all20 all10 allrcpt rdomain sdomain recipient sender".split()) + MSG)),
    "handler_protocol": row(0, qmail="|cat > out\n", h=[(1, R, 'printf "%s|" "$0" "$@" > {d}/seen; '
                                                         'echo "$DELIVERED_TO"; cat; echo SKIP >&2', 0, 1, "the ctx")],
                            then=lambda w, r: delivered(w, MSG) or check(w.read(w.dir + "/seen") == (
                                f"{w.dir}/handlers/h1|the ctx|{S}|{R}|"), "argv")),
    "handler_skip_blank_passes": row(0, qmail="|cat > out\n", h=[(1, R, "echo junk; echo SKIP >&2", 1),
                                                                 (1, R, "echo X-B: 1; cat; echo 'SKIP ' >&2", 2)],
                                     then=lambda w, r: delivered(w, "X-B: 1\n" + MSG)),
    "handler_stop": row(0, "5 message discarded by a mail handler", qmail="|cat > out\n",
                        h=[(1, R, "echo junk; echo 'STOP spam' >&2; echo REJECT >&2"), (4, "all", "touch ran")],
                        then=lambda w, r: check(not os.path.exists(w.path("out")) and not os.path.exists(
                            w.dir + "/ran"), "went on")),
    "handler_defer": row(75, h=[(1, R, "echo 'DEFER 4.2.2' >&2; exit 1")], out="4.4.5 Mail system is congested\n"),
    "handler_reject": row(69, h=[(1, R, "echo REJECT >&2; exit 1")]),
    "handlers_broken_passed_over": row(0, "3 Error during 'h1' handler", "3  said", "3 Error during 'h2' handler",
                                       "3 Error during 'h3' handler", qmail="|cat > out\n", h=[
                                           (1, R, "echo partial; echo 'LOG said' >&2; exit 3", 1),
                                           (1, R, "echo partial; echo STOP >&2; kill -9 $$", 2),
                                           (1, R, "exit 255", 3), (1, R, STAMP, 4, 1, "c", "good")],
                                       then=lambda w, r: delivered(w, "X-good: 1\n" + MSG)),
    "registry_without_table": row(0, qmail="|cat > out\n", files=[(REGISTRY, b"")],
                                  then=lambda w, r: delivered(w, MSG)),
    "registry_missing": row(75, f"3 Unable to open database(readonly) {REGISTRY}: unable to open database file",
                            "3 Unable to get full handlers list", rm=[os.path.dirname(REGISTRY)],
                            out="4.1.0 Mail subsystem unspecified errors\n"),
}


def retry_skips_served_lines(w):
    w.write(".qmail", "&bob@example.net\n./Maildir/\n|test -e go || exit 75\n./mbox\n")
    expect(w.run(), 75)
    check(w.record() == "&bob@example.net\n./Maildir/\n" and len(w.calls()) == 1 and len(new(w)) == 1, "first")
    w.write("go", "")
    expect(w.run(), 0)
    check(w.record() is None and len(w.calls()) == 1 and len(new(w)) == 1 and w.read("mbox") == MSG + "\n", "retry")


def locked_registry_is_waited_for(w):
    w.handler(1, R, STAMP)
    w.write(".qmail", "|cat > out\n")
    db = sqlite3.connect(REGISTRY, isolation_level=None)
    db.execute("BEGIN EXCLUSIVE")
    p = subprocess.Popen([BIN, "-f", S, "-d", R, "-p", w.mailnames],
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    p.stdin.write(MSG.encode()), p.stdin.close()
    time.sleep(0.5)
    check(p.poll() is None, "did not wait for the locked registry")
    db.execute("COMMIT")
    check(p.wait(30) == 0, "failed after the lock went")
    delivered(w, "X-h1: 1\n" + MSG)


CASES.update(retry_skips_served_lines=retry_skips_served_lines, locked_registry=locked_registry_is_waited_for)

if __name__ == "__main__":
    main(CASES)
