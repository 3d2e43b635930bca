"""The delivery as the transfer agent sees it: one row per case (fixture, command line, input) with the exit status,
status line, log lines and stores it must leave. Cases that need more than one run follow the table."""
import fcntl, grp, json, os, re, resource, sqlite3, subprocess, sys, time
from harness import BIN, MSG, KEY, R, S, SPOOL, STATE, REGISTRY, check, expect, main
from sweeps import JOB, job

P = "{p}"  # the mailnames directory, in args
READ = "4.6.0 Unable to read message content\n"
LDA, COURIER = "/usr/libexec/dovecot/dovecot-lda", "/usr/bin/deliverquota"
EXPLAIN = os.path.join(os.path.dirname(BIN), "ferndrop-explain")
HANDLERS = os.path.join(os.path.dirname(BIN), "ferndrop-handlers")
STRACE = ["strace", "-o", "/dev/null", "-e"]
FSIZE = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, resource.RLIM_INFINITY))
USAGE = '5 ferndrop usage: ferndrop -f <sender> -d <recipient> -p <mailnames dir>'
HOSTILE = b"Subject: \x00\xff\r\n\r\n\x00no final newline"
STAMP = 'echo "X-$(basename $0): 1"; cat'  # a handler passing the message on under a header of its own


def row(status, *logs, args=None, rcpt=R, msg=MSG, qmail=None, qmode=0o644, h=(), files=(), rm=(), env=(),
        out=None, pre=(), preexec=None, setup=lambda w: None, then=lambda w, r: None):
    """One case; "{d}" in handler bodies, files and the .qmail stands for the case's own directory."""
    def case(w):
        for type_, address, body, *more in h:
            w.handler(type_, address, body.replace("{d}", w.dir), *more)
        for p, content, *mode in files:
            w.write(p.replace("{d}", w.dir), content.replace("{d}", w.dir) if isinstance(content, str) else content,
                    *mode)
        if qmail is not None:
            w.write(".qmail", qmail.replace("{d}", w.dir), qmode)
        for p in rm:
            subprocess.run(["rm", "-rf", w.path(p)], check=True)
        setup(w)
        a = [x.replace(P, w.mailnames) for x in args] if args else None
        # Injected faults, limits and usage errors are nothing explain can see.
        told = predict(w, a or ["-f", S, "-d", rcpt, "-p", w.mailnames], msg) if not (pre or preexec or status == 64) \
            else None
        r = w.run(a, msg=msg, rcpt=rcpt, env=env, pre=pre, preexec=preexec, timeout=20)
        expect(r, status, *[l.replace(P, w.mailnames) for l in logs], out=out)
        if told:
            agrees(told, r)
        then(w, r)
    return case


def predict(w, args, msg, timeout=20, env=None):
    """ferndrop-explain's ending for the delivery about to run, on the same fixture and message."""
    w.write(w.dir + "/explained", msg)
    p = subprocess.run([EXPLAIN, *args, "--json", w.dir + "/explained"], capture_output=True, timeout=timeout,
                       env=env and {**os.environ, **env})
    check(p.returncode == 0, f"explain failed: {p.stderr[-300:]!r}")
    return json.loads(p.stdout)


def agrees(told, r):
    """The delivery ended as explain said, or, where explain assumed something that runs would succeed, a run's
    failure shows in the summary line; the .qmail lines and the store were met as explain said."""
    ends = told["ends"]
    check(ends is not None, "explain named no ending", r)
    summary_ = dict(re.findall(r" ?(\w+)=(\S*)", next((l[2:] for l in r.log if " outcome=" in l), "")))
    got = (r.status, summary_.get("outcome"))
    failed = re.search(r"[:,=](ERROR|STOP|REJECT|DEFER|failed|stopped)\b|store=[^ ]*:[1-9-]", " ".join(
        f"{k}={v}" for k, v in summary_.items()))
    check(got == (ends["status"], ends["outcome"]) or (ends.get("assumes_success") and failed),
          f"explain said exit {ends['status']} {ends['outcome']}, the delivery {got}", r)
    check(("store" in summary_) == (ends["stage"] == "store") or failed, f"explain ended at {ends['stage']}", r)
    verdicts = {str(l["number"]): (l["kind"], l["verdict"]) for l in told["qmail"]["lines"]}
    for n, kind, word in re.findall(r"(\d+):(\w+):(\w+)", summary_.get("qmail", "")):
        want = {"served": "runs", "failed": "runs", "stopped": "runs"}.get(word, word)
        check(verdicts.get(n) == (kind, want), f"line {n}: explain {verdicts.get(n)}, delivery {kind}:{word}", r)


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


