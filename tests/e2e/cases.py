"""The delivery as the transfer agent sees it: one row per case (fixture, command line, input) with the exit status,
status line, log lines and stores it must leave. Cases that need more than one run follow the table."""
import fcntl, grp, json, os, re, resource, sqlite3, subprocess, sys, time
from harness import BIN, MSG, KEY, R, S, SPOOL, STATE, REGISTRY, TEXT, TMP, check, expect, in_mbox, main, mount
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
# The transfer agent's process dies mid-message; a subreaper above it reports ferndrop's own exit.
CUT = ("import ctypes, fcntl, os, sys, termios, time\nctypes.CDLL(None).prctl(36, 1)\nif os.fork() == 0:\n r, w = os.pipe()\n"
       " if os.fork() == 0:\n  os.dup2(r, 0), os.close(w), os.execv(sys.argv[1], sys.argv[1:])\n"
       " os.write(w, sys.stdin.buffer.read()[:60])\n while fcntl.ioctl(w, termios.FIONREAD, b'    ') != b'\\0' * 4:"
       " time.sleep(0.01)\n os.kill(os.getpid(), 9)\nos.wait()\nsys.exit(os.waitstatus_to_exitcode(os.wait()[1]))")
STAMP = 'echo "X-$(basename $0): 1"; cat'  # a handler passing the message on under a header of its own
CONF = "/etc/ferndrop/ferndrop.conf"
# A handler writing the descriptors it was started with (none of its own listing's), then passing.
FDS = """exec python3 -S -c "import os, sys; fds = ' '.join(sorted((n for n in os.listdir('/proc/self/fd')
if os.path.exists('/proc/self/fd/' + n)), key=int)); open('{d}/hfds', 'w').write(fds); sys.stderr.write('SKIP')" """


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
    check(w.read("out") == MSG and new(w) == [MSG] and in_mbox(w.read("mbox"), MSG), "stores")
    check(in_mbox(w.read(w.dir + "/abs.mbox"), MSG) and w.record() is None and os.path.exists(STATE), "abs/state")
    modes = [os.stat(f).st_mode & 0o777 for f in w.files("Maildir/new") + [w.path("mbox"), STATE]]
    check(modes == [0o600, 0o640, 0o600], f"modes {modes}")
    check(f"4 The line {w.dir}/abs.mbox writes outside the mailbox directory" in r.log, "no warning", r)


