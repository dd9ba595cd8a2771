"""The real kes_bstn binary: command line, exit statuses, and a configured daemon under systemd's eyes."""
import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

BIN = os.environ.get("KES_BSTN_BIN", "build/kes_bstn")


def run(*args):
    return subprocess.run([BIN, *args], capture_output=True, text=True, timeout=10)


class CommandLine(unittest.TestCase):
    def test_exit_statuses(self):
        rows = [((), 1, "no arguments: full help, nothing parsed"), (("--version",), 0, "version refused"),
                (("-d", "-v", "5"), 64, "level above TRACE"), (("-d", "-v", "-1"), 64, "negative level"),
                (("-d", "-v", "x"), 64, "no digit consumed"), (("-x",), 64, "unknown option"),
                (("-c",), 64, "option without its argument"), (("-d", "-v", "3abc"), 3, "3abc not taken as 3"),
                (("-d",), 3, "started without a configuration")]
        for args, status, fault in rows:
            self.assertEqual(run(*args).returncode, status, fault)
        version = re.fullmatch(r"kes_bstn (\d+\.\d+\.\d+)", run("--version").stdout.strip()).group(1)
        self.assertIn("Starting Kestrane Basic Station bridge " + version, run("-d").stderr, "two version numbers")

    def test_ready_then_watchdog_pings_and_a_summary_while_restarting(self):
        # No CUPS credential exists, so every pass fails at once at the CUPS step.
        with tempfile.TemporaryDirectory() as d, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
            with open(os.path.join(d, "kes.toml"), "w") as f:
                f.write('[general]\ngw_eui = "::1"\nsummary_interval = 1\n[cups]\nuri = "{d}/cups.uri"\n'
                        'key = "{d}/cups.key"\n[lns]\nuri = "{d}/tc.uri"\n[semtech]\nbind_port = 17999\n'.format(d=d))
            notify.bind(os.path.join(d, "notify"))
            notify.settimeout(10)
            with subprocess.Popen([BIN, "-d", "-c", f.name], stderr=subprocess.PIPE, text=True,
                                  env=dict(os.environ, NOTIFY_SOCKET=os.path.join(d, "notify"))) as p:
                try:
                    messages = [notify.recv(256).decode() for _ in range(3)]
                    self.assertEqual(messages, ["READY=1", "WATCHDOG=1", "WATCHDOG=1"])
                    # The first pass fails, the next waits its 20 s: the summaries count one restart in all.
                    restarts = []
                    while len(restarts) < 3 and (line := p.stderr.readline()):
                        if "summary of the last" in line:
                            restarts.append(int(line.rsplit("session restarts=", 1)[1].split()[0]))
                    self.assertEqual((len(restarts), sum(restarts)), (3, 1), "no summaries, or a short restart pause")
                    self.assertIsNone(p.poll(), "the daemon stopped after a failed pass")
                finally:
                    p.kill()


if __name__ == "__main__":
    sys.exit(0 if unittest.main(exit=False, verbosity=2).result.wasSuccessful() else 1)