def summary(*items):
    """A check that the run ends with the summary line made of these key=value items."""
    def then(w, r):
        last = re.sub(r" duration_ms=\d+$", "", r.log[-1])
        check(last == "6 " + " ".join(items), f"summary {last!r}", r)
    return then


def known(w, r):
    check(not [l for l in r.log if "Unknown user" in l], "dropped as an unknown user", r)


def stopped_agent_reaped(w, r):
    pid = int(w.read(w.dir + "/pid"))
    alive = os.path.exists(f"/proc/{pid}") and open(f"/proc/{pid}/stat").read().split()[2] != "Z"
    os.kill(pid, 9) if alive else None
    check(not alive, "the stopped agent was left behind")


def agent_call(w, r):
    [c] = w.calls("/usr/libexec/dovecot/dovecot-lda")
    check(c["argv"] == "-d\nalice@example.com\n" and c["stdin"] == MSG and c["fds"] == "0 1 2 ", f"agent {c}")
    check("DELIVERED_TO=alice@example.com\n" in c["env"], "the agent's DELIVERED_TO")


CASES = {
    # Command line and recipient
    "usage_unknown_option": row(64, '2 ferndrop usage error: "invalid option -x"', USAGE,
                                args=["-x", "-f", S, "-d", R, "-p", P]),
    "usage_extra_argument": row(64, '2 ferndrop usage error: "extra arguments"', args=["-f", S, "-d", R, "-p", P, "x"]),
    "usage_no_recipient": row(64, '2 ferndrop usage error: "unspecified -d <recipient>"', args=["-f", S, "-p", P]),
    "usage_empty_mailnames": row(64, '2 ferndrop usage error: "unspecified -p <mailnames dir>"',
                                 args=["-f", S, "-d", R, "-p", ""]),
    "null_sender": row(75, f"6 ferndrop: from=<>, to={R}, dirname={P}", args=["-f", "", "-d", R, "-p", P],
                       qmail="&bob@example.net\n|exit 75\n", h=[(2, "example.org", "echo $2 > {d}/seen; exec cat")],
                       then=lambda w, r: check(w.record(f"<job.1@example.org> <> {R}") == "&bob@example.net\n" and
                                               "-f\n<>\n" in w.calls()[0]["argv"] and " from=<> " in r.log[-1] and
                                               not [l for l in r.log if l.startswith("3 ")], "null sender", r)),
    "later_option_wins": row(0, f"6 ferndrop: from=second@a, to={R}, dirname={P}", args=["-f", "a@b", "-f", "second@a",
                                                                                        "-d", R, "-p", P]),
    "recipient_without_domain": row(65, "3 Invalid e-mail address - no domain part: alice", rcpt="alice"),
    "recipient_501_accepted": row(67, "3 Unknown user: " + "a" * 489 + "@example.com", rcpt="a" * 489 + "@example.com"),
    "recipient_502_refused": row(65, "3 Invalid e-mail address - too long: " + "a" * 490 + "@example.com",
                                 rcpt="a" * 490 + "@example.com"),
    "spool_missing": row(75, "3 Unable to read message from stdin", rm=[SPOOL],
                         out="4.6.0 Unable to read message content\n"),
    # Mailbox directory: caseless match, nothing outside the tree, unknown users bounced (or dropped on request)
    "caseless_mailbox": row(0, "6 recipient ALICE@Example.Com. is delivered as ALICE@example.com",
                            rcpt="ALICE@Example.Com.", qmail="|cat > out\n", then=lambda w, r: delivered(w, MSG),
                            files=[("/etc/ferndrop/ferndrop.conf", "fold_recipient_case no\n")]),
    "unknown_domain": row(67, "3 Unknown user: alice@example.net", '4 /etc/ferndrop/ferndrop.conf: invalid value '
                          '"sometimes" for unknown_user; the default bounce is used', rcpt="alice@example.net",
                          files=[("/etc/ferndrop/ferndrop.conf", "unknown_user sometimes\n")]),
    "unknown_dropped_on_request": row(0, "3 Unknown user: alice@", rcpt="alice@",
                                      files=[("/etc/ferndrop/ferndrop.conf", "unknown_user drop # no bounces\n")]),
    "slash_in_domain": row(67, "3 bad entry ../example.com/alice (contains /)", "3 Unknown user: x@../example.com/alice",
                           rcpt="x@../example.com/alice"),
    "dotdot_mailname": row(67, "3 Unknown user: ..@example.com", rcpt="..@example.com", qmail="|cat > out\n",
                           files=[("../.qmail", "|cat > {d}/escaped\n")],
                           then=lambda w, r: check(not os.path.exists(w.dir + "/escaped"), "left the tree")),
    # Every caseless candidate counts, a link to a directory too, and the smallest name wins every time
    "caseless_candidates": row(0, "4 several directories match bob without regard to case (BOB, Bob); taking BOB",
                               rcpt="bob@example.com", files=[("../Bob/.qmail", "|cat > out\n")],
                               then=lambda w, r: check(len(w.calls(LDA)) == 1 and not os.path.exists(
                                   w.path("../Bob/out")), "not delivered through the link"),
                               setup=lambda w: os.symlink("alice", w.path("../BOB"))),
    "caseless_look_fails": row(75, "3 cannot look at an entry matching bob: Too many levels of symbolic links",
                               rcpt="bob@example.com", setup=lambda w: os.symlink("BOB", w.path("../BOB"))),
    # .qmail lines
    "all_line_kinds": row(0, qmail="# note\n\n  \t \n&  spaced@example.net\nplain@example.net   # note\ndir/\n"
                             "|   cat > out   \n./Maildir/\n./mbox\n{d}/abs.mbox", then=deliver_all),
    "forward_environment": row(0, env=[("QX_SENDER_EMAIL", "preset")], then=forward_env,
                               pre=["sh", "-c", 'exec 7>&2 "$@"', "-"],  # a descriptor the transfer agent left open
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
    "program_exit_100": row(71, "4 program exited 100: exit 100", qmail="|exit 100\n"),
    "program_exit_99_stops": row(0, qmail="./Maildir/\n|exit 99\n./mbox\n",
                                 then=lambda w, r: check(len(new(w)) == 1 and not os.path.exists(w.path("mbox")), "99")),
    "program_killed": row(75, "4 program killed by signal 9: kill -9 $$", qmail="|kill -9 $$\n./Maildir/\n", then=lambda w, r: check(not new(w), "went on")),
    "mbox_unopenable": row(75, "3 Unable to open ./nodir/mbox: No such file or directory. (#4.2.1)\n",
                           qmail="./nodir/mbox\n"),
    "maildir_without_tmp": row(75, qmail="./Maildir/\n", rm=["Maildir/tmp"]),
    "hostile_bytes_kept": row(0, msg=HOSTILE, qmail="./Maildir/\n./mbox\n",
                              then=lambda w, r: check([open(f, "rb").read() for f in w.files("Maildir/new") + [
                                  w.path("mbox")]] == [HOSTILE, HOSTILE + b"\n"], "bytes changed")),
    "torn_state_database": row(0, f"3 init: cannot open delivery database {STATE}: invalid meta data",
                               files=[(STATE, "HDB\x00garbage" * 100)], qmail="./Maildir/\n",
                               then=lambda w, r: check(len(new(w)) == 1, "not delivered")),
    # Faults that once dropped, bounced, hung or duplicated mail
    "file_size_limit_mbox": row(75, "3 Unable to write data to mailbox: File too large\n", qmail="./mbox\n",
                                files=[("mbox", "o" * 1040000)], msg="S: x\n\n" + "b" * 20000, preexec=FSIZE,
                                then=lambda w, r: check(os.path.getsize(w.path("mbox")) == 1040000, "no rollback")),
    "file_size_limit_spool": row(75, "3 Unable to read message from stdin", msg="b" * 1100000, preexec=FSIZE, out=READ),
    "stdin_closed": row(75, "3 Unable to read message from stdin", preexec=lambda: os.close(0), out=READ),
    "stdout_stderr_closed": row(75, qmail="&bob@example.net\n./missing/mbox\n", out="",
                                preexec=lambda: (os.close(1), os.close(2)),
                                then=lambda w, r: check([c["fds"] for c in w.calls()] == ["0 1 2 "], "descriptors")),
    "qmail_fifo": row(75, "3 File .qmail is not a regular file\n", "3 Wrong permissions for .qmail",
                      setup=lambda w: os.mkfifo(w.path(".qmail"), 0o644), then=lambda w, r: check(not w.calls(LDA), "")),
    "mbox_fifo": row(75, "3 Unable to open ./mbox: not a regular file. (#4.2.1)\n", qmail="./mbox\n",
                     setup=lambda w: os.mkfifo(w.path("mbox"), 0o644)),
    "mailnames_missing": row(75, "3 cannot chdir to mailnames dir /none: No such file or directory", then=known,
                             args=["-f", S, "-d", R, "-p", "/none"]),
    "agent_missing": row(75, "3 Unable to detect IMAP/POP3 server type - no LDA found", setup=lambda w: os.unlink(LDA)),
    "agent_killed": row(75, files=[(LDA, "#!/bin/sh\ncat > /dev/null; kill -9 $$\n", 0o755)]),
    "agent_stopped": row(75, files=[(LDA, "#!/bin/sh\necho $$ > {d}/pid; exec >&- 2>&-; kill -STOP $$\n", 0o755)],
                         then=stopped_agent_reaped),
    "qmail_empty_means_inbox": row(0, qmail="", then=lambda w, r: check(len(w.calls(LDA)) == 1, "not in INBOX")),
    "handler_long_line_forges_nothing": row(0, qmail="./Maildir/\n", files=[("{d}/echoed", "S: " + "x" * 4092 +
                                                                               "STOP forged\n")],
                                            h=[(4, "all", "cat {d}/echoed >&2; exec cat")],
                                            then=lambda w, r: check(new(w) == [MSG], "discarded by a forged STOP")),
    "handler_nul_hides_nothing": row(69, qmail="./Maildir/\n", files=[("{d}/answer", "x\0y\nREJECT 5.7.1 spam\n")],
                                     h=[(4, "all", "cat {d}/answer >&2")]),
    "forward_option_refused": row(75, "3 Unable to forward original message: destination -oQ/tmp/x starts with '-'",
                                  qmail="&-oQ/tmp/x\n", then=lambda w, r: check(not w.calls(), "sendmail ran")),
    # The summary line, one per outcome
    "summary_bounced": row(71, qmail="./mbox\n|exit 100\n", h=[(4, "all", "echo SKIP >&2")], then=summary(
        f"to={R} from={S} message_id=<Job.1@Example.ORG> outcome=bounced status=71 code=5.7.1 handlers=h1:SKIP",
        "qmail=1:mbox:served,2:program:failed")),
    "summary_discarded": row(0, h=[(4, "all", "echo STOP >&2")], then=summary(
        f"to={R} from={S} message_id=<Job.1@Example.ORG> outcome=discarded status=0 code=2.0.0 handlers=h1:STOP")),
    "summary_unknown_user": row(67, rcpt="bob@example.com", then=summary(
        f"to=bob@example.com from={S} message_id=<Job.1@Example.ORG> outcome=unknown-user status=67 code=5.1.1")),
    # The store's delivery agent for INBOX
    "inbox_through_agent": row(0, "6 recipient Alice@Example.COM. is delivered as alice@example.com",
                               rcpt="Alice@Example.COM.", then=agent_call),
    "courier_preferred_store_path": row(0, rcpt="Alice@Example.COM", setup=lambda w: w.recorder(COURIER), files=[
        ("/etc/qrn/qrn.conf", "KAVRA_MAILNAMES_D /old\n# moved\nKAVRA_MAILNAMES_D\t/srv/store  # here\n")],
        then=lambda w, r: check([c["argv"] for c in w.calls(COURIER)] == ["/srv/store/example.com/alice/Maildir\n"]
                                and not w.calls(LDA), "agent")),
    "courier_store_path_too_long": row(71, setup=lambda w: w.recorder(COURIER), files=[
        ("/etc/qrn/qrn.conf", "KAVRA_MAILNAMES_D /" + "r" * 4070 + "\n")],
        then=lambda w, r: check(not w.calls(COURIER), "a cut path was used")),
    "agent_not_a_file": row(75, "3 Unable to detect IMAP/POP3 server type - LDA is present at '/usr/libexec/dovecot/"
                                "dovecot-lda' but is not a regular file or is not executable",
                            setup=lambda w: (os.unlink(LDA), os.mkdir(LDA))),
    "program_line_8194": row(0, qmail="|: " + "x" * 8192 + "\n"),
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
                                             "all20 all10 allrcpt rdomain sdomain h9 recipient sender".split()) + MSG)),
    "handler_protocol": row(0, qmail="|cat > out\n", h=[(1, R, 'printf "%s|" "$0" "$@" > {d}/seen; '
                                                         'echo "$DELIVERED_TO"; cat; echo SKIP >&2', 0, 1, "the ctx")],
                            then=lambda w, r: delivered(w, MSG) or check(w.read(w.dir + "/seen") == (
                                f"{w.dir}/handlers/h1|the ctx|{S}|{R}|"), "argv")),
    "handler_output_kept_private": row(0, h=[(1, R, STAMP, 1),
                                             (1, R, "stat -Lc %a /proc/$$/fd/0 > {d}/mode; echo SKIP >&2", 2)],
                                       then=lambda w, r: check(w.read(w.dir + "/mode") == "600\n", "spool mode")),
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
                                       "3 Error during 'h3' handler", "3 Error during 'gone' handler",
                                       qmail="|cat > out\n", h=[
                                           (1, R, "echo partial; echo 'LOG said' >&2; exit 3", 1),
                                           (1, R, "echo partial; echo STOP >&2; kill -9 $$", 2),
                                           (1, R, "exit 255", 3), (1, R, STAMP, 4, 1, "c", "good")],
                                       setup=lambda w: sqlite3.connect(REGISTRY, isolation_level=None).execute(
                                           "INSERT INTO handlers VALUES (2,1,1,3,'gone',?,'/none','',0)", (R,)),
                                       then=lambda w, r: delivered(w, "X-good: 1\n" + MSG)),
    "registry_without_table": row(0, qmail="|cat > out\n", files=[(REGISTRY, b"")],
                                  then=lambda w, r: delivered(w, MSG)),
    "registry_missing": row(75, f"3 Unable to open database(readonly) {REGISTRY}: unable to open database file",
                            "3 Unable to get full handlers list", rm=[os.path.dirname(REGISTRY)],
                            out="4.1.0 Mail subsystem unspecified errors\n"),
}


