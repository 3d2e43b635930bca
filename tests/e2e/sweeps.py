"""The whole job under faults: every system call of a kind failed once (strace), kills at random calls, full disks
and parallel deliveries. The job: a handler that stamps the message, one that only reads it, and a .qmail with a
forward, a program, a maildir and an mbox line. After the transfer agent's retries every store must hold exactly
one whole copy, or two where the failed run had carried a line out without recording it; nothing partial may ever
sit where a reader looks, and nothing may be left in the spool or the delivery state."""
import glob, os, random, re, socket, subprocess, sys, threading, time
from harness import R, S, SEP, SPOOL, STATE, TEXT, World, check, main, mount, stored

LINES = ["&bob@example.net", '|f=$(mktemp program.XXXXXX) && cat > "$f"', "./Maildir/", "./mbox"]
STORES = ["sendmail", "program", "maildir", "mbox"]
# About 9 KB, so that every copy takes several reads and writes and a fault can strike inside one.
JOB = f"From: {S}\nTo: {R}\nMessage-ID: <fault.1@example.org>\n\n" + "".join(
    f"body line {i} {chr(97 + i % 26) * 48}\n" for i in range(150))
STAMPED = "X-Stamped: yes\n" + JOB
OK_TEXTS = {f"{t}\n" for t in TEXT.values()} | {"", "4.6.0 Unable to read message content\n"} | {
    "4.3.0 Internal mail system problems\n", "4.3.1 Mail system disk resources exhausted\n",
    "4.3.2 Local delivery is temporarily disabled due to system resources limitations\n"}


def job(w, qmail="\n".join(LINES) + "\n"):
    w.handler(3, "example.com", "printf 'X-Stamped: yes\\n'; exec cat")
    w.handler(4, "all", "cat > /dev/null; echo SKIP >&2")
    w.write(".qmail", qmail)


def reset(w):
    subprocess.run(f"rm -rf {w.box}/Maildir/*/* {w.box}/program.* {w.box}/mbox* {w.dir}/calls_usr_sbin_sendmail/* "
                   f"{SPOOL}/* {STATE}*", shell=True, check=True)


def whole(text):
    return text in (JOB, STAMPED)


def inventory(w):
    """Per store: its whole copies and anything else ("partial")."""
    mbox, copies = w.read("mbox") if os.path.exists(w.path("mbox")) else "", 0
    # Whole copies from the front, then from the back: a killed append leaves its cut copy in between.
    while m := next((m for c in (STAMPED, JOB) for m in (re.match(stored(c), mbox), re.search(stored(c) + r"\Z", mbox))
                     if m), None):
        mbox, copies = mbox[:m.start()] + mbox[m.end():], copies + 1
    stores = {"sendmail": [c["stdin"] for c in w.calls()], "maildir": [w.read(f) for f in w.files("Maildir/new")],
              "program": [w.read(f) for f in glob.glob(w.box + "/program.*")]}
    inv = {k: sum(map(whole, v)) for k, v in stores.items()} | {"mbox": copies}
    inv["partial"] = [k for k, v in stores.items() if not all(map(whole, v))] + ["mbox"] * bool(mbox)
    inv["spool"] = os.listdir(SPOOL)
    return inv


def retried(w, first, label, killed=False, left=0):
    """Retries as the transfer agent would and checks the stores; returns the count of duplicate copies."""
    before, record = inventory(w), (w.record(f"<fault.1@example.org> {S} {R}") or "").splitlines()
    check(killed or not before["partial"], f"{label}: partial copy in {before['partial']}", first)
    check(not (set(before["partial"]) & {"maildir"}), f"{label}: partial file in Maildir/new")
    last = first
    # A run killed while it held the mbox's dot-lock leaves it: deliveries defer until it is stale (500 s), so age it.
    if killed and os.path.exists(w.path("mbox.lock")):
        os.utime(w.path("mbox.lock"), (time.time() - 501,) * 2)
    for _ in range(3):
        if last.status == 0:
            break
        last = w.run(msg=JOB)
    check(last.status == 0, f"{label}: retries did not deliver", last)
    after = inventory(w)
    dups = 0
    for store, line in zip(STORES, LINES):
        want = 1 if first.status == 0 and not killed else before[store] + (line not in record)
        check(after[store] == want, f"{label}: {store} has {after[store]} copies, wanted {want}: {after}", first)
        dups += want - 1
    check(dups == 0 or killed or any(l.startswith("3 save: cannot") for l in first.log),
          f"{label}: a served line went unrecorded without a failed save", first)
    check(set(after["partial"]) <= set(before["partial"]), f"{label}: partial after retry {after}")
    check(len(after["spool"]) <= max(left, 2 * killed), f"{label}: spool left {after['spool']}")
    check(w.record(f"<fault.1@example.org> {S} {R}") is None, f"{label}: record left")
    return dups


