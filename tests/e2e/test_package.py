"""The Debian package of the daemon, built with CPack from the current build.

Checks what an installation gets: files, modes, conffile, dependencies that
match what the binary links, a service unit that systemd accepts and that
fits the package's own paths, a configuration the real daemon loads, and the
packaged binary's version. The package is unpacked with `dpkg -x` into a
scratch folder, which needs no privileges and leaves the machine untouched.

With KES_PACKAGE_INSTALL=1, as root, the package is also installed on this
machine with `dpkg -i` (service user, ownership of /var/lib/kes_bstn,
maintainer scripts) and purged again: scripts/package.sh --install-test.
"""
import configparser
import os
import pwd
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import tomllib
import unittest

BIN = os.path.realpath(os.environ.get("KES_BSTN_BIN", "build/kes_bstn"))
BUILD_DIR = os.path.dirname(BIN)
VERSION = "1.7.1"
PACKAGE = "kes-bstn"
STATE_DIR = "/var/lib/kes_bstn"
CONFIG = "/etc/kes_bstn/kes_bstn.toml"
UNIT = "/lib/systemd/system/kes_bstn.service"
SERVICE_USER = "kes_bstn"
# Runtime libraries of a sanitizer build are not product dependencies.
SANITIZER_SONAMES = re.compile(r"^lib(asan|ubsan|lsan|tsan)\.so")


def sh(*args, timeout=120, check=True, **kw):
    r = subprocess.run(list(args), capture_output=True, text=True, timeout=timeout, **kw)
    if check and r.returncode != 0:
        raise AssertionError("%s failed (%d): %s%s" % (" ".join(args), r.returncode, r.stdout, r.stderr))
    return r


def host_arch():
    return sh("dpkg", "--print-architecture").stdout.strip()


def depends_names(depends):
    """Depends field -> list of alternatives, each a list of package names."""
    groups = []
    for clause in depends.split(","):
        alts = [re.sub(r"\s*\(.*\)|:\w+", "", a).strip() for a in clause.split("|")]
        groups.append([a for a in alts if a])
    return groups