def address_extensions(w):
    """alice+shop@ reaches alice's INBOX with the full address as the agent's original recipient and EXTENSION for
    the children; alice's filters run for it; a mailbox named alice+x wins over alice; no delimiter, no extension."""
    w.handler(1, R, 'echo "$3 $EXTENSION" >> {d}/seen; echo SKIP >&2'.replace("{d}", w.dir))
    r = w.run(rcpt="alice+shop@example.com")
    expect(r, 0)
    [c] = w.calls(LDA)
    check(c["argv"] == f"-d\n{R}\n-a\nalice+shop@example.com\n" and "EXTENSION=shop\n" in c["env"], f"agent {c}")
    check(w.read(w.dir + "/seen") == "alice+shop@example.com shop\n" and f" mailbox={R} " in r.log[-1], "handler", r)
    w.write("../alice+x/.qmail", "|cat > out\n")
    expect(w.run(rcpt="alice+x@example.com"), 0)
    check(w.read("../alice+x/out") == MSG and len(w.calls(LDA)) == 1, "literal mailbox")
    w.write("/etc/ferndrop/ferndrop.conf", "recipient_delimiter none\n")
    expect(w.run(rcpt="alice+shop@example.com"), 67, "3 Unknown user: alice+shop@example.com")


def settings_documented(w):
    """Every setting explain prints is shipped, commented out at its default, and has its manual entry."""
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    shipped = dict(re.findall(r"^#(\w+) (.*)$", open(root + "/debian/ferndrop.conf").read(), re.M))
    told = predict(w, ["-f", S, "-d", R, "-p", w.mailnames], MSG)["settings"]
    manual = open(root + "/docs/ferndrop.8").read()
    check(shipped == {k: v["value"] for k, v in told.items()}, f"shipped {shipped}, explain {told}")
    check(all(f".B {k}" in manual for k in told), "a setting without its manual entry")


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


