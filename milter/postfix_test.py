#!/usr/bin/env python3
"""smtpfm milter in front of a real Postfix, end to end.

Starts a private Postfix (its own configuration, queue, data and Maildir
folders under WORK, on free ports of 127.0.0.1; the system's Postfix
configuration is never read or touched) with `smtpfm milter` attached
through smtpd_milters and milter_default_action = tempfail, sends mail with
smtplib and checks what arrives in the Maildir:

  - a clean message arrives byte for byte as sent, apart from the trace
    fields (Return-Path, Delivered-To, Received, the verdict header);
  - an .exe attachment is replaced by a text/plain notice part named as it
    was with ".txt", the rest intact;
  - a script is refused with the policy's code and text at the SMTP level;
  - a message the plug-in cannot read is answered as on-error says;
  - with the milter killed while mail flows, every message was either
    delivered or refused with a temporary code (the client still has it),
    and all of them arrive once the milter is back.

usage: postfix_test.py BIN_DIR WORK_DIR
Exit 77 (skipped) only when not run as root, which a private Postfix needs.
"""

import base64
import email
import email.policy
import os
import pwd
import shutil
import signal
import smtplib
import socket
import stat
import subprocess
import sys
import tempfile
import threading
import time

SKIP = 77
# The postfix command lives in /usr/sbin, which a CI's PATH may lack.
POSTFIX = shutil.which("postfix") or shutil.which("postfix", path="/usr/sbin:/sbin")
DOMAIN = "smtpfm.test"

POLICY = """
notice = "The attachment {name} was removed (rule {rule})."
[on-error]
action = "reject"
code = 554
status = "5.6.0"
text = "Unreadable message"
[[rule]]
name = "executables"
file-name = ["*.exe", "*.scr"]
action = "disarm"
[[rule]]
name = "scripts"
file-name = ["*.js", "*.vbs"]
action = "reject"
code = 554
status = "5.7.1"
text = "Scripts are not accepted here"
"""

MASTER_CF = """\
{port} inet n - n - - smtpd
pickup unix n - n 60 1 pickup
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
verify unix - - n - 1 verify
flush unix n - n 1000? 0 flush
proxymap unix - - n - - proxymap
smtp unix - - n - - smtp
showq unix n - n - - showq
error unix - - n - - error
retry unix - - n - - error
discard unix - - n - - discard
local unix - n n - - local
virtual unix - n n - - virtual
anvil unix - - n - 1 anvil
scache unix - - n - 1 scache
postlog unix-dgram n - n - 1 postlogd
"""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, seconds=20):
    deadline = time.time() + seconds
    while time.time() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1):
                return True
        except OSError:
            time.sleep(0.1)
    return False


def reachable_by_others(folder):
    """Whether every folder from / down to `folder` may be entered by any user."""
    while True:
        if not os.stat(folder).st_mode & stat.S_IXOTH:
            return False
        parent = os.path.dirname(folder)
        if parent == folder:
            return True
        folder = parent