def forward_env(w, r):
    [c] = w.calls()
    check(w.read(w.dir + "/hfds") == "0 1 2", f"the handler inherited {w.read(w.dir + '/hfds')}")
    check(c["argv"] == f"-i\n-bm\n-f\n{S}\n-t\n" and c["stdin"] == MSG and c["fds"] == "0 1 2 ", f"call {c}")
    digest = subprocess.run(["xxhsum", "-H2", "-"], input=MSG.encode(), capture_output=True).stdout.split()[0].decode()
    check(f"QX_SENDER_EMAIL={R}\n" in c["env"] and f"DELIVERED_TO={R}\n" in c["env"] and
          f"FERNDROP_MESSAGE_DIGEST={digest}\n" in c["env"], c["env"])
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
    "two_at_signs": row(0, rcpt="alice@example.com@relay.test", files=[("../../example.com@relay.test/alice/.qmail",
                                                                       "|cat > out\n")],
                        then=lambda w, r: check(w.read("../../example.com@relay.test/alice/out") == MSG, "not there")),
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
                             "|   cat > out   \n./Maildir/\n./mbox\n{d}/abs.mbox", then=deliver_all,
                          setup=lambda w: (os.chmod(w.path("Maildir/new"), 0o700), os.chmod(w.box, 0o750))),
    "forward_environment": row(0, env=[("QX_SENDER_EMAIL", "preset")], then=forward_env, h=[(1, R, FDS)],
                               pre=["sh", "-c", 'exec 7>&2 "$@"', "-"],  # a descriptor the transfer agent left open
                               qmail='|echo "[${QX_SENDER_EMAIL-unset}]" > before\n&\n'
                                     '|echo "[${QX_SENDER_EMAIL-unset}]" > after\n'),
    "sendmail_fails": row(75, "3 Unable to forward original message. sendmail status: 75",
                          "3 Unable to send mail for: bob@example.net\n", setup=lambda w: w.recorder(
                              "/usr/sbin/sendmail", 75), qmail="./mbox\n&bob@example.net\n./Maildir/\n",
                          then=lambda w, r: check(w.record() == "./mbox\n" and not new(w), "record")),
    "no_message_id": row(0, msg="Subject: x\n\nbody\n", qmail="./Maildir/\n./Maildir/\n",
                         then=lambda w, r: check(len(new(w)) == 1 and os.path.exists(STATE), "no key")),
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
                                  w.path("mbox")]][0] == HOSTILE and re.fullmatch(rb"From sender@example.org [^\n]{24}\n" + re.escape(HOSTILE) +
                                  b"\n\n", open(w.path("mbox"), "rb").read()), "bytes changed")),
    "torn_state_database": row(0, f"3 init: cannot open delivery database {STATE}: invalid meta data",
                               files=[(STATE, "HDB\x00garbage" * 100)], qmail="./Maildir/\n",
                               then=lambda w, r: check(len(new(w)) == 1, "not delivered")),
    # Faults that once dropped, bounced, hung or duplicated mail
    "file_size_limit_mbox": row(75, "3 Unable to write data to mailbox: File too large\n", qmail="./mbox\n",
                                files=[("mbox", "o" * 1040000)], msg="S: x\n\n" + "b" * 20000, preexec=FSIZE,
                                then=lambda w, r: check(os.path.getsize(w.path("mbox")) == 1040000, "no rollback")),
    "file_size_limit_spool": row(75, "3 Unable to read message from stdin", msg="b" * 1100000, preexec=FSIZE, out=READ),
    "stdin_cut": row(75, "3 Message input cut: the process that started ferndrop died before its end", out=READ,
                     pre=["python3", "-c", CUT], qmail="./Maildir/\n", then=lambda w, r: check(not new(w), "stored")),
    "stdin_closed": row(75, "3 Unable to read message from stdin", preexec=lambda: os.close(0), out=READ),
    "stdout_stderr_closed": row(75, qmail="&bob@example.net\n./missing/mbox\n", out="",
                                preexec=lambda: (os.close(1), os.close(2)),
                                then=lambda w, r: check([c["fds"] for c in w.calls()] == ["0 1 2 "], "descriptors")),
    "qmail_fifo": row(75, "3 File .qmail is not a regular file\n", "3 Wrong permissions for .qmail",
                      setup=lambda w: os.mkfifo(w.path(".qmail"), 0o644), then=lambda w, r: check(not w.calls(LDA), "")),
    "mbox_lock_limit": row(75, "3 Timed out after 2s waiting for the fcntl lock of mailbox ./mbox", qmail="./mbox\n",
                           files=[("/etc/ferndrop/ferndrop.conf", "mbox_lock_timeout 2\n")],
                           setup=lambda w: fcntl.lockf(setattr(w, "lock", open(w.path("mbox"), "a")) or w.lock,
                                                       fcntl.LOCK_EX), then=lambda w, r: check(not w.read("mbox"), "")),
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
    "summary_bounced": row(71, qmail="./mbox\n|exit 100\n", h=[(4, "all", "echo SKIP >&2")], then=lambda w, r: summary(
        f"to={R} from={S} message_id=<Job.1@Example.ORG> outcome=bounced status=71 code=5.7.1 handlers=h1:SKIP",
        "qmail=1:mbox:served,2:program:failed")(w, r) or check(w.record() is None, "record of a bounce kept")),
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
                                       "3 Error during 'h3' handler", "3 The program of the 'gone' handler cannot run: No such file or directory",
                                       "3 The 'h4' handler passed an empty message",
                                       files=[(CONF, "handler_failure pass\n")], qmail="|cat > out\n", h=[
                                           (1, R, "echo partial; echo 'LOG said' >&2; exit 3", 1),
                                           (1, R, "echo partial; echo STOP >&2; kill -9 $$", 2),
                                           (1, R, "exit 255", 3), (1, R, "exec cat > /dev/null", 3),
                                           (1, R, STAMP, 4, 1, "c", "good")],
                                       setup=lambda w: sqlite3.connect(REGISTRY, isolation_level=None).execute(
                                           "INSERT INTO handlers VALUES (2,1,1,3,'gone',?,'/none','',0)", (R,)),
                                       then=lambda w, r: delivered(w, "X-good: 1\n" + MSG)),
    # A failing filter defers, unless the host or the handler's listing says pass over it
    "handler_missing_defers": row(75, "3 The program of the 'gone' handler cannot run: No such file or directory",
                                  out="4.3.0 Internal mail system problems\n", setup=lambda w: sqlite3.connect(
                                      REGISTRY, isolation_level=None).execute(
                                      "INSERT INTO handlers VALUES (2,1,1,3,'gone',?,'/none','',0)", (R,))),
    # A filter that passes the checks before the fork but cannot be executed (its interpreter is missing) fails,
    # also on an empty message, where no check of its output could tell
    "handler_exec_fails_defers": row(75, "3 Error during 'h1' handler", out="4.3.0 Internal mail system problems\n",
                                     h=[(1, R, "")], msg="", setup=lambda w: w.write(w.dir + "/handlers/h1",
                                                                                     "#!/none/sh\n", 0o755)),
    "handler_empty_defers": row(75, "3 The 'h1' handler passed an empty message", h=[(1, R, "exec cat > /dev/null")],
                                out="4.3.0 Internal mail system problems\n"),
    "handler_fail_open": row(0, files=[(CONF, "handlers_fail_open av,h1\n")], qmail="|cat > out\n",
                             h=[(1, R, "kill -9 $$")], then=lambda w, r: delivered(w, MSG)),
    "handler_output_on_full_spool": row(75, "3 Less than 1 MiB left for the spool: the 'h1' handler's output may be "
                                        "cut", h=[(1, R, STAMP)], out="4.3.1 Mail system disk resources exhausted\n",
                                        setup=lambda w: mount("tmpfs", SPOOL, "tmpfs", 0, "size=512k")),
    # What a .qmail may do: its owner must be trusted, its stores may be confined, its programs disallowed
    "qmail_foreign_owner": row(75, "3 File .qmail belongs to 4321, who may not give this mailbox instructions\n",
                               qmail="|cat > out\n", setup=lambda w: os.chown(w.path(".qmail"), 4321, 4321)),
    "qmail_confined": row(75, "3 The line ../bob/mbox writes outside the mailbox directory: refused",
                          files=[(CONF, "confine_deliveries on\nallowed_paths /srv:/var/mail\n")],
                          qmail="./Maildir/\n../bob/mbox\n",
                          then=lambda w, r: check(len(new(w)) == 1 and not os.path.exists(w.path("../bob/mbox")),
                                                  "confined")),
    "qmail_programs_disallowed": row(75, "3 Program lines are not allowed (allow_program_lines no): cat > out",
                                     files=[(CONF, "allow_program_lines no\n")], qmail="|cat > out\n"),
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