def run_daemon_until(argv, marker, seconds, **kw):
    """Runs the daemon, returns its standard error once `marker` appeared or
    after `seconds`; the process is always ended."""
    # Bytes, not text: a non-blocking text stream raises when nothing is ready.
    p = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, **kw)
    os.set_blocking(p.stderr.fileno(), False)
    out = b""
    deadline = time.monotonic() + seconds
    try:
        while time.monotonic() < deadline and marker.encode() not in out and p.poll() is None:
            time.sleep(0.1)
            out += p.stderr.read() or b""
    finally:
        if p.poll() is None:
            p.send_signal(signal.SIGTERM)
        p.wait(timeout=10)
        out += p.stderr.read() or b""
        p.stderr.close()
    return out.decode(errors="replace")


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="kes-pkg-")
        cpack_config = os.path.join(BUILD_DIR, "CPackConfig.cmake")
        if not os.path.isfile(cpack_config):
            raise AssertionError("no %s: is cmake/packaging.cmake included?" % cpack_config)
        sh("cpack", "-G", "DEB", "--config", cpack_config, "-B", os.path.join(cls.tmp, "cpack"), cwd=BUILD_DIR)
        cls.deb = os.path.join(cls.tmp, "cpack", "%s_%s_%s.deb" % (PACKAGE, VERSION, host_arch()))
        if not os.path.isfile(cls.deb):
            raise AssertionError("cpack made no %s" % cls.deb)
        cls.root = os.path.join(cls.tmp, "root")
        sh("dpkg", "-x", cls.deb, cls.root)
        cls.control = os.path.join(cls.tmp, "control")
        sh("dpkg-deb", "-e", cls.deb, cls.control)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def field(self, name):
        return sh("dpkg-deb", "-f", self.deb, name).stdout.strip()

    def test_control_fields(self):
        self.assertEqual(self.field("Package"), PACKAGE)
        self.assertEqual(self.field("Version"), VERSION)
        self.assertEqual(self.field("Architecture"), host_arch())

    def test_dependencies_are_real_packages_covering_every_linked_library(self):
        groups = depends_names(self.field("Depends"))
        declared = {name for alts in groups for name in alts}
        # Each dependency names a package this machine has installed (the
        # binary runs here), so no name is misspelt or from another release.
        for alts in groups:
            installed = [a for a in alts if sh("dpkg-query", "-W", "-f=${Status}", a, check=False)
                         .stdout.endswith("installed")]
            self.assertTrue(installed, "no alternative of %s is an installed package" % alts)
        # Each library the binary links directly comes from a declared package
        # or from a package those depend on (libcap2 through libwebsockets17,
        # when the linker keeps libraries that are not strictly needed).
        provided = set(declared)
        for name in declared:
            deps = sh("dpkg-query", "-W", "-f=${Depends}", name, check=False).stdout
            provided |= {n for alts in depends_names(deps) for n in alts}
        needed = re.findall(r"NEEDED\s+(\S+)", sh("objdump", "-p", BIN).stdout)
        self.assertTrue(needed)
        paths = dict(re.findall(r"^\s*(\S+) => (\S+)", sh("ldd", BIN).stdout, re.M))
        for soname in needed:
            if SANITIZER_SONAMES.match(soname):
                continue
            with self.subTest(soname=soname):
                self.assertIn(soname, paths)
                owner = self.owning_package(paths[soname])
                self.assertIn(owner, provided, "%s comes from %s" % (soname, owner))

    @staticmethod
    def owning_package(path):
        real = os.path.realpath(path)
        candidates = {path, real}
        for p in list(candidates):  # merged /usr: dpkg may know either spelling
            candidates.add(p[4:] if p.startswith("/usr/") else "/usr" + p)
        for p in sorted(candidates):
            r = sh("dpkg", "-S", p, check=False)
            if r.returncode == 0:
                return r.stdout.split(":")[0].strip()
        raise AssertionError("no package owns %s" % path)

    def test_files_and_modes(self):
        listing = sh("dpkg-deb", "-c", self.deb).stdout
        entries = {}
        for line in listing.splitlines():
            parts = line.split()
            entries[parts[-1].rstrip("/").lstrip(".")] = (parts[0], parts[1])
        expected = {
            "/usr/bin/kes_bstn": "-rwxr-xr-x",
            CONFIG: "-rw-r--r--",
            STATE_DIR: "drwx------",
            UNIT: "-rw-r--r--",
            "/usr/share/doc/kes-bstn/operator-guide.md": "-rw-r--r--",
            "/usr/share/doc/kes-bstn/changelog.gz": "-rw-r--r--",
            "/usr/share/lintian/overrides/kes-bstn": "-rw-r--r--",
            "/usr/share/man/man8/kes_bstn.8.gz": "-rw-r--r--",
        }
        for path, mode in expected.items():
            with self.subTest(path=path):
                self.assertIn(path, entries)
                self.assertEqual(entries[path], (mode, "root/root"))
        # Nothing else is shipped besides these and their parent folders.
        files = {p for p, (m, _) in entries.items() if not m.startswith("d")}
        self.assertEqual(files, {p for p, m in expected.items() if not m.startswith("d")})

    def test_conffile_and_maintainer_scripts(self):
        with open(os.path.join(self.control, "conffiles")) as f:
            self.assertEqual(f.read().split(), [CONFIG])
        for script in ("postinst", "prerm", "postrm"):
            with self.subTest(script=script):
                path = os.path.join(self.control, script)
                self.assertEqual(os.stat(path).st_mode & 0o777, 0o755)
                sh("sh", "-n", path)
        # The postinst creates the user the unit runs as.
        with open(os.path.join(self.control, "postinst")) as f:
            self.assertIn("user=%s\n" % SERVICE_USER, f.read())

    def test_packaged_binary_reports_its_version(self):
        r = sh(os.path.join(self.root, "usr/bin/kes_bstn"), "--version")
        self.assertEqual(r.stdout.strip(), "kes_bstn %s" % VERSION)

    def test_shipped_configuration_points_into_the_state_folder_and_loads(self):
        path = self.root + CONFIG
        with open(path, "rb") as f:
            cfg = tomllib.load(f)
        self.assertEqual(sorted(cfg), ["cups", "general", "lns", "semtech"])
        keys = ["uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key", "key_backup"]
        for section in ("cups", "lns"):
            self.assertEqual(sorted(cfg[section]), sorted(keys))
            for key in keys:
                self.assertEqual(os.path.dirname(cfg[section][key]), STATE_DIR, (section, key))
        files = [cfg[s][k] for s in ("cups", "lns") for k in keys]
        self.assertEqual(len(set(files)), len(files), "two keys name the same file")
        self.assertIsInstance(cfg["semtech"]["bind_port"], int)
        self.assertIn("gw_eui", cfg["general"])
        self.assertIs(cfg["general"]["skip_cups"], False)
        # The real daemon accepts the file and enters its loop; unprovisioned,
        # the first pass stops at the missing CUPS key file.
        if os.path.exists(cfg["cups"]["key"]):
            self.skipTest("%s exists on this machine" % cfg["cups"]["key"])
        # The shipped gw_eui is empty on purpose: the operator must set it first.
        r = sh(os.path.join(self.root, "usr/bin/kes_bstn"), "-d", "-c", path, check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn("gw_eui", r.stderr)
        with open(path) as f:
            text = f.read().replace('gw_eui = ""', 'gw_eui = "00-16-c0-01-ff-10-a2-35"')
        path = os.path.join(self.tmp, "kes_bstn.toml")
        with open(path, "w") as f:
            f.write(text)
        out = run_daemon_until([os.path.join(self.root, "usr/bin/kes_bstn"), "-d", "-v", "4", "-c", path],
                               "restarting Basic Station in 20 seconds...", 10)
        self.assertNotIn("aborting execution due to critical error", out)
        self.assertIn("missing mandatory key file %s from main set" % cfg["cups"]["key"], out)
        self.assertIn("restarting Basic Station in 20 seconds...", out)

    def test_service_unit(self):
        unit_path = self.root + UNIT
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str
        unit.read(unit_path)
        svc = unit["Service"]
        # The unit's paths and user are the package's own.
        argv = svc["ExecStart"].split()
        self.assertEqual(argv, ["/usr/bin/kes_bstn", "-c", CONFIG])
        for p in (argv[0], argv[2]):
            self.assertTrue(os.path.isfile(self.root + p), p)
        self.assertEqual(svc["ReadWritePaths"], STATE_DIR)
        self.assertEqual((svc["User"], svc["Group"]), (SERVICE_USER, SERVICE_USER))
        self.assertEqual(svc["Restart"], "always")
        self.assertNotIn("-d", argv)  # logs go to syslog, hence the journal
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze not available")
        # systemd accepts every line (it reports unknown or bad settings on
        # standard error); the executable is pointed at the unpacked copy.
        with open(unit_path) as f:
            text = f.read().replace("ExecStart=/usr/bin/", "ExecStart=%s/usr/bin/" % self.root)
        check = os.path.join(self.tmp, "kes_bstn.service")
        with open(check, "w") as f:
            f.write(text)
        r = sh("systemd-analyze", "verify", check, check=False)
        self.assertEqual((r.returncode, r.stderr), (0, ""))
        # Least privilege, as systemd rates it (0 = fully locked down, 10 = none).
        r = sh("systemd-analyze", "security", "--offline=yes", "--no-pager", unit_path, check=False)
        level = re.search(r"Overall exposure level for kes_bstn.service: ([0-9.]+)", r.stdout + r.stderr)
        self.assertIsNotNone(level, r.stdout + r.stderr)
        self.assertLessEqual(float(level.group(1)), 2.0)


@unittest.skipUnless(os.environ.get("KES_PACKAGE_INSTALL") == "1" and os.geteuid() == 0,
                     "real installation only with KES_PACKAGE_INSTALL=1 as root")
class Installation(unittest.TestCase):
    """dpkg -i on this machine, then dpkg --purge."""

    def test_install_and_purge(self):
        if sh("dpkg-query", "-W", "-f=${Status}", PACKAGE, check=False).stdout.endswith("installed"):
            self.skipTest("%s is already installed here; not touching it" % PACKAGE)
        try:
            pwd.getpwnam(SERVICE_USER)
            self.skipTest("user %s already exists here; not touching it" % SERVICE_USER)
        except KeyError:
            pass
        tmp = tempfile.mkdtemp(prefix="kes-pkg-install-")
        try:
            sh("cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"), "-B", tmp,
               cwd=BUILD_DIR)
            deb = os.path.join(tmp, "%s_%s_%s.deb" % (PACKAGE, VERSION, host_arch()))
            sh("dpkg", "-i", deb)
            try:
                self.check_installed()
            finally:
                sh("dpkg", "--purge", PACKAGE)
            self.check_purged()
        finally:
            shutil.rmtree(tmp, ignore_errors=True)

    def check_installed(self):
        user = pwd.getpwnam(SERVICE_USER)
        self.assertLess(user.pw_uid, 1000)  # a system user
        self.assertEqual(user.pw_dir, STATE_DIR)
        self.assertTrue(user.pw_shell.endswith("nologin"))
        st = os.stat(STATE_DIR)
        self.assertEqual((st.st_uid, st.st_gid, st.st_mode & 0o777), (user.pw_uid, user.pw_gid, 0o700))
        self.assertEqual(sh("/usr/bin/kes_bstn", "--version").stdout.strip(), "kes_bstn %s" % VERSION)
        conffiles = sh("dpkg-query", "-W", "-f=${Conffiles}", PACKAGE).stdout
        self.assertIn(CONFIG, conffiles)
        # As the service user, the daemon reads the shipped configuration and
        # looks for its credentials in the state folder.
        out = run_daemon_until(["setpriv", "--reuid", str(user.pw_uid), "--regid", str(user.pw_gid),
                                "--clear-groups", "/usr/bin/kes_bstn", "-d", "-v", "3", "-c", CONFIG],
                               "restarting Basic Station in 20 seconds...", 10)
        self.assertIn("missing mandatory key file %s/cups.key from main set" % STATE_DIR, out)

    def check_purged(self):
        for path in ("/usr/bin/kes_bstn", CONFIG, STATE_DIR, UNIT):
            self.assertFalse(os.path.exists(path), path)
        with self.assertRaises(KeyError):
            pwd.getpwnam(SERVICE_USER)


if __name__ == "__main__":
    unittest.main(verbosity=2)
