"""The mail side of postfix_e2e.sh, run inside its namespaces.

  postfix_e2e.py syslog FILE   collect /dev/log datagrams into FILE, one a line
  postfix_e2e.py check ...     send the messages over SMTP, wait for Postfix's
                               queue to drain, read every mailbox over IMAP
                               and compare
"""
import argparse
import base64
import email
import imaplib
import os
import re
import smtplib
import socket
import subprocess
import sys
import time

DOMAIN = "example.com"
BOXES = ["alice", "bob", "carol", "dave", "refuse"]
SPOOL = "/usr/local/qrn/handlers/spool"


def syslog(path):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind("/dev/log")
    os.chmod("/dev/log", 0o666)
    with open(path, "ab", buffering=0) as out:
        while True:
            data = sock.recv(65536)
            out.write(data.rstrip(b"\0").rstrip(b"\n") + b"\n")


class Case:
    def __init__(self, name, sender, rcpt, body, headers=(), eightbit=False):
        self.name = name
        self.sender = sender
        self.rcpts = rcpt.split(",")
        self.msgid = "<%s.%d@e2e.example.org>" % (name, os.getpid())
        head = [
            b"From: " + (sender or "MAILER-DAEMON@example.org").encode(),
            b"To: " + rcpt.encode(),
            b"Subject: e2e " + name.encode(),
            b"Message-ID: " + self.msgid.encode(),
        ] + [h.encode() for h in headers]
        self.body = body
        self.raw = b"\n".join(head) + b"\n\n" + body
        self.eightbit = eightbit


def cases():
    blob = base64.encodebytes(os.urandom(1 << 20))
    attachment = (b"--b1\nContent-Type: text/plain\n\nsee attachment\n"
                  b"--b1\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: base64\n"
                  b"Content-Disposition: attachment; filename=blob.bin\n\n" + blob + b"--b1--\n")
    return [
        Case("plain", "carol@example.com", "alice@example.com",
             b"Hello Alice.\n.\n..a line that starts with dots\nBye.\n"),
        Case("attachment", "carol@example.com", "alice@example.com", attachment,
             ["MIME-Version: 1.0", 'Content-Type: multipart/mixed; boundary="b1"']),
        Case("eightbit", "carol@example.com", "alice@example.com",
             "Grüße aus Köln, ça va? Ünïcödé — €100\n".encode("utf-8") + bytes(range(0x80, 0x100)) + b"\n",
             ["MIME-Version: 1.0", "Content-Type: text/plain; charset=utf-8",
              "Content-Transfer-Encoding: 8bit"], eightbit=True),
        Case("mixedcase", "carol@example.com", "Alice@Example.COM", b"Case does not matter.\n"),
        Case("nullsender", "", "alice@example.com", b"A notification with the null sender.\n"),
        Case("forward", "carol@example.com", "bob@example.com", b"Bob keeps one, Dave gets one.\n"),
        # One transaction, two recipients: one ferndrop run for each.
        Case("tworcpts", "carol@example.com", "alice@example.com,dave@example.com", b"For both of you.\n"),
        Case("nullforward", "", "bob@example.com", b"A bounce that bob forwards.\n"),
        Case("unknown", "carol@example.com", "nobody@example.com", b"Nobody lives here.\n"),
        Case("refused", "carol@example.com", "refuse@example.com", b"This one comes back.\n"),
        Case("loop", "carol@example.com", "loop1@example.com", b"Round and round.\n"),
    ]


def fetch_all(port):
    """{box: [raw message bytes with LF line ends]} for every mailbox's INBOX."""
    boxes = {}
    for box in BOXES:
        imap = imaplib.IMAP4("127.0.0.1", port)
        imap.login("%s@%s" % (box, DOMAIN), "secret")
        imap.select("INBOX", readonly=True)
        _, data = imap.search(None, "ALL")
        msgs = []
        for num in data[0].split():
            _, parts = imap.fetch(num, "(BODY.PEEK[])")
            msgs.append(parts[0][1].replace(b"\r\n", b"\n"))
        imap.logout()
        boxes[box] = msgs
    return boxes


def split(raw):
    head, _, body = raw.partition(b"\n\n")
    return email.message_from_bytes(head + b"\n\n"), body


def queue_empty():
    out = subprocess.run(["postqueue", "-j"], capture_output=True, check=False).stdout
    return out.strip() == b""