def exit_code_table(w):
    """Every exit code of a program line and of the store agent ends as the delivery language says, and what either
    prints on its standard output never reaches ferndrop's, which the transfer agent reads as the status line."""
    permanent = {65, 70, 76, 78, 100, 112}
    for code in [0, 1, 64, 65, 67, 69, 70, 71, 73, 74, 75, 76, 77, 78, 99, 100, 101, 111, 112, 113, 255]:
        for store in (False, True):
            if store:
                w.write(LDA, f"#!/bin/sh\necho agent-said; cat > /dev/null; exit {code}\n", 0o755)
                os.unlink(w.path(".qmail"))
            else:
                w.write(".qmail", f"|echo program-said; exit {code}\n")
            want = 0 if code == 0 or (code == 99 and not store) else 77 if code == 77 else \
                71 if code in permanent else 75
            r = w.run()
            check(r.status == want and r.out == TEXT.get(want, "") + "\n" * (want != 0),
                  f"{'agent' if store else 'program'} exit {code}: wanted {want}", r)


def children_default_signals(w):
    """ferndrop ignores SIGPIPE and SIGXFSZ; every program it starts gets the default dispositions back."""
    ign = 'grep SigIgn /proc/$$/status > {d}/%s'.replace("{d}", w.dir)
    w.handler(1, R, ign % "handler" + "; echo SKIP >&2")
    w.write("/usr/sbin/sendmail", "#!/bin/sh\n" + ign % "sendmail" + "; cat > /dev/null\n", 0o755)
    w.write(LDA, "#!/bin/sh\n" + ign % "agent" + "; cat > /dev/null\n", 0o755)
    w.write(".qmail", "&bob@example.net\n|" + ign % "program" + "\n")
    expect(w.run(), 0)
    os.unlink(w.path(".qmail"))
    expect(w.run(), 0)
    for child in ("handler", "sendmail", "program", "agent"):
        mask = int(w.read(f"{w.dir}/{child}").split()[1], 16)
        check(not mask & (1 << 12 | 1 << 24), f"{child} ignores SIGPIPE or SIGXFSZ: {mask:x}")