def traced(w, *options):
    # timeout kills strace with ferndrop: a skipped close can leave a pipe open for ever.
    return w.run(msg=JOB, pre=["timeout", "-s", "KILL", "10", "strace", "-o", w.dir + "/trace", *options])


def calls(w, name):
    return [l for l in open(w.dir + "/trace") if l.startswith(name + "(")]


def faults(w):
    """Each call of these kinds that ferndrop itself makes fails once; long runs of identical calls (the database's
    empty bucket array) by their first and last."""
    job(w)
    cases = dups = bounced = 0
    for sc, err in [("write", "EIO"), ("write", "ENOSPC"), ("fsync", "EIO"), ("sync_file_range", "EIO"), ("rename", "EIO"), ("close", "EIO"),
                    ("openat", "EIO"), ("read", "EIO"), ("unlink", "EIO"), ("flock", "EIO")]:
        reset(w)
        check(traced(w, "-e", f"trace={sc}").status == 0, "clean traced run failed")
        clean = calls(w, sc)
        skip = {n for n in range(1, len(clean) - 1) if clean[n - 1] == clean[n] == clean[n + 1]}
        for n in (n for n in range(1, len(clean) + 1) if n - 1 not in skip):
            reset(w)
            # A failed read comes late, after the handler has answered and ended: an unread answer must not pass.
            late = ":delay_enter=100000" if sc == "read" else ""
            first = traced(w, "-e", f"trace={sc}", "-e", f"inject={sc}:error={err}{late}:when={n}")
            label = f"{sc} {err} call {n}/{len(clean)}: {clean[n - 1][:90]!r}"
            hit = [l for l in calls(w, sc) if "INJECTED" in l]
            check(hit, f"{label} not reached")
            # A skipped close is no real close: a pipe's write end stays open (the run hangs until killed), and
            # Tokyo Cabinet takes a failed close of a database opened for writing as a crash (SIGSEGV).
            killed = sc == "close" and first.status in (-9, -11, 137, 139)
            # A program line whose message cannot be opened fails for good: the one bounce a fault may cause.
            if first.status == 71 and "3 Unable to open message file: Input/output error\n" in first.log:
                bounced += 1
                continue
            check(killed or first.status in (0, 75) and first.out in OK_TEXTS, f"{label}: bad end", first)
            # What a failed unlink could not remove stays for the cleaner that ages out spool files.
            dups += retried(w, first, label, killed, left=sc == "unlink")
            cases += 1
    print(f"faults: {cases} cases, {bounced} bounced, {dups} duplicates where a record could not be saved")


def crashes(w):
    """ferndrop killed at 30 system calls picked from a clean run's trace with a fixed seed."""
    job(w)
    reset(w)
    check(traced(w).status == 0, "clean traced run failed")
    names = [m.group(1) for m in map(re.compile(r"([a-z_0-9]+)\(").match, open(w.dir + "/trace")) if m]
    rng, killed, dups = random.Random(20261124), 0, 0
    for _ in range(int(os.environ.get("FERNDROP_KILLS", 30))):
        k = rng.randrange(len(names))
        reset(w)
        first = w.run(msg=JOB, pre=["strace", "-o", "/dev/null", "-e",
                                    f"inject={names[k]}:signal=KILL:when={names[:k + 1].count(names[k])}"])
        if first.status == -9:
            killed += 1
            dups += retried(w, first, f"kill at {names[k]} (call {k + 1})", killed=True)
    check(killed >= 20, f"only {killed} kills landed")
    print(f"crashes: {killed} kills in {len(names)} calls, {dups} duplicates of lines served but not yet recorded")


def full_disks(w):
    """The spool, the maildir and the mbox each on a full filesystem; then space comes back."""
    job(w, "./Maildir/\n./full/mbox\n")
    for target in (SPOOL, w.box + "/Maildir", w.box + "/full"):
        reset(w)
        os.makedirs(target, exist_ok=True)
        # The spool needs 1 MiB to spare once a handler's output is to be taken over.
        mount("tmpfs", target, "tmpfs", 0, "size=2m" if target == SPOOL else "size=64k")
        for sub in ("tmp", "new", "cur"):
            os.makedirs(w.box + "/Maildir/" + sub, exist_ok=True)
        w.write(w.box + "/full/mbox", "earlier\n\n")
        subprocess.run(["dd", "if=/dev/zero", f"of={target}/filler", "bs=4k"], stderr=subprocess.DEVNULL)
        r = w.run(msg=JOB)
        text = "4.6.0 Unable to read message content\n" if target == SPOOL else None
        check(r.status == 75 and r.out == (text or TEXT[75] + "\n"), f"{target} full", r)
        check(w.read("full/mbox") == "earlier\n\n" and len(os.listdir(w.box + "/Maildir/new")) <= 1, "rollback", r)
        os.unlink(target + "/filler")
        r = w.run(msg=JOB)
        check(r.status == 0 and re.fullmatch("earlier\n\n" + stored(STAMPED), w.read("full/mbox")), "after space came back", r)
        check([w.read(f) for f in w.files("Maildir/new")] == [STAMPED], "maildir copies")
        subprocess.run(["umount", target], check=True)


