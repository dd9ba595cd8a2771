"""The real kes_bstn binary: command line, exit statuses, and a configured daemon under systemd's eyes."""
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BIN = os.environ.get("KES_BSTN_BIN", "build/kes_bstn")

# No CUPS credential exists, so every pass fails at once at the CUPS step.
CONFIG = """
[general]
gw_eui = "{eui}"
summary_interval = 1
[cups]
uri = "{d}/cups.uri"
key = "{d}/cups.key"
[lns]
uri = "{d}/tc.uri"
[semtech]
bind_port = 17999
"""


def run(*args):
    return subprocess.run([BIN, *args], capture_output=True, text=True, timeout=10)


class CommandLine(unittest.TestCase):
    def test_exit_statuses(self):
        rows = [
            ((), 1),                       # no arguments: full help, nothing parsed
            (("--version",), 0),
            (("-d", "-v", "5"), 64),       # level above TRACE
            (("-d", "-v", "-1"), 64),
            (("-d", "-v", "x"), 64),       # no digit consumed
            (("-x",), 64),                 # unknown option
            (("-c",), 64),                 # option without its argument
            (("-d", "-v", "3abc"), 3),     # taken as 3; then no -c
            (("-d",), 3),
        ]
        for args, status in rows:
            with self.subTest(args=args):
                self.assertEqual(run(*args).returncode, status)

    def test_one_version_everywhere(self):
        version = re.fullmatch(r"kes_bstn (\d+\.\d+\.\d+)", run("--version").stdout.strip()).group(1)
        self.assertIn("Starting Kestrane Basic Station bridge " + version, run("-d").stderr)


class Daemon(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def config(self, eui):
        path = os.path.join(self.dir, "kes.toml")
        with open(path, "w") as f:
            f.write(CONFIG.format(d=self.dir, eui=eui))
        return path

    def test_an_empty_gateway_identity_stops_the_start(self):
        r = run("-d", "-c", self.config(""))
        self.assertEqual(r.returncode, 1)
        self.assertIn("00-16-c0-01-ff-10-a2-35", r.stderr)  # the error shows the accepted forms

    def test_ready_then_watchdog_pings_and_a_summary_while_restarting(self):
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        notify.bind(os.path.join(self.dir, "notify"))
        notify.settimeout(10)
        env = dict(os.environ, NOTIFY_SOCKET=os.path.join(self.dir, "notify"))
        p = subprocess.Popen([BIN, "-d", "-c", self.config("::1")], stderr=subprocess.PIPE, text=True, env=env)
        try:
            messages = []
            while messages.count("WATCHDOG=1") < 2:
                messages.append(notify.recv(256).decode())
            self.assertEqual(messages[0], "READY=1")
            deadline = time.monotonic() + 10
            summary = ""
            while "summary of the last" not in summary and time.monotonic() < deadline:
                summary = p.stderr.readline()
            self.assertIn("session restarts=1", summary)
            self.assertIsNone(p.poll(), "the daemon keeps running")
        finally:
            p.kill()
            p.wait()
            p.stderr.close()
            notify.close()


if __name__ == "__main__":
    result = unittest.main(exit=False, verbosity=2).result
    sys.exit(0 if result.wasSuccessful() else 1)