def deadlines(w):
    """A handler that never ends and a program line that never ends are killed at their limits, and a handler whose
    background child keeps its standard error open is heard for 5 more seconds: each in seconds, not hours."""
    w.write(CONF, "handler_time_limit 2\nchild_time_limit 2\n")
    w.handler(1, R, "sleep 60")
    start = time.time()
    expect(w.run(), 75, f"3 {w.dir}/handlers/h1 exceeded its time limit of 2 seconds; killed",
           out="4.3.0 Internal mail system problems\n")
    sqlite3.connect(REGISTRY, isolation_level=None).execute("DELETE FROM handlers")
    w.write(".qmail", "./Maildir/\n|sleep 60\n")
    expect(w.run(), 75, "3 the program line exceeded its time limit of 2 seconds; killed")
    check(w.record() == "./Maildir/\n", f"record {w.record()!r}")
    w.write(CONF, "run_time_limit 1\n")
    expect(w.run(), 75, "3 the program line exceeded its time limit of 1 seconds; killed")
    w.write(CONF, "")
    os.unlink(w.path(".qmail"))
    w.handler(1, R, "(sleep 60 &); echo SKIP >&2")
    expect(w.run(), 0, f"4 _mh_fork(): the handler {w.dir}/handlers/h2 has ended, but a process it started keeps its "
                       "standard error open; its answer is taken from the lines read")
    check(time.time() - start < 20, f"took {time.time() - start:.0f} s")


