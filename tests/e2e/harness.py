"""End-to-end ground: the built ferndrop runs with its compiled-in paths in a
private mount namespace. Scratch space is a tmpfs of the namespace, every case gets
fresh overlays over the system directories the delivery path touches, and a
socket at /dev/log catches the syslog lines. The host keeps nothing."""
import ctypes, glob, os, queue, re, shutil, socket, sqlite3, subprocess, sys, tempfile, threading

BIN = os.path.abspath(sys.argv[1])
S, R = "sender@example.org", "alice@example.com"
MSG = f"From: {S}\nTo: {R}\nMessage-ID: <Job.1@Example.ORG>\nSubject: hi\n\nbody line\n"
KEY = f"<job.1@example.org> {S} {R}"
SPOOL, STATE = "/usr/local/qrn/handlers/spool", "/var/lib/kavra/mail/local/local.db"
REGISTRY = "/var/lib/kavra/mail/handlers/handlers.db"
TEXT = {64: "4.3.5 Local delivery is disabled due to server misconfigurations", 65: "5.1.3 Invalid destination status",
        67: "5.1.1 Mailbox does not exist",
        69: "5.7.1 Message can't be delivered", 71: "5.7.1 Message can't be delivered",
        75: "4.2.1 Message can not be delivered at this time", 77: "5.7.1 Mail quota exceeded"}
SCHEMA = ("CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, name VARCHAR(255) "
          "NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL,"
          " protected BOOLEAN NOT NULL default 0, PRIMARY KEY (queue, type, name, address, executable, context))")
OVERLAID = ["/etc", "/usr/local", "/var/lib", "/usr/sbin", "/usr/libexec", "/usr/bin", "/run"]
# Scratch space: a tmpfs of the namespace over a directory that holds neither the build nor these scripts.
TMP = next(d for d in ("/tmp", "/var/tmp", "/mnt") if not any(
    (p + "/").startswith(d + "/") for p in (BIN, os.path.abspath(__file__))))
# The sanitized build's settings reach every run (leak checks cannot run under strace).
SANITIZER = {k: v for k, v in os.environ.items() if k.startswith(("ASAN_", "LSAN_"))}
libc = ctypes.CDLL(None, use_errno=True)
lines = queue.Queue()


def mount(src, target, fstype, flags=0, data=None):
    b = lambda s: s.encode() if s else None
    if libc.mount(b(src), b(target), b(fstype), flags, b(data)) != 0:
        raise OSError(ctypes.get_errno(), f"mount {target}")


def enter_namespace():
    """Fails loudly where the namespace, the mounts or the socket cannot be had."""
    if libc.unshare(0x20000) != 0:
        raise OSError(ctypes.get_errno(), "unshare(CLONE_NEWNS)")
    mount(None, "/", None, 0x4000 | 0x40000)  # MS_REC | MS_PRIVATE
    mount("tmpfs", TMP, "tmpfs", 0, "mode=1777,size=2g")
    os.mkdir(TMP + "/dev")
    mount("/dev", TMP + "/dev", None, 0x1000 | 0x4000)  # MS_BIND | MS_REC
    mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755,size=1m")
    for dev in ("null", "zero", "full", "urandom", "tty"):
        open("/dev/" + dev, "w").close()
        mount(TMP + "/dev/" + dev, "/dev/" + dev, None, 0x1000)
    os.symlink("/proc/self/fd", "/dev/fd")
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind("/dev/log")
    os.chmod("/dev/log", 0o666)
    # Read all the time: a syslog sender blocks once a few datagrams wait unread.
    threading.Thread(target=lambda: [lines.put(log.recv(65536).decode(errors="replace")) for _ in iter(int, 1)],
                     daemon=True).start()


def drain():
    """Syslog lines since the last call, as "PRIORITY text" of ferndrop at the mail facility."""
    out, end = [], f"<0>end of drain {os.urandom(8).hex()}"
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
        s.sendto(end.encode(), "/dev/log")
    for d in iter(lines.get, end):
        m = re.match(r"<(\d+)>.{15} ferndrop\[\d+\]: (.*)", d, re.S)
        out.append(f"{int(m[1]) & 7} {m[2]}" if m and int(m[1]) >> 3 == 2 else f"foreign {d}")
    return out


class Result:
    def __init__(self, p, logs):
        self.status, self.out, self.err, self.log = p.returncode, p.stdout.decode(errors="replace"), p.stderr, logs

    def __repr__(self):
        return f"exit {self.status} out={self.out!r} err={self.err[:300]!r}\n  " + "\n  ".join(self.log)


