"""Helpers of the fault-injection tests (tests/e2e/test_fault_*.py and tests/slow/).

Builds on harness (certificates, LNS peer, forwarder simulator) and adds what the ordinary
end-to-end tests do not need: the CUPS peer, a bridge whose configuration runs the CUPS exchange
and keeps every credential and URI file in one directory of its own, a TCP server that accepts
and never answers, a read-only mount of a directory, and log watching with timestamps.
Every process started here is ended by its PID.
"""

import json
import os
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import traceback

import harness as e2e
from harness import check  # noqa: F401  (re-exported for the tests)

RESTART = "restarting Basic Station in 20 seconds..."
NON_CRITICAL = "non-critical error raised: [%d]"


def closed_tcp_port():
    """A local TCP port on which nothing listens (bound, then released)."""
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    s.bind(("127.0.0.1", 0))
    port = s.getsockname()[1]
    s.close()
    return port



CupsPeer = e2e.CupsPeer  # the fault tests use the shared wrapper


class FaultBridge(e2e.Bridge):
    """The daemon with every CUPS and LNS file in `cred_dir` and the CUPS exchange switched on
    (unless `skip_cups`). The CUPS set is made of the test CA and client certificate, its URI file
    points at `cups_port`; the LNS URI file at `lns_port`."""

    def __init__(self, workdir, certs, cred_dir, lns_port, bind_port, cups_port=None, skip_cups=False,
                 level=4, wrapper=()):
        self.workdir = workdir
        self.bind_port = bind_port
        self.cred_dir = cred_dir
        self.log_path = os.path.join(workdir, "kes_bstn.log")
        os.makedirs(cred_dir, exist_ok=True)
        for name, src in (("cups.trust", "ca.pem"), ("cups.cert", "client.pem"), ("cups.key", "client.key"),
                          ("lns.trust", "ca.pem"), ("lns.cert", "client.pem"), ("lns.key", "client.key")):
            shutil.copy(os.path.join(certs, src), os.path.join(cred_dir, name))
        for side in ("cups", "lns"):   # backups start as copies of the main files
            for item in ("trust", "cert", "key"):
                shutil.copy(self.cred(side + "." + item), self.cred("%s.%s_backup" % (side, item)))
        self.set_lns_port(lns_port)
        shutil.copy(self.cred("lns.uri"), self.cred("lns.uri_backup"))
        self.set_cups_port(cups_port if cups_port else closed_tcp_port())
        shutil.copy(self.cred("cups.uri"), self.cred("cups.uri_backup"))
        keys = ("uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key", "key_backup")
        cfg = {
            "general": {"gw_eui": e2e.GW_EUI, "name": "kes-fault", "fw_version": "1.7.1", "model": "e2e",
                        "package": "1.7.1", "skip_cups": bool(skip_cups)},
            "cups": {k: self.cred("cups." + k) for k in keys},
            "lns": {k: self.cred("lns." + k) for k in keys},
        }
        self.config = os.path.join(workdir, "kes_bstn.toml")
        with open(self.config, "w") as f:
            for section, entries in cfg.items():
                f.write("[%s]\n" % section)
                for k, v in entries.items():
                    f.write("%s = %s\n" % (k, ("true" if v else "false") if isinstance(v, bool) else json.dumps(v)))
                f.write("\n")
            f.write("[semtech]\nbind_port = %d\n" % bind_port)
        self.log = open(self.log_path, "w")
        self.proc = subprocess.Popen([*wrapper, e2e.bridge_binary(), "-d", "-v", str(level), "-c", self.config],
                                     stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT)

    def cred(self, name):
        return os.path.join(self.cred_dir, name)

    def set_cups_port(self, port):
        with open(self.cred("cups.uri"), "w") as f:
            f.write("https://127.0.0.1:%d/\n" % port)

    def set_lns_port(self, port):
        with open(self.cred("lns.uri"), "w") as f:
            f.write("wss://127.0.0.1:%d\n" % port)

    def count(self, text):
        return self.log_text().count(text)


class LogWatch:
    """Polls the bridge log and stamps the moment each new occurrence of a text appeared, so that
    tests can measure the pauses between retries (resolution 50 ms)."""

    def __init__(self, bridge, *texts):
        self.bridge = bridge
        self.texts = texts
        self.stamps = {t: [] for t in texts}
        self.stop_ev = threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.stop_ev.is_set():
            now = time.monotonic()
            text = self.bridge.log_text()
            for t in self.texts:
                n = text.count(t)
                while len(self.stamps[t]) < n:
                    self.stamps[t].append(now)
            self.stop_ev.wait(0.05)

    def times(self, text):
        return list(self.stamps[text])

    def wait(self, text, count, timeout):
        return e2e.wait_until(lambda: len(self.stamps[text]) >= count, timeout, 0.05)

    def stop(self):
        self.stop_ev.set()
        self.thread.join(2)