def lmtp_answers(w):
    """INBOX through an LMTP server that answers each way a server can: the protocol as sent, every ending the agents'
    exit language has, and a refused recipient amid pipelined commands; garbage, a dropped connection and silence
    defer, each with its line. A server that offers pipelining hears MAIL, RCPT and DATA before it answers any; one
    that does not gets each command alone."""
    import socket, threading
    path = w.dir + "/lmtp"
    srv = socket.socket(socket.AF_UNIX)
    srv.bind(path), srv.listen(4), srv.settimeout(30)  # a run that never connects fails, not hangs
    heard, alone, late = [], [], []

    def serve(answer, group):
        c, _ = srv.accept()
        buf, chunks = b"", []

        def line():
            nonlocal buf
            while b"\n" not in buf:
                d = c.recv(65536)
                if not d:
                    return b""
                chunks.append(d)
                buf += d
            got, _, buf = buf.partition(b"\n")
            return got + b"\n"

        if answer == "garbage":
            c.sendall(b"hello there\r\n")
        elif answer != "silent":
            c.sendall(b"220 lmtp ready\r\n")
            heard.append(line())
            c.sendall(b"250-lmtp\r\n250-8BITMIME\r\n250 " + (b"PIPELINING" if group else b"ENHANCEDSTATUSCODES") + b"\r\n")
            rcpt = answer[5:].encode() if answer.startswith("rcpt ") else b"250 2.1.5 ok"
            replies = [b"250 2.1.0 ok", rcpt, b"354 go" if rcpt.startswith(b"2") else b"554 5.5.1 No valid recipients"]
            del chunks[:]
            if group:
                heard.extend(line() for _ in replies)
            for reply in replies:
                if not group:
                    heard.append(line())
                try:
                    c.sendall(reply + b"\r\n")
                except (BrokenPipeError, ConnectionResetError):  # the client left after a refusal, as it may
                    break
            if not group:
                alone.append(all(chunk.count(b"\n") == 1 for chunk in chunks))
            if rcpt.startswith(b"2"):
                data = []
                while (got := line()) not in (b".\r\n", b""):  # a client gone mid-message ends it too
                    data.append(got)
                heard.append(b"".join(data))
                if answer != "drop":
                    c.sendall(answer.encode() + b"\r\n")
        time.sleep(3 if answer == "silent" else 0.2)
        if answer.startswith("rcpt "):
            c.settimeout(2)
            try:
                late.append(buf + c.recv(9))
            except (socket.timeout, ConnectionResetError):  # quiet, or gone without reading our 554
                late.append(buf)
        c.close()

    w.write(CONF, f"store lmtp:unix:{path}\nlmtp_timeout 2\n")
    # The spool is read 64 KB at a time: a line, and a CRLF, cut by those reads.
    msg = MSG + "a" * (65535 - len(MSG)) + "\n.leading dot" + "b" * 65523 + "\r\n..two\nlast line"
    for answer, group, status in [("250 2.0.0 <alice@example.com> Saved", False, 0), ("452 4.2.2 Mailbox is full", True, 77),
                                  ("550 5.1.1 No such user", False, 71), ("451 4.3.0 Try again", True, 75),
                                  ("rcpt 450 4.2.1 Mailbox busy", True, 75), ("garbage", True, 75),
                                  ("drop", True, 75), ("silent", False, 75)]:
        t = threading.Thread(target=serve, args=(answer, group))
        t.start()
        r = w.run(args=["-f", "", "-d", "Alice+x@example.com", "-p", w.mailnames], msg=msg)
        t.join()
        check(r.status == status and r.out == TEXT.get(status, "") + "\n" * (status != 0), f"{answer}", r)
        check(status == 0 or any("LMTP unix:" in l or f"LMTP lmtp:unix:{path}" in l for l in r.log), "no line", r)
        check(not answer.startswith("rcpt ") or any("refused the recipient: 450 4.2.1" in l for l in r.log), "rcpt", r)
    sent = "".join("." * l.startswith(".") + l + "\r\n" for l in msg.replace("\r\n", "\n").split("\n"))
    check(heard[1:3] == [b"MAIL FROM:<>\r\n", f"RCPT TO:<{R}>\r\n".encode()] and heard[4] == sent.encode(),
          f"heard {heard[:4]}, {len(heard[4])} bytes of the message")
    check(heard[6:9] == heard[1:4] and heard[9] == sent.encode() and alone == [True, True], f"{alone} {heard[6:10]}")
    check(late == [b""], f"the message went out after the refused recipient: {late}")


def settings_documented(w):
    """Every setting explain prints is shipped, commented out at its default, and has its manual entry."""
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    shipped = dict(re.findall(r"^#(\w+) (.*)$", open(root + "/debian/ferndrop.conf").read(), re.M))
    told = predict(w, ["-f", S, "-d", R, "-p", w.mailnames], MSG)["settings"]
    manual = open(root + "/docs/ferndrop.8").read()
    check(shipped == {k: v["value"] for k, v in told.items()}, f"shipped {shipped}, explain {told}")
    check(all(f".B {k}" in manual for k in told), "a setting without its manual entry")


def retry_skips_served_lines(w):
    w.write(".qmail", " &bob@example.net \r\n./Maildir/\n|test -e go || exit 75\n./mbox\n")
    expect(w.run(), 75)
    check(w.record() == "&bob@example.net\n./Maildir/\n" and len(w.calls()) == 1 and len(new(w)) == 1, "first")
    w.write("go", "")
    expect(w.run(), 0)
    check(w.record() is None and len(w.calls()) == 1 and len(new(w)) == 1 and in_mbox(w.read("mbox"), MSG), "retry")