def setup_layout(w):
    """ferndrop-setup lays out a private spool, a readable registry directory and the registry's group."""
    setup = os.path.join(os.path.dirname(BIN), "ferndrop-setup")
    check(subprocess.run([setup, "--root", w.dir + "/root", "--user", "popuser"], capture_output=True).returncode == 0,
          "setup failed")
    modes = {p: oct(os.stat(w.dir + "/root" + p).st_mode & 0o7777) for p in (SPOOL, os.path.dirname(REGISTRY),
                                                                           REGISTRY, os.path.dirname(STATE))}
    check(list(modes.values()) == ["0o750", "0o755", "0o640", "0o750"], f"modes {modes}")


def handlers_command(w):
    """ferndrop-handlers lays a missing registry out as setup does, lists each address's handlers in the order a
    delivery runs them (disabled ones marked off), and a disabled handler stops running."""
    tool = lambda *a: w.run(list(a), bin=HANDLERS)
    os.unlink(REGISTRY)
    subprocess.run("getent group popuser || groupadd --system popuser", shell=True, check=True, capture_output=True)
    w.write(".qmail", "|cat > out\n")
    for kind, address, name, prio in [("recipient", "Alice@example.com", "late", "20"), ("global", "all", "glob", "0"),
                                      ("recipient", R, "early", "10"), ("recipient", R, "off", "5")]:
        w.write(f"{w.dir}/{name}", "#!/bin/sh\n" + STAMP, 0o755)
        expect(tool("add", "--priority", prio, *["--disabled"][:name == "off"], kind, address, name, f"{w.dir}/{name}",
                    "c"), 0)
    st = os.stat(REGISTRY)
    check((oct(st.st_mode & 0o7777), st.st_uid, grp.getgrgid(st.st_gid).gr_name) == ("0o640", 0, "popuser"), "mode")
    check(tool("add", "recipient", R, "off", f"{w.dir}/off", "c").status == 1, "added twice")
    rows = [l.split("\t")[1:6] for l in tool("list").out.splitlines()[1:]]
    check(rows == [["recipient", "Alice@example.com", "1", "10", "early"], ["recipient", "Alice@example.com", "2", "20",
                   "late"], ["recipient", "Alice@example.com", "off", "5", "off"], ["global", "all", "1", "0", "glob"]],
          f"list {rows}")
    expect(w.run(), 0)
    delivered(w, "X-glob: 1\nX-late: 1\nX-early: 1\n" + MSG)
    expect(tool("disable", "recipient", R, "late"), 0)
    expect(w.run(), 0)
    delivered(w, "X-glob: 1\nX-early: 1\n" + MSG)