class StallServer:
    """Accepts TCP connections on 127.0.0.1 and never sends a byte (not even a TLS handshake)."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.listen(16)
        self.port = self.sock.getsockname()[1]
        self.accepted = []      # (time, connection)
        self.running = True
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        self.sock.settimeout(0.2)
        while self.running:
            try:
                conn, _ = self.sock.accept()
            except socket.timeout:
                continue
            except OSError:
                return
            self.accepted.append((time.monotonic(), conn))

    def stop(self):
        self.running = False
        for _, conn in self.accepted:
            conn.close()
        self.sock.close()


class ReadOnlyDir:
    """Makes a directory read-only for root as well: a read-only bind mount of the directory on
    itself (root ignores permission bits, not a read-only mount). Falls back to the immutable
    attribute (chattr +i) where mounting is not permitted; that one only stops creating, removing
    and renaming entries, which is what the CUPS backup copy of a new file meets."""

    def __init__(self, path):
        self.path = path
        self.method = None

    def on(self):
        r = subprocess.run(["mount", "--bind", self.path, self.path], capture_output=True)
        if r.returncode == 0:
            r = subprocess.run(["mount", "-o", "remount,ro,bind", self.path], capture_output=True)
            if r.returncode == 0:
                self.method = "read-only bind mount"
                return self.method
            subprocess.run(["umount", self.path], capture_output=True)
        subprocess.run(["chattr", "+i", self.path], check=True, capture_output=True)
        self.method = "chattr +i"
        return self.method

    def off(self):
        if self.method == "read-only bind mount":
            subprocess.run(["umount", self.path], check=True, capture_output=True)
        elif self.method == "chattr +i":
            subprocess.run(["chattr", "-i", self.path], check=True, capture_output=True)
        self.method = None


def workdir(prefix):
    return tempfile.mkdtemp(prefix=prefix)


def traffic_connections(lns, start=0):
    return lns.find(lambda e: e.get("event") == "connected" and e.get("kind") == "traffic", start)


def dnmsg(diid, xtime, **extra):
    """A class-A dnmsg on RX1 (DR 5 = SF7BW125 in the peer's router_config)."""
    msg = {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": diid, "pdu": "0a0b0c0d",
           "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000, "priority": 0, "xtime": xtime, "rctx": 0}
    msg.update(extra)
    return msg


def uplink_and_downlink(stack, diid, timeout=10.0):
    """One uplink forwarder -> LNS and one downlink LNS -> forwarder on the running session.
    Returns (uplink at the LNS, PULL_RESP at the forwarder) or raises AssertionError."""
    mark = stack.lns.mark()
    sent = stack.uplink()
    check(stack.acked(sent, timeout), "uplink FCnt %d not acknowledged" % sent["fcnt"])
    up = stack.lns_uplink(sent, timeout, mark)
    check(up, "uplink FCnt %d did not reach the LNS" % sent["fcnt"])
    fmark = stack.fwd.mark()
    stack.lns.send(dnmsg(diid, up["upinfo"]["xtime"]))
    resp = stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", timeout, fmark)
    check(resp and resp.get("json", {}).get("txpk", {}).get("tmst") == (sent["tmst"] + 1_000_000) & 0xFFFFFFFF,
          "downlink %d did not reach the forwarder: %r" % (diid, resp))
    return up, resp


class FaultStack(e2e.Stack):
    """Certificates, LNS peer, optional CUPS peer, a FaultBridge and the forwarder simulator.

    `launch()` starts everything without waiting; `ready()` waits for the LNS handshake and
    synchronises the time base like harness.Stack.up()."""

    def __init__(self, lns_args=(), cups_specs=None, skip_cups=False, level=4, prefix="kes_fault_", wrapper=()):
        super().__init__(lns_args=lns_args, level=level, workdir=workdir(prefix))
        self.wrapper = wrapper
        self.cups_specs = cups_specs
        self.skip_cups = skip_cups
        self.cups = None
        self.certs = os.path.join(self.tmp, "certs")
        self.cleanups = []

    def launch(self):
        e2e.make_certs(self.certs)
        self.lns = e2e.LnsPeer(self.certs, *self.lns_args, on_event=self.on_lns_event)
        if self.cups_specs is not None:
            self.cups = CupsPeer(self.certs, *self.cups_specs)
        self.bridge = FaultBridge(self.tmp, self.certs, os.path.join(self.tmp, "cred"), self.lns.port,
                                  e2e.free_udp_port(), cups_port=self.cups.port if self.cups else None,
                                  skip_cups=self.skip_cups, level=self.level, wrapper=self.wrapper)
        self.fwd = e2e.fwd_sim.FwdSim(self.bridge.bind_port, version=self.fwd_version,
                                      on_event=self.on_fwd_event).start()
        return self

    def handshakes(self, start=0):
        return self.lns.find(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                             and e["msg"].get("msgtype") == "router_config", start)

    def ready(self, timeout=30.0, start=0):
        """Waits for a router_config sent after LNS event `start`, then syncs and pulls."""
        check(e2e.wait_until(lambda: self.handshakes(start), timeout, 0.1),
              "no LNS handshake within %.0f s; log: %s" % (timeout, self.bridge.log_path))
        self.sync(timeout)
        self.pull()
        return self

    def up(self, timeout=30.0):
        return self.launch().ready(timeout)

    def down(self):
        for fn in reversed(self.cleanups):
            try:
                fn()
            except Exception:  # keep tearing down the rest
                pass
        if self.cups is not None:
            self.cups.stop()
        super().down()


def run_tests(tests, stacks):
    """harness.run_tests for tests that use several stacks (listed in `stacks`): every stack
    still open at the end is taken down, and kept on disk with its logs when a test failed."""
    try:
        e2e.run_tests(tests)
    except SystemExit as done:
        for st in stacks:
            if done.code:
                st.keep = True
                if st.bridge is not None:
                    print("bridge log kept: %s" % st.bridge.log_path)
            st.down()
        raise


def run_parallel(*scenarios):
    """Runs independent scenarios (functions without arguments, each with its own stack) at the
    same time so that their long pauses overlap; re-raises the first failure after all ended."""
    errors = []

    def body(fn):
        try:
            fn()
        except Exception as exc:  # collected, reported below
            errors.append((fn.__name__, exc))
            traceback.print_exc()
    threads = [threading.Thread(target=body, args=(fn,), name=fn.__name__) for fn in scenarios]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if errors:
        raise AssertionError("; ".join("%s: %s" % (name, exc) for name, exc in errors))