def pid_namespaces_keep_every_copy(w):
    """Runs in separate pid namespaces share pids: 24 at once into one maildir each keep their copy."""
    w.write(".qmail", "./Maildir/\n")
    runs = [subprocess.Popen(["unshare", "-p", "-f", BIN, "-f", S, "-d", R, "-p", w.mailnames], stdin=subprocess.PIPE)
            for _ in range(24)]
    for i, p in enumerate(runs):
        p.stdin.write(MSG.replace("hi", str(i)).encode()), p.stdin.close()
    check([p.wait(30) for p in runs] == [0] * 24 and len(set(new(w))) == 24, f"{len(set(new(w)))} copies kept")
    check(all(re.search(r",S=\d+$", f) for f in w.files("Maildir/new")), "no size in the names")


def mbox_shared_with_readers(w):
    """A reader holding dot-lock and fcntl rewrites the mbox meanwhile; the new message, whose body line "From "
    is quoted, lands after it, and a standard parser counts both messages."""
    import mailbox
    w.write(".qmail", "./mbox\n")
    w.write("mbox", "From x@y Mon Jan  1 00:00:00 2024\nSubject: old\n\nold\n\n")
    os.link(w.path("mbox"), w.path("mbox.lock"))
    with open(w.path("mbox"), "r+") as f:
        fcntl.lockf(f, fcntl.LOCK_EX)
        old = f.read().replace("Subject: old", "Status: RO\nSubject: old")
        p = subprocess.Popen([BIN, "-f", S, "-d", R, "-p", w.mailnames], stdin=subprocess.PIPE)
        p.stdin.write((MSG + "From me, sent\n>From quoted\n").encode()), p.stdin.close()
        time.sleep(1)
        f.seek(0), f.truncate(), f.write(old), f.flush()
        os.unlink(w.path("mbox.lock"))
    check(p.wait(20) == 0 and len(mailbox.mbox(w.path("mbox"))) == 2, "lost or not an mbox")
    check(w.read("mbox").startswith(old) and in_mbox(w.read("mbox")[len(old):], MSG + "From me, sent\n>From quoted\n")
          and ">From me, sent\n>>From quoted\n" in w.read("mbox"), "not quoted")


def record_per_message(w):
    """Two messages whose Message-IDs differ only in case, each deferred once: each is stored once."""
    w.write(".qmail", "./Maildir/\n|test -e go || exit 75\n")
    a, b = MSG, MSG.replace("Job.1@Example.ORG", "JOB.1@example.org").replace("body", "other")
    expect(w.run(msg=a), 75), expect(w.run(msg=b), 75)
    w.write("go", "")
    expect(w.run(msg=b), 0), expect(w.run(msg=a), 0)
    check(sorted(new(w)) == sorted([a, b]), f"stored {new(w)}")


def records_expire(w):
    """A record 11 days old is ignored and removed; the save of the deferred run sweeps an expired record and one
    from before the digest."""
    digest = subprocess.run(["xxhsum", "-H2", "-"], input=MSG.encode(), capture_output=True).stdout.split()[0].decode()
    subprocess.run(["tchmgr", "create", STATE], check=True)
    old = int(time.time()) - 11 * 86400
    for key, value in [(f"{KEY} {digest}", f"{old}\n./Maildir/"), (f"<x@y> a b {'0' * 32}", f"{old}\nx"),
                       ("<x@y> a b", "x"), (f"<z@y> a b {'1' * 32}", f"{old + 86400 * 2}\nkept")]:
        subprocess.run(["tchmgr", "put", STATE, key, value], check=True)
    w.write(".qmail", "./Maildir/\n|test -e go || exit 75\n")
    expect(w.run(), 75, f"6 init: delivery record `{KEY} {digest}' is older than 864000 seconds; removed")
    keys = set(subprocess.run(["tchmgr", "list", STATE], capture_output=True, text=True).stdout.split("\n"))
    check(len(new(w)) == 1 and keys - {"", "sweep-cursor"} == {f"{KEY} {digest}", f"<z@y> a b {'1' * 32}"}
          and w.record() == "./Maildir/\n", f"not swept: {keys}")
    w.write("go", "")
    expect(w.run(), 0)
    check(len(new(w)) == 1 and w.record() is None, "served again")


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
    check(len(w.calls()) == 1 and in_mbox(w.read("missing/mbox"), MSG), "forwarded again")


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
                 "key <fault.1@example.org> sender@example.org alice@example.com ", " 2 served lines",
                 "1     forward  skipped: already served  bob@example.net", ".qmail: usable, mode 0644",
                 "3     maildir  runs                     ./Maildir/", "ends at qmail: delivered, exit 0, 2.0.0"]:
        check(want in text, f"explain lacks {want!r}:\n{text}")
    lines = json.loads(w.run(args + ["--json", w.dir + "/m"], bin=EXPLAIN).out)["qmail"]["lines"]
    check([l["verdict"] for l in lines] == ["skipped", "skipped", "runs", "runs"], f"json {lines}")
    check("delivery state: needs-message" in w.run(args, bin=EXPLAIN).out, "no message file")
    summary(f"to={R} from={S} {key} outcome=delivered status=0 code=2.0.0 handlers=h1:PASS,h2:SKIP",
            "qmail=1:forward:skipped,2:program:skipped,3:maildir:served,4:mbox:served")(w, w.run(msg=JOB))