def lmtp_server(path):
    """A stand-in LMTP server for any number of sessions; the list of whole messages it accepted (CRLF made LF,
    leading dots undoubled) grows before each 250 reply to a message."""
    stored = []

    def session(c):
        with c, c.makefile("rb") as f:
            c.sendall(b"220 ready\r\n")
            for line in f:
                if line == b"DATA\r\n":
                    c.sendall(b"354 go on\r\n")
                    body = [f.readline()]
                    while body[-1] not in (b".\r\n", b""):
                        body.append(f.readline())
                    if body.pop() == b"":
                        return  # cut off: nothing stored
                    stored.append(b"".join(l[l.startswith(b".."):] for l in body).replace(b"\r\n", b"\n").decode())
                c.sendall(b"221 bye\r\n" if line == b"QUIT\r\n" else b"250 ok\r\n")

    def serve(s):
        while True:
            try:
                session(s.accept()[0])
            except OSError:
                pass
    s = socket.socket(socket.AF_UNIX)
    s.bind(path), s.listen()
    threading.Thread(target=serve, args=(s,), daemon=True).start()
    return stored


def lmtp_faults(w):
    """INBOX through LMTP: each socket call ferndrop makes fails once. The run defers with an "lmtp: " line, and after
    the retries the server holds one whole copy, or two where only the reply to the whole message was lost."""
    stored = lmtp_server("/run/lmtp")
    w.write("/etc/ferndrop/ferndrop.conf", "store lmtp:unix:/run/lmtp\nlmtp_timeout 2\n")
    cases = dups = 0
    for sc in ("socket", "connect", "sendto", "recvfrom", "poll"):
        reset(w), stored.clear()
        check(traced(w, "-e", f"trace={sc}").status == 0 and stored == [JOB], f"clean {sc} run failed")
        clean = calls(w, sc)
        for n in range(1, len(clean) + 1):
            reset(w), stored.clear()
            first = traced(w, "-e", f"trace={sc}", "-e", f"inject={sc}:error=EIO:when={n}")
            label = f"{sc} call {n}: {clean[n - 1][:90]!r}"
            check(first.status == 0 or first.status == 75 and [l for l in first.log if l.startswith("3 LMTP ")],
                  f"{label}: bad end", first)
            last = first
            for _ in range(3):
                last = last if last.status == 0 else w.run(msg=JOB)
            lost_reply = any(l.startswith("3 LMTP ") and l.endswith("the message") for l in first.log)
            check(last.status == 0 and set(stored) == {JOB} and len(stored) in ((1, 2) if lost_reply else (1,)),
                  f"{label}: {len(stored)} copies after the retries", first)
            check(not os.listdir(SPOOL), f"{label}: spool left")
            cases, dups = cases + 1, dups + len(stored) - 1
    print(f"lmtp_faults: {cases} cases, {dups} duplicates where the reply to the whole message was lost")


def load(w):
    """Four streams of deliveries with distinct Message-IDs into one maildir and one mbox."""
    w.write(".qmail", "./Maildir/\n./mbox\n")
    n = 4 * 60
    msgs = [JOB.replace("fault.1", f"load.{i:04}") for i in range(n)]
    script = "for i in $(seq $1 4 %d); do %s -f %s -d %s -p %s < %s/m$i || echo fail $i; done" % (
        n - 1, sys.argv[1], S, R, w.mailnames, w.dir)
    for i, m in enumerate(msgs):
        w.write(f"{w.dir}/m{i}", m)
    procs = [subprocess.Popen(["sh", "-c", script, "-", str(s)], stdout=subprocess.PIPE) for s in range(4)]
    check(all(p.communicate()[0] == b"" for p in procs), "a delivery failed")
    mbox = w.read("mbox")
    copies = re.split("(?m)^" + SEP, mbox)
    check(copies[0] == "" and sorted(copies[1:]) == sorted(m + "\n" for m in msgs), "mbox copies interleaved, lost or doubled")
    check(sorted(w.read(f) for f in w.files("Maildir/new")) == sorted(msgs), "maildir copies lost or doubled")


if __name__ == "__main__":
    main({"faults": faults, "lmtp_faults": lmtp_faults, "crashes": crashes, "full_disks": full_disks, "load": load},
         sys.argv[2:])
