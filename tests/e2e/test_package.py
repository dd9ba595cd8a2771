"""The Debian package of the daemon, built with CPack from the current build and unpacked with `dpkg -x`
(no privileges, the machine untouched): files and modes, dependencies covering what the binary links, a service
unit systemd accepts, and a shipped configuration the real daemon reads in full."""
import configparser
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

BIN = os.path.realpath(os.environ.get("KES_BSTN_BIN", "build/kes_bstn"))
STATE, CONFIG, USER = "/var/lib/kes_bstn", "/etc/kes_bstn/kes_bstn.toml", "kes_bstn"
UNIT = "/lib/systemd/system/kes_bstn.service"


def sh(*args, check=True, **kw):
    r = subprocess.run(list(args), capture_output=True, text=True, timeout=120, **kw)
    if check and r.returncode:
        raise AssertionError("%s failed (%d): %s%s" % (" ".join(args), r.returncode, r.stdout, r.stderr))
    return r


def names(depends):
    return [[re.sub(r"\s*\(.*\)|:\w+", "", a).strip() for a in clause.split("|")] for clause in depends.split(",")]


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="kes-pkg-")
        build, cls.root, cls.control = os.path.dirname(BIN), cls.tmp + "/root", Path(cls.tmp, "control")
        sh("cpack", "-G", "DEB", "--config", build + "/CPackConfig.cmake", "-B", cls.tmp, cwd=build)
        cls.deb = "%s/kes-bstn_%s_%s.deb" % (cls.tmp, sh(BIN, "--version").stdout.split()[1],
                                             sh("dpkg", "--print-architecture").stdout.strip())
        sh("dpkg", "-x", cls.deb, cls.root)
        sh("dpkg-deb", "-e", cls.deb, str(cls.control))

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def test_dependencies_are_installed_packages_covering_every_linked_library(self):
        groups = names(sh("dpkg-deb", "-f", self.deb, "Depends").stdout)
        for alts in groups:
            status = [sh("dpkg-query", "-W", "-f=${Status}", a, check=False).stdout for a in alts]
            self.assertTrue(any(s.endswith(" installed") for s in status), "misspelt or foreign dependency %s" % alts)
        # A linked library may also come from what a declared package depends on (libcap2 via libwebsockets).
        provided = {n for alts in groups for n in alts}
        provided |= {n for p in set(provided) for alts in names(sh("dpkg-query", "-W", "-f=${Depends}", p).stdout)
                     for n in alts}
        paths = dict(re.findall(r"^\s*(\S+) => (\S+)", sh("ldd", BIN).stdout, re.M))
        for soname in re.findall(r"NEEDED\s+(\S+)", sh("objdump", "-p", BIN).stdout):
            if not re.match(r"lib(asan|ubsan|lsan|tsan)\.so", soname):  # a sanitizer build's own runtime
                real = os.path.realpath(paths[soname])
                owner = next(r.stdout.split(":")[0] for p in (real, "/usr" + real, real[4:], paths[soname])
                             if (r := sh("dpkg", "-S", p, check=False)).returncode == 0)
                self.assertIn(owner, provided, "%s comes from undeclared %s" % (soname, owner))

    def test_files_modes_conffile_and_maintainer_scripts(self):
        entries = {l.split()[-1].rstrip("/").lstrip("."): l.split()[:2]
                   for l in sh("dpkg-deb", "-c", self.deb).stdout.splitlines()}
        doc, rw = "/usr/share/doc/kes-bstn/", "-rw-r--r--"
        expected = {"/usr/bin/kes_bstn": "-rwxr-xr-x", CONFIG: rw, STATE: "drwx------", UNIT: rw,
                    doc + "operator-guide.md": rw, doc + "changelog.gz": rw, "/usr/share/man/man8/kes_bstn.8.gz": rw,
                    "/usr/share/lintian/overrides/kes-bstn": rw}
        self.assertEqual({p: entries.get(p) for p in expected}, {p: [m, "root/root"] for p, m in expected.items()})
        self.assertEqual({p for p, (m, _) in entries.items() if m[0] != "d"},
                         {p for p, m in expected.items() if m[0] != "d"}, "a file shipped by mistake")
        self.assertEqual((self.control / "conffiles").read_text().split(), [CONFIG])
        for script in ("postinst", "prerm", "postrm"):
            self.assertEqual((self.control / script).stat().st_mode & 0o777, 0o755, script)
            sh("sh", "-n", str(self.control / script))
        self.assertIn("user=%s\n" % USER, (self.control / "postinst").read_text(), "the unit's user not created")

    def test_shipped_configuration_loads_in_full_and_waits_for_the_gateway_eui(self):
        paths = re.findall(r'^\w+ = "(/[^"]*)"', Path(self.root + CONFIG).read_text(), re.M)
        self.assertEqual(len(set(paths)), 16, "a credential key missing or two naming one file")
        self.assertEqual({os.path.dirname(p) for p in paths}, {STATE}, "a credential outside the state folder")
        # The identity is checked once every key is read and checked.
        r = sh(self.root + "/usr/bin/kes_bstn", "-d", "-c", self.root + CONFIG, check=False)
        self.assertEqual(r.returncode, 1, "empty gw_eui accepted")
        self.assertIn('invalid gw_eui value: ""', r.stderr, "the shipped file refused before its end")
        self.assertNotIn("[WARN", r.stderr, "a key the daemon does not know")

    def test_service_unit(self):
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str
        unit.read(self.root + UNIT)
        svc = unit["Service"]
        # No -d: logs go to syslog, hence the journal.
        self.assertEqual((svc["ExecStart"], svc["ReadWritePaths"], svc["User"], svc["Group"], svc["Restart"]),
                         ("/usr/bin/kes_bstn -c " + CONFIG, STATE, USER, USER, "always"))
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze not available")
        check = Path(self.tmp, "kes_bstn.service")  # systemd checks that the executable exists: the unpacked copy
        check.write_text(Path(self.root + UNIT).read_text().replace("ExecStart=/", "ExecStart=%s/" % self.root))
        self.assertEqual(sh("systemd-analyze", "verify", str(check), check=False).stderr, "", "systemd refuses a line")
        r = sh("systemd-analyze", "security", "--offline=yes", "--no-pager", self.root + UNIT, check=False)
        level = re.search(r"Overall exposure level for kes_bstn.service: ([0-9.]+)", r.stdout + r.stderr)
        self.assertLessEqual(float(level.group(1)), 2.0, "privileges widened")  # 0 locked down .. 10 none


if __name__ == "__main__":
    unittest.main(verbosity=2)
