"""Shared helpers of the end-to-end tests, the demo and the benchmark.

They run the real kes_bstn daemon (KES_BSTN_BIN) against the Python LNS peer
(sim/lns_peer.py) and the packet-forwarder simulator (sim/fwd_sim.py),
all on 127.0.0.1, with throw-away certificates and a generated TOML configuration.
Every process started here is ended by its PID.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import traceback

SOURCE_DIR = os.environ.get("KES_SOURCE_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), ".."))
PEERS_DIR = os.path.join(SOURCE_DIR, "sim")
PYTHON = "/usr/bin/python3"
GW_EUI = "0016c001ff10a235"
sys.path.insert(0, PEERS_DIR)

import fwd_sim  # noqa: E402


def bridge_binary():
    path = os.environ.get("KES_BSTN_BIN") or os.path.join(SOURCE_DIR, "build", "kes_bstn")
    if not os.access(path, os.X_OK):
        raise RuntimeError("kes_bstn binary not found: %s (set KES_BSTN_BIN)" % path)
    return path


def free_udp_port():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("0.0.0.0", 0))
    port = s.getsockname()[1]
    s.close()
    return port


def udp_drops(port):
    """Datagrams the kernel dropped on the local UDP socket bound to `port` (receive buffer full)."""
    with open("/proc/net/udp") as f:
        for line in f.readlines()[1:]:
            fields = line.split()
            if int(fields[1].split(":")[1], 16) == port:
                return int(fields[-1])
    return 0


def make_certs(directory):
    subprocess.run(["bash", os.path.join(PEERS_DIR, "make_certs.sh"), directory, GW_EUI], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)


def wait_until(pred, timeout, interval=0.05):
    """Polls `pred` until it returns a true value (returned) or `timeout` seconds pass (None)."""
    deadline = time.monotonic() + timeout
    while True:
        value = pred()
        if value:
            return value
        if time.monotonic() >= deadline:
            return None
        time.sleep(interval)


def stop_pid(proc, grace=3.0):
    """SIGTERM, then SIGKILL after `grace` seconds, for one child started here."""
    if proc is None or proc.poll() is not None:
        return
    try:
        os.kill(proc.pid, signal.SIGTERM)
        proc.wait(grace)
    except subprocess.TimeoutExpired:
        os.kill(proc.pid, signal.SIGKILL)
        proc.wait(5)
    except ProcessLookupError:
        pass


class LnsPeer(fwd_sim.EventLog):
    """sim/lns_peer.py as a child process; its JSON events are collected with arrival times."""

    def __init__(self, certs, *extra, on_event=None):
        self.on_event = on_event
        self.events = []
        self.lock = threading.Condition()
        self.proc = subprocess.Popen([PYTHON, os.path.join(PEERS_DIR, "lns_peer.py"), "--certs", certs,
                                      *extra], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL, text=True, bufsize=1)
        line = self.proc.stdout.readline()
        if not line.startswith("READY "):
            stop_pid(self.proc)
            raise RuntimeError("LNS peer did not start: %r" % line)
        self.port = int(line.split()[1])
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.proc.stdout:
            now = time.monotonic()
            try:
                ev = json.loads(line)
            except ValueError:
                continue
            ev["t"] = now
            with self.lock:
                self.events.append(ev)
                self.lock.notify_all()
            if self.on_event:
                self.on_event(ev)

    def wait_recv(self, msgtype, timeout=10.0, start=0, where=lambda m: True):
        ev = self.wait_for(lambda e: e.get("event") == "recv" and e.get("kind") == "traffic"
                           and isinstance(e.get("msg"), dict) and e["msg"].get("msgtype") == msgtype
                           and where(e["msg"]), timeout, start)
        return ev["msg"] if ev else None

    def command(self, **cmd):
        self.proc.stdin.write(json.dumps(cmd) + "\n")
        self.proc.stdin.flush()

    def send(self, msg):
        self.command(cmd="send", msg=msg)

    def stop(self):
        stop_pid(self.proc)


class CupsPeer:
    """sim/cups_peer.py as a child; one record per request, stamped with its arrival time."""

    def __init__(self, certs, *specs, extra=()):
        cmd = [PYTHON, os.path.join(PEERS_DIR, "cups_peer.py"), "--certs", certs, *extra]
        for spec in specs:
            cmd += ["--respond", spec]
        self.records = []
        self.cond = threading.Condition()
        self.proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL, text=True, bufsize=1)
        line = self.proc.stdout.readline()
        if not line.startswith("READY "):
            stop_pid(self.proc)
            raise RuntimeError("CUPS peer did not start: %r" % line)
        self.port = int(line.split()[1])
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            try:
                rec = json.loads(line)
            except ValueError:
                continue
            rec["t"] = time.monotonic()
            with self.cond:
                self.records.append(rec)
                self.cond.notify_all()

    def requests(self):
        with self.cond:
            return [r for r in self.records if "method" in r]

    def wait_requests(self, n, timeout):
        """Waits until `n` requests arrived; returns the list of all requests (maybe shorter)."""
        deadline = time.monotonic() + timeout
        with self.cond:
            while len([r for r in self.records if "method" in r]) < n:
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self.cond.wait(left)
        return self.requests()

    def add(self, spec):
        self.proc.stdin.write(spec + "\n")
        self.proc.stdin.flush()

    def stop(self):
        stop_pid(self.proc)


class Bridge:
    """The kes_bstn daemon with a generated configuration; its log goes to a file."""

    def __init__(self, workdir, certs, lns_port, bind_port, level=4, log_path=None, general=None):
        self.workdir = workdir
        self.bind_port = bind_port
        self.log_path = log_path or os.path.join(workdir, "kes_bstn.log")
        lns_uri = os.path.join(workdir, "lns.uri")
        with open(lns_uri, "w") as f:
            f.write("wss://127.0.0.1:%d\n" % lns_port)
        c = lambda name: os.path.join(certs, name)  # noqa: E731
        cfg = {
            "general": {"gw_eui": GW_EUI, "name": "kes-e2e", "fw_version": "1.7.1", "model": "e2e",
                        "package": "1.7.1", "skip_cups": True, **(general or {})},
            "cups": {k: os.path.join(workdir, "cups." + k) for k in
                     ("uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key",
                      "key_backup")},
            "lns": {"uri": lns_uri, "uri_backup": lns_uri, "trust": c("ca.pem"), "trust_backup": c("ca.pem"),
                    "cert": c("client.pem"), "cert_backup": c("client.pem"), "key": c("client.key"),
                    "key_backup": c("client.key")},
        }
        self.config = os.path.join(workdir, "kes_bstn.toml")
        with open(self.config, "w") as f:
            for section, entries in cfg.items():
                f.write("[%s]\n" % section)
                for k, v in entries.items():
                    f.write("%s = %s\n" % (k, "true" if v is True else json.dumps(v)))
                f.write("\n")
            f.write("[semtech]\nbind_port = %d\n" % bind_port)
        self.log = open(self.log_path, "w")
        self.proc = subprocess.Popen([bridge_binary(), "-d", "-v", str(level), "-c", self.config],
                                     stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT)

    def log_text(self):
        with open(self.log_path, errors="replace") as f:
            return f.read()

    def wait_log(self, text, timeout=10.0, count=1):
        return wait_until(lambda: self.log_text().count(text) >= count, timeout, 0.1)

    def alive(self):
        return self.proc.poll() is None

    def stop(self):
        stop_pid(self.proc)
        self.log.close()


class Stack:
    """Certificates, LNS peer, bridge and forwarder simulator, ready for uplinks.

    `up()` returns once an uplink went all the way to the LNS, so tests start on a
    synchronised time base and a completed LNS handshake."""

    def __init__(self, lns_args=(), level=4, fwd_version=2, keep=False, on_lns_event=None, on_fwd_event=None,
                 workdir=None, fwd_stock=False):
        self.tmp = workdir or tempfile.mkdtemp(prefix="kes_e2e_")
        self.keep = keep
        self.lns_args = lns_args
        self.level = level
        self.fwd_version = fwd_version
        self.on_lns_event = on_lns_event
        self.on_fwd_event = on_fwd_event
        self.fwd_stock = fwd_stock
        self.lns = self.bridge = self.fwd = None
        self.fcnt = 0

    def up(self, timeout=30.0, pull=True, sync=True):
        certs = os.path.join(self.tmp, "certs")
        make_certs(certs)
        self.lns = LnsPeer(certs, *self.lns_args, on_event=self.on_lns_event)
        port = free_udp_port()
        self.bridge = Bridge(self.tmp, certs, self.lns.port, port, level=self.level)
        self.fwd = fwd_sim.FwdSim(port, version=self.fwd_version, on_event=self.on_fwd_event,
                                  stock=self.fwd_stock).start()
        if not self.lns.wait_for(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                                 and e["msg"].get("msgtype") == "router_config", timeout):
            raise RuntimeError("bridge did not complete the LNS handshake; log: " + self.bridge.log_path)
        if sync:
            self.sync(timeout)
        if pull:
            self.pull()
        return self

    def sync(self, timeout=15.0):
        """Sends stat until the bridge acknowledges one and an uplink reaches the LNS (the LNS
        handshake may still be filling the data-rate table). Returns that uplink at the LNS."""
        deadline = time.monotonic() + timeout
        while not self.acked(self.fwd.send_stat(), 1.0):
            if time.monotonic() >= deadline:
                raise RuntimeError("no PUSH_ACK for stat; log: " + self.bridge.log_path)
        while time.monotonic() < deadline:
            mark = self.lns.mark()
            ev = self.uplink()
            msg = self.lns_uplink(ev, 0.5, mark)
            if msg:
                return ev, msg
        raise RuntimeError("no uplink reached the LNS; log: " + self.bridge.log_path)

    def lns_uplink(self, sent, timeout=5.0, start=0, msgtype="updf"):
        """The uplink message at the LNS for the data frame `sent` (matched by FCnt)."""
        return self.lns.wait_recv(msgtype, timeout, start, lambda m: m.get("FCnt") == sent["fcnt"] & 0xFFFF)

    def pull(self, timeout=5.0):
        ev = self.fwd.pull_data()
        if not self.fwd.wait_for(lambda e: e.get("kind") == "pull_ack" and e.get("token") == ev["token"],
                                 timeout):
            raise RuntimeError("no PULL_ACK; log: " + self.bridge.log_path)

    def acked(self, sent, timeout=5.0):
        return self.fwd.wait_for(lambda e: e.get("kind") == "push_ack" and e.get("token") == sent["token"],
                                 timeout)

    def uplink(self, version=None, **radio):
        """One data frame with the next FCnt; the sent event carries "fcnt" and "tmst"."""
        self.fcnt += 1
        phy = fwd_sim.data_frame(0x260B1234, self.fcnt, fport=2, payload=self.fcnt.to_bytes(4, "big"))
        ev = self.fwd.send_uplink(phy, version=version, **radio)
        ev["fcnt"] = self.fcnt
        return ev

    def down(self):
        for part in (self.fwd, self.bridge, self.lns):
            if part is not None:
                try:
                    part.stop()
                except Exception:  # keep tearing down the rest
                    traceback.print_exc()
        if not self.keep:
            shutil.rmtree(self.tmp, ignore_errors=True)


def run_tests(tests, stack=None):
    """Runs the test functions in order, prints one line each, exits non-zero on any failure."""
    failed = []
    for test in tests:
        start = time.monotonic()
        try:
            test()
            print("PASS %-55s %5.1fs" % (test.__name__, time.monotonic() - start), flush=True)
        except Exception:
            failed.append(test.__name__)
            print("FAIL %-55s %5.1fs" % (test.__name__, time.monotonic() - start), flush=True)
            traceback.print_exc()
    if failed and stack is not None and stack.bridge is not None:
        stack.keep = True
        print("bridge log kept: %s" % stack.bridge.log_path)
    if stack is not None:
        stack.down()
    print("%d of %d passed" % (len(tests) - len(failed), len(tests)))
    sys.exit(1 if failed else 0)


def check(cond, message):
    if not cond:
        raise AssertionError(message)