class World:
    """One case's system: overlays over the system directories, the spool, registry and state directories, an
    empty registry, a sendmail recorder, and the mailbox alice@example.com with an empty maildir."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(dir=TMP)
        self.mounted = []
        for d in OVERLAID:
            up, work = self.dir + "/up" + d, self.dir + "/work" + d
            os.makedirs(up), os.makedirs(work)
            mount("overlay", d, "overlay", 0, f"lowerdir={d},upperdir={up},workdir={work}")
            self.mounted.append(d)
        for d in (SPOOL, os.path.dirname(STATE), os.path.dirname(REGISTRY)):
            os.makedirs(d, exist_ok=True)
        sqlite3.connect(REGISTRY).execute(SCHEMA).connection.close()
        self.mailnames = self.dir + "/mailnames"
        self.box = self.mailnames + "/example.com/alice"
        for sub in ("tmp", "new", "cur"):
            os.makedirs(f"{self.box}/Maildir/{sub}")
        self.recorder("/usr/sbin/sendmail")
        self.recorder("/usr/libexec/dovecot/dovecot-lda")
        if os.path.lexists("/usr/bin/deliverquota"):  # Courier's agent would be preferred to Dovecot's
            os.unlink("/usr/bin/deliverquota")
        self.nhandlers = 0

    def close(self):
        for d in reversed(self.mounted):
            libc.umount2(d.encode(), 2)
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, p):
        return p if p.startswith("/") else f"{self.box}/{p}"

    def write(self, p, content, mode=0o644):
        p = self.path(p)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        if os.path.lexists(p):
            os.unlink(p)
        with open(p, "wb") as f:
            f.write(content.encode() if isinstance(content, str) else content)
        os.chmod(p, mode)

    def read(self, p):
        with open(self.path(p), "rb") as f:
            return f.read().decode(errors="replace")

    def files(self, d):
        return sorted(glob.glob(self.path(d) + "/*"))

    def recorder(self, path, code=0):
        """A stand-in program that keeps argv, environment, descriptors and standard input of each call."""
        calls = f"{self.dir}/calls{path.replace('/', '_')}"
        os.makedirs(calls, exist_ok=True)
        self.write(path, "#!/usr/bin/python3 -S\nimport os, sys, time\n"
                   # The listing's own descriptor is closed again once it has been read.
                   "fds = [n for n in os.listdir('/proc/self/fd') if os.path.exists('/proc/self/fd/' + n)]\n"
                   f"d = '{calls}/%d' % time.time_ns()\nos.mkdir(d)\n"
                   "for name, text in [('argv', ''.join(a + '\\n' for a in sys.argv[1:])), ('fds', ' '.join("
                   "sorted(fds, key=int)) + ' '), ('env', ''.join(k + '=' + v + '\\n' for k, v in os.environ.items())),"
                   " ('stdin', sys.stdin.read())]:\n    open(d + '/' + name, 'w').write(text)\n"
                   f"sys.exit({code})\n", 0o755)
        return calls

    def calls(self, path="/usr/sbin/sendmail"):
        return [{k: open(f"{c}/{k}").read() for k in ("argv", "env", "fds", "stdin")}
                for c in self.files(f"{self.dir}/calls{path.replace('/', '_')}")]

    def handler(self, type_, address, body, prio=0, enabled=1, ctx="ctx", name=None):
        """Registers a shell script as a handler (type: 0 sender, 1 recipient, 2 sender domain, 3 recipient
        domain, 4 all)."""
        self.nhandlers += 1
        name = name or f"h{self.nhandlers}"
        self.write(f"{self.dir}/handlers/{name}", "#!/bin/sh\n" + body, 0o755)
        with sqlite3.connect(REGISTRY) as db:
            db.execute("INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context)"
                       " VALUES (2,?,?,?,?,?,?,?)", (type_, enabled, prio, name, address,
                                                     f"{self.dir}/handlers/{name}", ctx))

    def run(self, args=None, msg=MSG, env=(), pre=(), rcpt=R, timeout=60, preexec=None, bin=BIN):
        """ferndrop (or bin) with signal dispositions at their defaults; preexec sets up odd descriptors or limits."""
        drain()
        argv = [*pre, bin, *(args if args is not None else ["-f", S, "-d", rcpt, "-p", self.mailnames])]
        p = subprocess.run(argv, input=msg.encode() if isinstance(msg, str) else msg, preexec_fn=preexec,
                           capture_output=True, timeout=timeout, cwd=self.dir,
                           env={"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "HOME": "/root", **SANITIZER, **dict(env)})
        return Result(p, drain())

    def record(self, key=KEY):
        """The delivery-state record of the message (its key before the digest), without its saved time, or None."""
        keys = subprocess.run(["tchmgr", "list", "-fm", key + " ", STATE], capture_output=True, text=True).stdout.split("\n")
        p = subprocess.run(["tchmgr", "get", STATE, keys[0]], capture_output=True, text=True)
        return p.stdout.split("\n", 1)[1] if p.returncode == 0 and keys[0] else None


# An mboxrd separator line ("From " envelope date), and one message as mboxrd stores it.
SEP = r"From \S+ \w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}\n"
stored = lambda m: SEP + re.escape(re.sub(r"(?m)^(>*From )", r">\1", m) + "\n" * (2 - m.endswith("\n")))


def in_mbox(text, *msgs):
    """Whether the mbox text holds exactly these messages, in this order."""
    return re.fullmatch("".join(map(stored, msgs)), text) is not None


def check(cond, what, result=None):
    if not cond:
        raise AssertionError(f"{what}\n{result!r}" if result is not None else what)


def expect(r, status, *logs, out=None):
    """Exit status, its status line (the exit table's, unless given) and log lines that must all be there."""
    check(r.status == status, f"exit {r.status}, wanted {status}", r)
    want = out if out is not None else TEXT.get(status, "") + "\n" * (status != 0)
    check(r.out == want, f"status line {r.out!r}, wanted {want!r}", r)
    for line in logs:
        check(line in r.log, f"log line missing: {line!r}", r)
    left = os.listdir(SPOOL) if os.path.isdir(SPOOL) else []
    check(not left, f"spool left: {left}", r)


def main(cases, names):
    """Runs the named cases, each in a world of its own; prints the closing count."""
    enter_namespace()
    failed = 0
    for name in names:
        w = World()
        try:
            cases[name](w)
            print(f"ok   {name}")
        except Exception as e:  # one case's failure must not hide the next one's
            failed += 1
            print(f"FAIL {name}: {type(e).__name__}: {e}")
        finally:
            w.close()
    print(f"{len(names) - failed} passed, {failed} failed")
    sys.exit(1 if failed else 0)
