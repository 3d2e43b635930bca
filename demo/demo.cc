// The README's demo: real deliveries in a sandbox, narrated. Two handlers
// (one adds a header, one only logs), a .qmail with all four kinds of line,
// and a mailbox without .qmail that gets its mail through Dovecot's own LDA,
// then through Dovecot's LMTP server.
// Runs the ferndrop given as argv[1] (default: the one this build made) as the
// delivery user mail with group popuser, as Postfix's pipe would, in the
// layout that ferndrop-setup (argv[2], default: beside the ferndrop) makes.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "sandbox.h"

namespace {

std::string binary;

void heading(const std::string &text) { std::cout << "\n=== " << text << "\n"; }

void show(const std::string &title, const std::string &text) {
    std::cout << "--- " << title << "\n" << text;
    if (!text.empty() && text.back() != '\n')
        std::cout << "\n";
}

void report(const RunResult &r) {
    std::cout << "exit status: " << r.status << "\n";
    show("status line (stdout)", r.out.empty() ? "(none)\n" : r.out);
    if (!r.err.empty())
        show("stderr", r.err);
    show("syslog", r.logDump());
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string replaceAll(std::string text, const std::string &from, const std::string &to) {
    for (size_t p = text.find(from); p != std::string::npos; p = text.find(from, p + to.size()))
        text.replace(p, from.size(), to);
    return text;
}

// The group id ferndrop-setup gave popuser inside the sandbox.
gid_t popuserGid(Sandbox &sb) {
    std::istringstream in(sb.read("/etc/group"));
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, 8, "popuser:") == 0)
            return static_cast<gid_t>(atol(line.substr(line.find(':', 8) + 1).c_str()));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    binary = argc > 1 ? argv[1] : ferndropBinary();
    std::string setup = argc > 2 ? argv[2] : binary.substr(0, binary.rfind('/') + 1) + "ferndrop-setup";
    Sandbox sb;
    passwd *mail = getpwnam("mail");
    if (mail == nullptr) {
        std::cerr << "no user mail\n";
        return 1;
    }

    heading("Setting up a sandbox at " + sb.root());
    std::cout << "$ " << setup << " --user mail\n";
    RunResult layout = sb.shell("'" + setup + "' --user mail");
    std::cout << layout.out << layout.err;
    if (layout.status != 0)
        return 1;
    gid_t group = popuserGid(sb);
    auto asDeliveryUser = [&](const std::vector<std::string> &args, const std::string &input) {
        RunSpec spec;
        spec.argv = {binary};
        spec.argv.insert(spec.argv.end(), args.begin(), args.end());
        spec.input = input;
        spec.uid = mail->pw_uid;
        spec.gid = group;
        return sb.run(spec);
    };
    auto chownTree = [&](const std::string &hostDir) {
        if (system(("chown -R mail '" + hostDir + "'").c_str()) != 0)
            perror("chown");
    };
    // Handlers: the first adds a header and passes, the second answers SKIP.
    sb.write("/usr/local/qrn/handlers/bin/stamp",
             "#!/bin/sh\n# context=$1 sender=$2 recipient=$3\n"
             "printf 'X-Ferndrop-Demo: stamped for %s\\n' \"$3\"\ncat\necho 'LOG stamped the message' >&2\n",
             0755);
    sb.write("/usr/local/qrn/handlers/bin/observe", "#!/bin/sh\necho 'LOG observed, no change' >&2\necho SKIP >&2\n",
             0755);
    std::string db = sb.host("/var/lib/kavra/mail/handlers/handlers.db");
    std::string sql = "INSERT INTO handlers VALUES(2,3,1,10,'stamp','example.com','/usr/local/qrn/handlers/bin/stamp','ctx',0);"
                      "INSERT INTO handlers VALUES(2,4,1,20,'observe','all','/usr/local/qrn/handlers/bin/observe','',0);";
    if (system(("sqlite3 '" + db + "' \"" + sql + "\"").c_str()) != 0) {
        std::cerr << "sqlite3 failed\n";
        return 1;
    }
    std::cout << "registry: stamp (recipient domain example.com), observe (all)\n";

    std::string alice = sb.mailbox("example.com", "alice");
    for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
        sb.mkdirs(alice + sub);
    std::string qmail = "# alice keeps a copy, files one, pipes one and forwards one\n"
                        "./Maildir/\n"
                        "./mbox\n"
                        "| wc -c > last-size.txt\n"
                        "&alice.backup@example.net\n";
    sb.write(alice + "/.qmail", qmail, 0600);
    chownTree(alice);
    sb.installSendmailRecorder();
    show("alice's .qmail", qmail);

