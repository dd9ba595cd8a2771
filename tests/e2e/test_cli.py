"""Command line, exit statuses and start-up of the real kes_bstn binary."""
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

BIN = os.environ.get("KES_BSTN_BIN", "build/kes_bstn")

GOOD_CONFIG = """
[general]
gw_eui = "00-16-c0-01-ff-10-a2-35"
name = "cli-test"
unknown_key = "ignored"
[cups]
uri = "{d}/cups.uri"
trust = "{d}/cups.trust"
key = "{d}/cups.key"
[lns]
uri = "{d}/tc.uri"
[semtech]
bind_port = {port}
"""


def run(*args, timeout=10):
    return subprocess.run([BIN, *args], capture_output=True, text=True, timeout=timeout)


class Options(unittest.TestCase):
    def test_no_arguments_prints_full_help_and_exits_1(self):
        r = run()
        self.assertEqual(r.returncode, 1)
        self.assertIn("Path to configuration file", r.stderr)
        self.assertIn("Kestrane Basic Station bridge 1.7.1", r.stderr)

    def test_version_and_help(self):
        r = run("--version")
        self.assertEqual((r.returncode, r.stdout.strip()), (0, "kes_bstn 1.7.1"))
        r = run("--help")
        self.assertEqual(r.returncode, 0)
        flat = " ".join(r.stdout.split())  # argp wraps long help texts
        for text in ("--config=FILE", "Path to configuration file", "--stderr",
                     "Send log messages to the standard error descriptor instead of syslog.",
                     "--verbose=LEVEL", "Logs verbosity level:", "0 - ERROR, 1 - WARN, 2 - INFO, 3 - DEBUG, 4 - TRACE"):
            self.assertIn(text, flat)

    def test_bad_log_levels_are_usage_errors(self):
        for level in ("5", "-1", "x", ""):
            with self.subTest(level=level):
                r = run("-d", "-v", level)
                self.assertEqual(r.returncode, 64)
                self.assertIn("Invalid log level value: %s\n" % level, r.stderr)

    def test_unknown_option_and_missing_argument_are_usage_errors(self):
        self.assertEqual(run("-x").returncode, 64)
        self.assertEqual(run("-c").returncode, 64)

    def test_accepted_levels_then_missing_config_exits_3(self):
        for level, shown in (("0", 0), ("4", 4), ("3abc", 3)):
            with self.subTest(level=level):
                r = run("-d", "-v", level)
                self.assertEqual(r.returncode, 3)
                self.assertIn("logging to stderr is on\n", r.stderr)
                self.assertIn("log level: %d\n" % shown, r.stderr)
                self.assertEqual("missing configuration file argument, aborting..." in r.stderr, True)
        # the banner is INFO: shown at level 4, not at level 0
        r = run("-d", "-v", "4")
        self.assertIn("Starting Kestrane Basic Station bridge 1.7.1", r.stderr)
        r = run("-d", "-v", "0")
        self.assertNotIn("Starting Kestrane Basic Station bridge", r.stderr)

    def test_only_stderr_flag_exits_3_after_banner(self):
        r = run("-d")
        self.assertEqual(r.returncode, 3)
        banner = r.stderr.find("Starting Kestrane Basic Station bridge 1.7.1")
        error = r.stderr.find("missing configuration file argument, aborting...")
        self.assertTrue(0 <= banner < error, r.stderr)
        line = [l for l in r.stderr.splitlines() if "missing configuration" in l][0]
        self.assertRegex(line, r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}[+-]\d{4} \[\d+\]\[ERROR \] main_bstn\.cpp:\d+ ")


class Configuration(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.dir = self.tmp.name

    def tearDown(self):
        self.tmp.cleanup()

    def write(self, text):
        path = os.path.join(self.dir, "kes.toml")
        with open(path, "w") as f:
            f.write(text)
        return path

    def test_configuration_failures_exit_1(self):
        cases = {
            "missing file": (os.path.join(self.dir, "nope.toml"), "failed to open configuration file"),
            "syntax": (self.write("[general\n"), "failed to parse configuration file"),
        }
        for name, (path, message) in cases.items():
            with self.subTest(name):
                r = run("-d", "-c", path)
                self.assertEqual(r.returncode, 1)
                self.assertIn(message, r.stderr)
                self.assertIn("aborting execution due to critical error: [-1]", r.stderr)

    def test_invalid_bind_port_is_refused_at_load(self):
        for port in ("0", "-1", "70000", '"1700"'):
            with self.subTest(port=port):
                path = self.write(GOOD_CONFIG.format(d=self.dir, port=port))
                r = run("-d", "-c", path)
                self.assertEqual(r.returncode, 1)
                self.assertIn("bind_port", r.stderr)

    def test_loaded_configuration_is_printed_and_the_loop_restarts(self):
        # No CUPS credentials exist, so every pass fails at the CUPS step and the
        # loop announces its restart; the process must keep running.
        path = self.write(GOOD_CONFIG.format(d=self.dir, port=17999))
        p = subprocess.Popen([BIN, "-d", "-v", "4", "-c", path], stderr=subprocess.PIPE, text=True)
        try:
            lines = []
            deadline = time.time() + 15
            while time.time() < deadline:
                line = p.stderr.readline()
                if not line:
                    break
                lines.append(line)
                if "restarting Basic Station in 20 seconds..." in line:
                    break
            out = "".join(lines)
            self.assertIsNone(p.poll(), "the daemon must keep running")
            self.assertIn("loading configuration file: %s\n" % path, out)
            self.assertRegex(out, r"cfg section: \[general {18}\] entry: \[gw_eui {19}\] -> 00-16-c0-01-ff-10-a2-35")
            self.assertRegex(out, r"cfg section: \[semtech {18}\] entry: \[bind_port {16}\] -> 17999")
            self.assertRegex(out, r"cfg section: \[general {18}\] entry: \[skip_cups {16}\] -> 0")
            self.assertNotIn("unknown_key", out)
            self.assertRegex(out, r"non-critical error raised: \[-?\d+\]")
            self.assertIn("restarting Basic Station in 20 seconds...", out)
        finally:
            p.kill()
            p.wait()
            p.stderr.close()


if __name__ == "__main__":
    result = unittest.main(exit=False, verbosity=2).result
    sys.exit(0 if result.wasSuccessful() else 1)