def sigpipe_on_stderr(w):
    """Standard error a pipe nobody reads: the served forward is still recorded, so the retry does not repeat it."""
    def reader_gone():
        r, wr = os.pipe()
        os.dup2(wr, 2), os.close(r), os.close(wr)
    w.write(".qmail", "&bob@example.net\n./missing/mbox\n")
    expect(w.run(preexec=reader_gone), 75)
    os.mkdir(w.path("missing"))
    expect(w.run(), 0)
    check(len(w.calls()) == 1 and w.read("missing/mbox") == MSG + "\n", "forwarded again")


def state_database_bounded(w):
    """A lock on the delivery-state database that never goes (a looping writer holds it) costs seconds, not mail;
    explain's look at the record has the same deadline."""
    w.write(".qmail", "./Maildir/\n./missing/mbox\n")
    subprocess.run(["tchmgr", "create", STATE], check=True)
    with open(STATE, "r+b") as db:
        fcntl.lockf(db, fcntl.LOCK_EX)
        told = predict(w, ["-f", S, "-d", R, "-p", w.mailnames], MSG, 30, {"ASAN_OPTIONS": "detect_leaks=0"})
        check(told["qmail"]["state"]["status"] == "unreadable", f"explain {told['qmail']}")
        # The abandoned database handle is left alone on purpose: after an interrupted call its state is unknown.
        expect(w.run(timeout=30, env=[("ASAN_OPTIONS", "detect_leaks=0")]), 75,
               f"3 save: cannot open delivery database {STATE}: timed out")
    check(len(new(w)) == 1, "maildir copy")