    std::string bob = sb.mailbox("example.com", "bob");
    chownTree(bob);
    sb.mkdirs("/usr/libexec/dovecot");
    if (symlink("/usr/lib/dovecot/dovecot-lda", sb.host("/usr/libexec/dovecot/dovecot-lda").c_str()) != 0)
        perror("symlink");
    std::string conf = slurp(sourceDir() + "/demo/dovecot.conf");
    conf = replaceAll(replaceAll(conf, "@MAILNAMES@", sb.mailnames()), "@LOG@", sb.root() + "/dovecot.log");
    // The LDA runs as mail:popuser, not as root: it keeps the ids it has and
    // must reach the stats socket (docs/postfix.md).
    conf = replaceAll(conf, "gid=mail", "gid=popuser") +
           "service stats {\n  unix_listener stats-writer {\n    mode = 0660\n    group = popuser\n  }\n}\n";
    sb.write("/etc/dovecot/dovecot.conf", conf);
    std::string dovecotLog = sb.root() + "/dovecot.log";
    std::ofstream(dovecotLog).close();
    if (chown(dovecotLog.c_str(), mail->pw_uid, group) != 0)
        perror("chown");

    const std::string message = "From: carol@example.org\nTo: alice@example.com\nMessage-ID: <demo.1@example.org>\n"
                                "Subject: hello\n\nHello from the demo.\n";
    show("the message", message);

    heading("Delivery 1: carol@example.org -> alice@example.com (handlers, then .qmail)");
    std::string cmd = "'" + binary + "' -f carol@example.org -d alice@example.com -p '" + sb.mailnames() + "'";
    std::cout << "$ " << cmd << " < message    # as mail:popuser\n";
    RunResult r1 = asDeliveryUser({"-f", "carol@example.org", "-d", "alice@example.com", "-p", sb.mailnames()}, message);
    report(r1);
    auto maildir = sb.list(alice + "/Maildir/new");
    show("Maildir/new", maildir.empty() ? "(empty)\n" : maildir[0] + "\n");
    if (!maildir.empty())
        show("the stored message", sb.read(alice + "/Maildir/new/" + maildir[0]));
    show("mbox", sb.read(alice + "/mbox"));
    show("last-size.txt (the program line's output)", sb.read(alice + "/last-size.txt"));
    for (const auto &call : sb.calls("sendmail"))
        show("sendmail was called with", slurp(call + "/argv"));

    // Dovecot runs for one delivery and is stopped before the sandbox goes.
    auto withDovecot = [&](const std::string &command) {
        return sb.shell("/usr/sbin/dovecot || exit 120\nsetpriv --reuid=mail --regid=" + std::to_string(group) +
                            " --clear-groups " + command +
                            "\nrc=$?\npid=$(cat /run/dovecot/master.pid)\n/usr/sbin/dovecot stop\n"
                            "while kill -0 $pid 2>/dev/null; do sleep 0.1; done\nexit $rc\n",
                        message);
    };
    heading("Delivery 2: carol@example.org -> Bob@Example.COM (no .qmail: INBOX through Dovecot's LDA)");
    std::string cmd2 = "'" + binary + "' -f carol@example.org -d Bob@Example.COM -p '" + sb.mailnames() + "'";
    std::cout << "$ " << cmd2 << " < message    # as mail:popuser\n";
    RunResult r2 = withDovecot(cmd2);
    report(r2);
    auto inbox = sb.list(bob + "/Maildir/new");
    show("bob's Maildir/new (written by dovecot-lda)", inbox.empty() ? "(empty)\n" : inbox[0] + "\n");
    if (!inbox.empty())
        show("the stored message", sb.read(bob + "/Maildir/new/" + inbox[0]));

    heading("Delivery 3: the same, INBOX through Dovecot's LMTP server");
    std::string settings = "store lmtp:unix:/run/dovecot/lmtp\n";
    sb.write("/etc/ferndrop/ferndrop.conf", settings);
    show("/etc/ferndrop/ferndrop.conf", settings);
    std::cout << "$ " << cmd2 << " < message    # as mail:popuser\n";
    RunResult r3 = withDovecot(cmd2);
    report(r3);
    auto throughLmtp = sb.list(bob + "/Maildir/new");
    show("bob's Maildir/new (the second one written by Dovecot's lmtp)", "");
    for (const auto &name : throughLmtp)
        std::cout << name << "\n";

    heading("Delivery 4: an unknown mailbox is bounced (5.1.1), a bad recipient refused");
    RunResult r4 = asDeliveryUser({"-f", "carol@example.org", "-d", "nobody@example.com", "-p", sb.mailnames()}, message);
    report(r4);
    RunResult r5 = asDeliveryUser({"-f", "carol@example.org", "-d", "no-domain", "-p", sb.mailnames()}, message);
    report(r5);

    bool ok = r1.status == 0 && r2.status == 0 && r3.status == 0 && maildir.size() == 1 && inbox.size() == 1 &&
              throughLmtp.size() == 2 && r4.status == 67 && r5.status == 65;
    heading(ok ? "demo finished: all deliveries as expected" : "demo finished with unexpected results");
    return ok ? 0 : 1;
}