def maildir_new_synced(w):
    """Exit 0 means the message is in new on disk, and its name never reaches the disk before its data: the data is
    written out before the rename, new and the file are synced after it (a failure of either defers), and on a file
    system not known to keep that order (ramfs here) the file is synced before the rename. On an ext4 with its journal
    the sync of new commits the file too, and the file's own sync is left out. The retry stores one copy."""
    w.write(".qmail", "./Maildir/\n")
    noid = "Subject: x\n\nbody\n"
    for fault in ["fsync:error=EIO:when=1", "sync_file_range:error=EIO"]:
        expect(w.run(msg=noid, pre=STRACE + ["trace=fsync,sync_file_range", "-e", "inject=" + fault]), 75,
               "3 System error: Input/output error\n")
        check(not new(w), f"left in new after {fault}")
    order = w.dir + "/order"

    def steps(*inject):
        expect(w.run(msg=noid, pre=["strace", "-y", "-o", order, "-e", "trace=fsync,sync_file_range,renameat2", *inject]),
               0)
        return [l.split("(")[0] + " new" * ("/new>" in l) for l in open(order) if "(" in l]
    got = steps()
    check(got == ["sync_file_range", "renameat2", "fsync new", "fsync"], f"order of the syncs: {got}")
    check(len(new(w)) == 1, "copies after the retry")
    mount("ramfs", w.box + "/Maildir", "ramfs")
    w.mounted.append(w.box + "/Maildir")
    for sub in ("tmp", "new", "cur"):
        os.mkdir(f"{w.box}/Maildir/{sub}")
    got = steps()
    check(got == ["fsync", "renameat2", "fsync new", "fsync"], f"on a file system not known to order: {got}")
    journaled = w.box + "/Journaled"
    os.mkdir(journaled)
    subprocess.run(["truncate", "-s", "32M", w.dir + "/ext4.img"], check=True)
    subprocess.run(["mkfs.ext4", "-q", "-F", w.dir + "/ext4.img"], check=True)
    mount(TMP + "/dev", "/dev", None, 0x1000 | 0x4000)  # the host's devices, for a loop device, for the mount alone
    try:
        subprocess.run(["mount", "-o", "loop", w.dir + "/ext4.img", journaled], check=True)
    finally:
        subprocess.run(["umount", "-l", "/dev"], check=True)
    w.mounted.append(journaled)
    for sub in ("tmp", "new", "cur"):
        os.mkdir(f"{journaled}/{sub}")
    w.write(".qmail", "./Journaled/\n")
    got = steps()
    check(got == ["sync_file_range", "renameat2", "fsync new"], f"on an ext4 with its journal: {got}")


CASES.update(address_extensions=address_extensions, settings_documented=settings_documented, deadlines=deadlines,
             lmtp_answers=lmtp_answers,
             exit_code_table=exit_code_table, children_default_signals=children_default_signals,
             retry_skips_served_lines=retry_skips_served_lines, pid_namespaces=pid_namespaces_keep_every_copy,
             mbox_shared=mbox_shared_with_readers, record_per_message=record_per_message, handlers_command=handlers_command,
             records_expire=records_expire, setup_layout=setup_layout, locked_registry=locked_registry_is_waited_for,
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