def fork_fails(w):
    w.write(".qmail", "./Maildir/\n&bob@example.net\n")
    expect(w.run(pre=STRACE + ["trace=vfork", "-e", "inject=vfork:error=EAGAIN:when=1"]), 75,
           "3 fork_execv_pipes: fork() failed: Resource temporarily unavailable")
    check(w.record() == "./Maildir/\n", "record")
    expect(w.run(), 0)
    check(len(new(w)) == 1 and len(w.calls()) == 1, "copies after the retry")


def explain(w):
    """The whole job with a pending record from a failed attempt: ferndrop-explain names what a delivery would meet
    and changes nothing; then the deferred and delivered runs' summary lines."""
    job(w)
    os.rename(w.path("Maildir"), w.path("Mail"))
    key = f"message_id=<fault.1@example.org>"
    summary(f"to={R} from={S} {key} outcome=deferred status=75 code=4.2.1 handlers=h1:PASS,h2:SKIP",
            "qmail=1:forward:served,2:program:served,3:maildir:failed")(w, w.run(msg=JOB))
    os.rename(w.path("Mail"), w.path("Maildir"))
    w.write(w.dir + "/m", JOB)
    snap = "find {d} /usr/local/qrn /var/lib/kavra -printf '%p %m %s %T@\\n'; find {d} /usr/local/qrn /var/lib/kavra " \
           "-type f -exec sha256sum {{}} +".format(d=w.dir)
    before = subprocess.run(snap, shell=True, capture_output=True, text=True).stdout
    args = ["-f", S, "-d", R, "-p", w.mailnames]
    out = w.run(args + [w.dir + "/m"], bin=EXPLAIN)
    check(out.status == 0 and not out.log and len(w.calls()) == 1 and not os.listdir(SPOOL), "explain ran", out)
    check(subprocess.run(snap, shell=True, capture_output=True, text=True).stdout == before, "explain changed files")
    text = out.out.replace(w.dir, "{d}")
    for want in ["1  recipient-domain  h1    ctx      example.com  {d}/handlers/h1",
                 "2  global            h2    ctx      all          {d}/handlers/h2", "domain example.com: exact name",
                 "key <fault.1@example.org> sender@example.org alice@example.com, 2 served lines",
                 "1     forward  skipped: already served  bob@example.net", ".qmail: usable, mode 0644",
                 "3     maildir  runs                     ./Maildir/", "ends at qmail: delivered, exit 0, 2.0.0"]:
        check(want in text, f"explain lacks {want!r}:\n{text}")
    lines = json.loads(w.run(args + ["--json", w.dir + "/m"], bin=EXPLAIN).out)["qmail"]["lines"]
    check([l["verdict"] for l in lines] == ["skipped", "skipped", "runs", "runs"], f"json {lines}")
    check("delivery state: needs-message" in w.run(args, bin=EXPLAIN).out, "no message file")
    summary(f"to={R} from={S} {key} outcome=delivered status=0 code=2.0.0 handlers=h1:PASS,h2:SKIP",
            "qmail=1:forward:skipped,2:program:skipped,3:maildir:served,4:mbox:served")(w, w.run(msg=JOB))