class Lab:
    """The private Postfix and the milter, stopped and removed on exit."""

    def __init__(self, bin_dir, work):
        self.bin_dir, self.work = bin_dir, work
        shutil.rmtree(work, ignore_errors=True)
        self.conf, self.queue = f"{work}/conf", f"{work}/queue"
        self.data, self.box = f"{work}/data", f"{work}/box"
        for folder in (self.conf, self.queue, self.data, self.box):
            os.makedirs(folder)
        postfix_user = pwd.getpwnam("postfix")
        nobody = pwd.getpwnam("nobody")
        os.chown(self.data, postfix_user.pw_uid, postfix_user.pw_gid)
        os.chown(self.box, nobody.pw_uid, nobody.pw_gid)
        os.chmod(work, 0o755)
        self.smtp_port, self.milter_port = free_port(), free_port()
        with open(f"{work}/policy.toml", "w") as f:
            f.write(POLICY)
        with open(f"{self.conf}/main.cf", "w") as f:
            f.write(f"""compatibility_level = 3.6
queue_directory = {self.queue}
data_directory = {self.data}
mail_owner = postfix
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
myhostname = mx.{DOMAIN}
mydestination =
mynetworks = 127.0.0.0/8
maillog_file = {work}/maillog
maillog_file_prefixes = {work}
virtual_mailbox_domains = {DOMAIN}
virtual_mailbox_base = {self.box}
virtual_mailbox_maps = static:box/
virtual_uid_maps = static:{nobody.pw_uid}
virtual_gid_maps = static:{nobody.pw_gid}
smtpd_milters = inet:127.0.0.1:{self.milter_port}
milter_default_action = tempfail
milter_protocol = 6
smtputf8_enable = no
""")
        with open(f"{self.conf}/master.cf", "w") as f:
            f.write(MASTER_CF.format(port=self.smtp_port))
        self.milter = None
        self.milter_log = open(f"{work}/milter.log", "ab")

    def start_milter(self):
        self.milter = subprocess.Popen(
            [f"{self.bin_dir}/smtpfm", "milter", "--policy", f"{self.work}/policy.toml",
             "--socket", f"inet:{self.milter_port}@127.0.0.1", "--log-stderr", "--workers", "2"],
            stdout=self.milter_log, stderr=self.milter_log)
        if not wait_for_port(self.milter_port):
            raise RuntimeError("the milter did not start: " + self.log("milter.log"))

    def start_postfix(self):
        subprocess.run([POSTFIX, "-c", self.conf, "start"], check=True, capture_output=True)
        if not wait_for_port(self.smtp_port):
            raise RuntimeError("postfix did not start: " + self.log("maillog"))

    def stop(self):
        subprocess.run([POSTFIX, "-c", self.conf, "stop"], capture_output=True)
        # postfix stop returns before master is gone; the queue folder must
        # not be removed under it.
        pid_file = f"{self.queue}/pid/master.pid"
        for _ in range(100):
            try:
                pid = int(open(pid_file).read().split()[0])
                os.kill(pid, 0)
            except (OSError, ValueError, IndexError):
                break
            time.sleep(0.1)
        if self.milter is not None and self.milter.poll() is None:
            self.milter.send_signal(signal.SIGTERM)
            try:
                self.milter.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.milter.kill()
                self.milter.wait()

    def log(self, name):
        try:
            return open(f"{self.work}/{name}", errors="replace").read()[-4000:]
        except OSError:
            return "(no log)"

    def send(self, message):
        """(code, text) of the answer to DATA; 250 when accepted."""
        try:
            with smtplib.SMTP("127.0.0.1", self.smtp_port, timeout=60) as client:
                client.sendmail(f"sender@example.org", [f"user@{DOMAIN}"], message)
            return 250, ""
        except smtplib.SMTPResponseException as e:
            return e.smtp_code, e.smtp_error.decode(errors="replace")
        except smtplib.SMTPRecipientsRefused as e:
            code, text = list(e.recipients.values())[0]
            return code, text.decode(errors="replace")

    def delivered(self, marker, seconds=30):
        """The delivered message that has `marker`, or None."""
        deadline = time.time() + seconds
        while time.time() < deadline:
            for sub in ("new", "cur"):
                folder = f"{self.box}/box/{sub}"
                for name in os.listdir(folder) if os.path.isdir(folder) else []:
                    data = open(f"{folder}/{name}", "rb").read()
                    if marker.encode() in data:
                        return data
            time.sleep(0.1)
        return None


def message(case, parts=None, extra_header=""):
    """A message with the header "X-Case: CASE", a text body and `parts`."""
    head = (f"From: sender@example.org\r\nTo: user@{DOMAIN}\r\nSubject: case {case}\r\n"
            f"Date: Tue, 24 Nov 2026 10:00:00 +0000\r\nMessage-ID: <{case}@example.org>\r\n"
            f"X-Case: {case}\r\n{extra_header}MIME-Version: 1.0\r\n")
    if not parts:
        return (head + "Content-Type: text/plain\r\n\r\nJust text.\r\n").encode()
    body = "--b\r\nContent-Type: text/plain\r\n\r\nPlease find it attached.\r\n"
    for name, data in parts:
        encoded = base64.encodebytes(data).decode().replace("\n", "\r\n")
        body += (f"--b\r\nContent-Type: application/octet-stream; name=\"{name}\"\r\n"
                 f"Content-Disposition: attachment; filename=\"{name}\"\r\n"
                 f"Content-Transfer-Encoding: base64\r\n\r\n{encoded}")
    return (head + "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n" + body + "--b--\r\n").encode()


TRACE = (b"return-path:", b"x-original-to:", b"delivered-to:", b"received:", b"x-smtpfm-verdict:")


def without_trace(data):
    """The message with the trace fields (and their continuation lines) gone."""
    out, dropping, in_header = [], False, True
    for line in data.split(b"\n"):
        if in_header and line.strip(b"\r") == b"":
            in_header = False
        if in_header and line[:1] in (b" ", b"\t"):
            if not dropping:
                out.append(line)
            continue
        dropping = in_header and line.lower().startswith(TRACE)
        if not dropping:
            out.append(line)
    return b"\n".join(out)


def verdict(data):
    return email.message_from_bytes(data, policy=email.policy.default)["X-Smtpfm-Verdict"]


def check(failures, condition, what):
    if not condition:
        failures.append(what)


