"""Shared helpers of the end-to-end tests, the slow tests, the demo, the benchmarks and the leak driver.

They run the real kes_bstn daemon (KES_BSTN_BIN) against the Python LNS peer (sim/lns_peer.py), the
CUPS peer (sim/cups_peer.py) and the packet-forwarder simulator (sim/fwd_sim.py), all on 127.0.0.1,
with throw-away certificates and a generated TOML configuration. Every process started here is ended
by its PID. CTest and scripts/slow_tests.sh put sim/ on PYTHONPATH; one test by hand:

    PYTHONPATH=sim KES_BSTN_BIN=build/kes_bstn /usr/bin/python3 tests/e2e/test_fault_session.py
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

    def __init__(self, certs, *extra):
        cmd = [PYTHON, os.path.join(PEERS_DIR, "cups_peer.py"), "--certs", certs, *extra]
        self.records = []
        self.lock = threading.Lock()
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
            with self.lock:
                self.records.append(rec)

    def requests(self):
        with self.lock:
            return [r for r in self.records if "method" in r]

    def stop(self):
        stop_pid(self.proc)


RESTART = "restarting Basic Station in 20 seconds..."


def dnmsg(diid, xtime, **extra):
    """A class-A dnmsg on RX1 (DR 5 = SF7BW125 in the LNS peer's router_config)."""
    return {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": diid, "pdu": "0a0b0c0d",
            "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000, "priority": 0, "xtime": xtime, "rctx": 0, **extra}


def xtime_of(msg, tmst):
    """The xtime of uplink message `msg` at the LNS, checked against the forwarder's `tmst`."""
    xtime = msg["upinfo"]["xtime"] if msg else 0
    check(xtime & 0xFFFFFFFF == tmst and 1 <= (xtime >> 48) <= 255, "xtime %#x for tmst %#x" % (xtime, tmst))
    return xtime


def traffic_connections(lns, start=0):
    return lns.find(lambda e: e.get("event") == "connected" and e.get("kind") == "traffic", start)


class Bridge:
    """The kes_bstn daemon with a generated configuration; its log goes to a file.

    Every credential file is named `<side>.<key>` in `workdir`. A side with a port (`lns_port`,
    `cups_port`) gets its URI files and a copy of the test CA and client pair, main and backup alike;
    a side without one names files that do not exist. Without `cups_port` the daemon skips CUPS.
    `wrapper` runs the daemon under another program (valgrind)."""

    def __init__(self, workdir, certs, lns_port, bind_port, level=4, log_path=None, general=None, cups_port=None,
                 wrapper=()):
        self.bind_port = bind_port
        self.log_path = log_path or os.path.join(workdir, "kes_bstn.log")
        uris = {"cups": cups_port and "https://127.0.0.1:%d/\n" % cups_port,
                "lns": lns_port and "wss://127.0.0.1:%d\n" % lns_port}
        toml = ["[general]", 'gw_eui = "%s"' % GW_EUI, 'name = "kes-e2e"', 'fw_version = "1.7.1"', 'model = "e2e"',
                'package = "1.7.1"', "skip_cups = %s" % ("false" if cups_port else "true")]
        toml += ["%s = %s" % (k, json.dumps(v)) for k, v in (general or {}).items()]
        for side in ("cups", "lns"):
            toml.append("[%s]" % side)
            for item, src in (("uri", None), ("trust", "ca.pem"), ("cert", "client.pem"), ("key", "client.key")):
                for key in (item, item + "_backup"):
                    path = os.path.join(workdir, "%s.%s" % (side, key))
                    if uris[side] and src:
                        shutil.copy(os.path.join(certs, src), path)
                    elif uris[side]:
                        with open(path, "w") as f:
                            f.write(uris[side])
                    toml.append("%s = %s" % (key, json.dumps(path)))
        config = os.path.join(workdir, "kes_bstn.toml")
        with open(config, "w") as f:
            f.write("\n".join(toml) + "\n[semtech]\nbind_port = %d\n" % bind_port)
        self.log = open(self.log_path, "w")
        self.proc = subprocess.Popen([*wrapper, bridge_binary(), "-d", "-v", str(level), "-c", config],
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
    """Certificates, LNS peer, optional CUPS peer, bridge and forwarder simulator.

    `cups_args` are the CUPS peer's arguments (or a function of the LNS peer's port giving them); without
    them there is no CUPS peer and the bridge skips CUPS. `lns_set=False` leaves the bridge without LNS
    credentials (CUPS must provide them). `launch()` starts everything; `ready()` returns once an uplink
    went all the way to the LNS, so tests start on a synchronised time base and a completed LNS handshake;
    `up()` does both."""

    def __init__(self, lns_args=(), level=4, on_lns_event=None, on_fwd_event=None, fwd_stock=False, cups_args=None,
                 lns_set=True, wrapper=(), fwd_counter=None):
        self.tmp = tempfile.mkdtemp(prefix="kes_e2e_")
        self.keep = False
        self.lns_args, self.level, self.wrapper = lns_args, level, wrapper
        self.cups_args, self.lns_set = cups_args, lns_set
        self.on_lns_event, self.on_fwd_event, self.fwd_stock = on_lns_event, on_fwd_event, fwd_stock
        self.fwd_counter = fwd_counter  # the forwarder's first concentrator count (None: random)
        self.lns = self.cups = self.bridge = self.fwd = None
        self.fcnt = 0

    def launch(self):
        certs = os.path.join(self.tmp, "certs")
        make_certs(certs)
        self.lns = LnsPeer(certs, *self.lns_args, on_event=self.on_lns_event)
        if self.cups_args is not None:
            args = self.cups_args(self.lns.port) if callable(self.cups_args) else self.cups_args
            self.cups = CupsPeer(certs, *args)
        self.bridge = Bridge(self.tmp, certs, self.lns_set and self.lns.port, free_udp_port(), level=self.level,
                             cups_port=self.cups and self.cups.port, wrapper=self.wrapper)
        self.fwd = fwd_sim.FwdSim(self.bridge.bind_port, on_event=self.on_fwd_event, stock=self.fwd_stock,
                                  counter_start=self.fwd_counter).start()
        return self

    def handshake(self, timeout, start=0):
        """The first router_config the LNS peer sent after its event `start`, or None after `timeout` s."""
        return self.lns.wait_for(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                                 and e["msg"].get("msgtype") == "router_config", timeout, start)

    def ready(self, timeout=30.0, start=0, pull=True, sync=True):
        if not self.handshake(timeout, start):
            raise RuntimeError("bridge did not complete the LNS handshake; log: " + self.bridge.log_path)
        if sync:
            self.sync(timeout)
        if pull:
            self.pull()
        return self

    def up(self, timeout=30.0, pull=True, sync=True):
        return self.launch().ready(timeout, pull=pull, sync=sync)

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

    def uplink_and_downlink(self, diid, timeout=10.0):
        """One uplink to the LNS and one downlink (RX1, 1 s after it) to the forwarder on the running
        session. Returns (uplink at the LNS, PULL_RESP at the forwarder)."""
        mark = self.lns.mark()
        sent = self.uplink()
        check(self.acked(sent, timeout), "uplink FCnt %d not acknowledged" % sent["fcnt"])
        up = self.lns_uplink(sent, timeout, mark)
        check(up, "uplink FCnt %d did not reach the LNS" % sent["fcnt"])
        fmark = self.fwd.mark()
        self.lns.send(dnmsg(diid, up["upinfo"]["xtime"]))
        resp = self.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", timeout, fmark)
        check(resp and resp.get("json", {}).get("txpk", {}).get("tmst") == (sent["tmst"] + 1_000_000) & 0xFFFFFFFF,
              "downlink %d did not reach the forwarder: %r" % (diid, resp))
        return up, resp

    def down(self):
        for part in (self.fwd, self.bridge, self.cups, self.lns):
            if part is not None:
                try:
                    part.stop()
                except Exception:  # keep tearing down the rest
                    traceback.print_exc()
        if not self.keep:
            shutil.rmtree(self.tmp, ignore_errors=True)


def run_tests(tests, stacks=()):
    """Runs the test functions in order, prints one line each, takes the stacks (one or a list) down
    (kept on disk if a test failed) and exits non-zero on any failure."""
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
    for stack in stacks if isinstance(stacks, (list, tuple)) else [stacks]:
        if failed and stack.bridge is not None:
            stack.keep = True
            print("bridge log kept: %s" % stack.bridge.log_path)
        stack.down()
    print("%d of %d passed" % (len(tests) - len(failed), len(tests)))
    sys.exit(1 if failed else 0)


def check(cond, message):
    if not cond:
        raise AssertionError(message)