def check(args):
    todo = cases()
    smtp = smtplib.SMTP("127.0.0.1", args.smtp, local_hostname="client.example.org")
    for c in todo:
        opts = ["BODY=8BITMIME"] if c.eightbit else []
        smtp.sendmail(c.sender, c.rcpts, c.raw.replace(b"\n", b"\r\n"), mail_options=opts)
    smtp.quit()

    # Postfix has accepted everything; once its queue is empty nothing more
    # can arrive, so the counts below are final.
    deadline = time.time() + 60
    while not queue_empty():
        if time.time() > deadline or "status=deferred" in open(args.log, "rb").read().decode("utf-8", "replace"):
            print(subprocess.run(["postqueue", "-p"], capture_output=True, text=True).stdout)
            return fail("the queue did not drain (deferred deliveries above)")
        time.sleep(0.2)
    boxes = fetch_all(args.imap)
    log = open(args.log, "rb").read().decode("utf-8", "replace")

    problems = []
    by_id = {}
    for box, msgs in boxes.items():
        for raw in msgs:
            head, _ = split(raw)
            by_id.setdefault(head.get("Message-ID", ""), []).append((box, raw))

    def expect(case, where):
        got = sorted(box for box, _ in by_id.get(case.msgid, []))
        if got != sorted(where):
            problems.append("%s: expected in %s, found in %s" % (case.name, sorted(where), got))
            return
        for box, raw in by_id.get(case.msgid, []):
            head, body = split(raw)
            if body != case.body:
                problems.append("%s in %s: body differs (%d bytes stored, %d sent)" %
                                (case.name, box, len(body), len(case.body)))
            stamps = head.get_all("X-Ferndrop-Stamp") or []
            if not stamps or any(not s.endswith(" popuser") for s in stamps):
                problems.append("%s in %s: handler stamps %r" % (case.name, box, stamps))

    named = {c.name: c for c in todo}
    for name in ["plain", "attachment", "eightbit", "mixedcase", "nullsender"]:
        expect(named[name], ["alice"])
    expect(named["forward"], ["bob", "dave"])
    expect(named["tworcpts"], ["alice", "dave"])
    expect(named["nullforward"], ["bob", "dave"])
    expect(named["unknown"], [])
    expect(named["refused"], [])
    expect(named["loop"], [])

    # Postfix hands the null sender over as "<>" (null_sender=<>), which the
    # R flag writes quoted into Return-Path. The forwarded copies went out
    # through Postfix's sendmail again with the envelope sender kept: the
    # null sender stays null instead of becoming MAILER-DAEMON@example.com.
    null_rp = '<"<>">'
    if "ferndrop: from=<>, to=alice@example.com" not in log:
        problems.append("ferndrop was not given -f '<>' for the null sender")
    if len(re.findall(r"postfix/pickup\[\d+\]: \w+: uid=\d+ from=<>", log)) != 1:
        problems.append("the forwarded bounce did not keep the null sender")
    for name, sender in [("forward", "<carol@example.com>"), ("nullforward", null_rp)]:
        for box, raw in by_id.get(named[name].msgid, []):
            head, _ = split(raw)
            if head.get("Return-Path") != sender:
                problems.append("%s in %s: Return-Path %r, want %r" % (name, box, head.get("Return-Path"), sender))
            if box == "dave" and len(head.get_all("X-Ferndrop-Stamp") or []) != 2:
                problems.append("forwarded copy should carry both passes' stamps")

    # The refused message comes back to carol, once, as a bounce naming the
    # permanent status ferndrop reported; the forwarding loop is cut by the
    # D flag's Delivered-To check and bounced the same way.
    all_bounces = 0
    for name, status in [("refused", b"Status: 5.7.1"), ("loop", b"Status: 5.4.6")]:
        bounces = [raw for raw in boxes["carol"] if named[name].msgid.encode() in raw]
        all_bounces += len(bounces)
        if len(bounces) != 1:
            problems.append("%s: %d bounces for carol, want 1" % (name, len(bounces)))
            continue
        head, body = split(bounces[0])
        if "<MAILER-DAEMON@example.com>" not in head.get("From", "") or status not in body:
            problems.append("%s: not a %s bounce:\n%s" % (name, status.decode(),
                                                           bounces[0][:3000].decode("utf-8", "replace")))
        if head.get("Return-Path") != null_rp:
            problems.append("%s: bounce Return-Path %r" % (name, head.get("Return-Path")))
    if len(boxes["carol"]) != all_bounces:
        problems.append("carol got %d messages besides the bounces" % (len(boxes["carol"]) - all_bounces))

    if "Unknown user: nobody@example.com" not in log:
        problems.append("no 'Unknown user' line for nobody@example.com")
    if "status=deferred" in log:
        problems.append("Postfix deferred a delivery")
    leftovers = os.listdir(SPOOL)
    if leftovers:
        problems.append("spool not empty: %s" % leftovers)

    if problems:
        return fail("\n".join(problems))
    total = sum(len(m) for m in boxes.values())
    print("postfix_e2e: %d messages sent, %d stored, all as expected" % (len(todo), total))
    return 0


def fail(text):
    print("postfix_e2e: FAILED\n" + text, file=sys.stderr)
    return 1


def main():
    if sys.argv[1] == "syslog":
        syslog(sys.argv[2])
        return 0
    p = argparse.ArgumentParser()
    p.add_argument("mode")
    p.add_argument("--smtp", type=int)
    p.add_argument("--imap", type=int)
    p.add_argument("--log")
    return check(p.parse_args())


if __name__ == "__main__":
    sys.exit(main())