def run_cases(lab, failures):
    # A clean message: byte for byte, apart from the trace fields.
    clean = message("clean", [("report.pdf", b"%PDF-1.4 not really\n" * 20)])
    code, text = lab.send(clean)
    check(failures, code == 250, f"clean: answered {code} {text}")
    got = lab.delivered("X-Case: clean")
    check(failures, got is not None and without_trace(got) == clean.replace(b"\r\n", b"\n"),
          f"clean: delivered otherwise than sent: {got!r}")
    check(failures, got is not None and verdict(got) == "accept", f"clean: verdict {got and verdict(got)}")

    # An executable: replaced by the notice, the rest as it was.
    code, text = lab.send(message("exe", [("setup.exe", b"MZ\x90\x00" * 64), ("notes.pdf", b"%PDF fine")]))
    check(failures, code == 250, f"exe: answered {code} {text}")
    got = lab.delivered("X-Case: exe")
    if got is None:
        failures.append("exe: not delivered")
    else:
        parsed = email.message_from_bytes(got, policy=email.policy.default)
        parts = {part.get_filename() or "body": part.get_payload(decode=True) for part in parsed.walk()
                 if not part.is_multipart()}
        types = {part.get_filename(): part.get_content_type() for part in parsed.walk() if part.get_filename()}
        check(failures, verdict(got) == "disarm; rules=executables", f"exe: verdict {verdict(got)}")
        # The part is a text/plain notice now, named as the attachment was with ".txt".
        check(failures, types.get("setup.exe.txt") == "text/plain" and "setup.exe" not in types,
              f"exe: the notice part is not setup.exe.txt, text/plain: {types}")
        notice = parts.get("setup.exe.txt", b"")
        check(failures, b"The attachment setup.exe was removed (rule executables)." in notice,
              f"exe: no notice in {parts}")
        check(failures, b"MZ" not in notice, "exe: the executable is still there")
        check(failures, parts.get("notes.pdf") == b"%PDF fine", f"exe: notes.pdf changed: {parts}")
        check(failures, parts.get("body", b"").rstrip() == b"Please find it attached.", f"exe: body changed: {parts}")

    # A script: refused with the policy's reply.
    code, text = lab.send(message("script", [("run.js", b"alert(1)")]))
    check(failures, (code, text) == (554, "5.7.1 Scripts are not accepted here"), f"script: answered {code} {text}")
    check(failures, lab.delivered("X-Case: script", 1) is None, "script: delivered")

    # Control bytes in the header: no mail to the plug-in, on-error refuses.
    code, text = lab.send(message("unreadable", extra_header="X-Junk: \x01\x02\x03\x04\x05\x06\r\n"))
    check(failures, (code, text) == (554, "5.6.0 Unreadable message"), f"unreadable: answered {code} {text}")


def run_kill(lab, failures):
    """Kills the milter while mail flows: none may be lost."""
    count = 30
    answers = {}

    def sender():
        for i in range(count):
            answers[i] = lab.send(message(f"flow-{i}", [("a.pdf", b"x" * 2000)]))

    thread = threading.Thread(target=sender)
    thread.start()
    while len(answers) < 5 and thread.is_alive():
        time.sleep(0.01)
    lab.milter.kill()
    lab.milter.wait()
    thread.join()
    temporary = [i for i, (code, _) in answers.items() if code != 250]
    check(failures, all(400 <= answers[i][0] < 500 for i in temporary),
          f"kill: a refusal that is not temporary: {answers}")
    check(failures, len(temporary) > 0, "kill: the milter's death went unnoticed")
    for i, (code, _) in answers.items():
        if code == 250:
            check(failures, lab.delivered(f"X-Case: flow-{i}") is not None, f"kill: flow-{i} accepted and lost")
    # The client tries again once the milter is back.
    lab.start_milter()
    for i in temporary:
        code, text = lab.send(message(f"flow-{i}", [("a.pdf", b"x" * 2000)]))
        check(failures, code == 250, f"kill: flow-{i} answered {code} {text} after the restart")
        got = lab.delivered(f"X-Case: flow-{i}")
        check(failures, got is not None and verdict(got) == "accept", f"kill: flow-{i} not delivered after the restart")


def main():
    bin_dir, work = sys.argv[1], sys.argv[2]
    if not reachable_by_others(os.path.dirname(os.path.abspath(work))):
        # Postfix's daemons run as the postfix user: a build folder under
        # a private home (/root is 0700) is closed to them.
        work = tempfile.mkdtemp(prefix="smtpfm-postfix-")
    if os.geteuid() != 0:
        print("SKIPPED: a private Postfix needs root (run make test as root or with sudo)")
        return SKIP
    if POSTFIX is None:
        print("FAILED: postfix is not installed (tools/deps.sh installs it)")
        return 1
    lab = Lab(bin_dir, work)
    failures = []
    try:
        lab.start_milter()
        lab.start_postfix()
        run_cases(lab, failures)
        run_kill(lab, failures)
    except Exception as e:  # the lab itself failed
        failures.append(f"{type(e).__name__}: {e}")
    finally:
        lab.stop()
    if failures:
        print("\n".join(["FAILED:"] + failures))
        print("--- milter log\n" + lab.log("milter.log"))
        print("--- postfix log\n" + lab.log("maillog"))
        return 1
    shutil.rmtree(work, ignore_errors=True)
    print("postfix end to end: 5 cases passed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