def maildir_new_synced(w):
    """Exit 0 means the message is in new on disk: a failed sync of new defers, and the retry stores one copy."""
    w.write(".qmail", "./Maildir/\n")
    noid = "Subject: x\n\nbody\n"
    expect(w.run(msg=noid, pre=STRACE + ["trace=fsync", "-e", "inject=fsync:error=EIO:when=3"]), 75,
           "3 System error: Input/output error\n")
    check(not new(w), "left in new")
    expect(w.run(msg=noid), 0)
    check(len(new(w)) == 1, "copies after the retry")


CASES.update(address_extensions=address_extensions, settings_documented=settings_documented, retry_skips_served_lines=retry_skips_served_lines, setup_layout=setup_layout, handlers_command=handlers_command, locked_registry=locked_registry_is_waited_for,
             sigpipe_on_stderr=sigpipe_on_stderr, state_database_bounded=state_database_bounded, explain=explain)
# Under strace: the release build only (the sanitizer runtime makes system calls of its own).
TRACED = {"fork_fails": fork_fails, "maildir_new_synced": maildir_new_synced,
          "domain_unreadable": row(75, "3 cannot chdir to domain dir example.com: Permission denied", then=known,
                                   pre=STRACE + ["trace=chdir", "-e", "inject=chdir:error=EACCES:when=2"]),
          "listing_unreadable": row(75, "3 cannot readdir '.': Input/output error", rcpt="ALICE@example.com",
                                    files=[("/etc/ferndrop/ferndrop.conf", "fold_recipient_case no\n")],
                                    then=known, pre=STRACE + ["trace=getdents64", "-e", "inject=getdents64:error=EIO"])}

if __name__ == "__main__":
    traced = sys.argv[2:] == ["traced"]
    main(TRACED if traced else CASES, list(TRACED) if traced else sys.argv[2:] or list(CASES))
