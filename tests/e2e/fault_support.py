"""Helpers of the fault tests (tests/e2e/test_fault_*.py, tests/slow/) on top of sim/harness.py: a
bridge with the CUPS exchange and every credential file in one directory of its own, a stack with
an optional CUPS peer, log times. Every process is ended by its PID."""

import json
import os
import pathlib
import subprocess
import tempfile
import time
from datetime import datetime

import harness as e2e
from harness import check  # noqa: F401  (re-exported for the tests)

RESTART = "restarting Basic Station in 20 seconds..."
NON_CRITICAL = "non-critical error raised: [%d]"


class FaultBridge(e2e.Bridge):
    """The daemon with both CUPS and LNS sets (main and backup: test CA, client certificate, URI files
    naming `cups_port` (default 1, where nothing listens) and `lns_port`) in `cred_dir`."""

    def __init__(self, workdir, certs, cred_dir, lns_port, bind_port, cups_port=None, skip_cups=False,
                 level=4, wrapper=()):
        self.workdir, self.bind_port, self.cred_dir = workdir, bind_port, cred_dir
        self.log_path, self.config = os.path.join(workdir, "kes_bstn.log"), os.path.join(workdir, "kes_bstn.toml")
        os.makedirs(cred_dir, exist_ok=True)
        uris = {"cups": "https://127.0.0.1:%d/\n" % (cups_port or 1), "lns": "wss://127.0.0.1:%d\n" % lns_port}
        toml = ['[general]\ngw_eui = "%s"\nname = "kes-fault"\nfw_version = "1.7.1"\nmodel = "e2e"\n'
                'package = "1.7.1"\nskip_cups = %s\n' % (e2e.GW_EUI, "true" if skip_cups else "false")]
        for side in ("cups", "lns"):
            toml.append("[%s]" % side)
            for item, src in (("uri", None), ("trust", "ca.pem"), ("cert", "client.pem"), ("key", "client.key")):
                for key in (item, item + "_backup"):
                    path = pathlib.Path(cred_dir, "%s.%s" % (side, key))
                    path.write_bytes(pathlib.Path(certs, src).read_bytes() if src else uris[side].encode())
                    toml.append("%s = %s" % (key, json.dumps(str(path))))
        pathlib.Path(self.config).write_text("\n".join(toml) + "\n\n[semtech]\nbind_port = %d\n" % bind_port)
        self.log = open(self.log_path, "w")
        self.proc = subprocess.Popen([*wrapper, e2e.bridge_binary(), "-d", "-v", str(level), "-c", self.config],
                                     stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT)


def log_times(bridge, text):
    """Times (time.monotonic() scale) of the bridge's log lines holding `text`, from their own stamps."""
    offset = time.time() - time.monotonic()
    return [datetime.strptime(line.split(" [", 1)[0], "%Y-%m-%d %H:%M:%S.%f%z").timestamp() - offset
            for line in bridge.log_text().splitlines() if text in line]


def traffic_connections(lns, start=0):
    return lns.find(lambda e: e.get("event") == "connected" and e.get("kind") == "traffic", start)


def dnmsg(diid, xtime, **extra):
    """A class-A dnmsg on RX1 (DR 5 = SF7BW125 in the peer's router_config)."""
    return {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": diid, "pdu": "0a0b0c0d",
            "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000, "priority": 0, "xtime": xtime, "rctx": 0, **extra}


def uplink_and_downlink(stack, diid, timeout=10.0):
    """One uplink to the LNS and one downlink (RX1, 1 s after it) to the forwarder on the running
    session. Returns (uplink at the LNS, PULL_RESP at the forwarder)."""
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
    """Certificates, LNS peer, optional CUPS peer (answering `cups_specs`), a FaultBridge and the
    forwarder simulator. `launch()` starts them; `ready()` waits for the LNS handshake, then syncs
    and pulls like harness.Stack.up(). `cleanups` run first at down()."""

    def __init__(self, lns_args=(), cups_specs=None, skip_cups=False, level=4, prefix="kes_fault_", wrapper=()):
        super().__init__(lns_args=lns_args, level=level, workdir=tempfile.mkdtemp(prefix=prefix))
        self.wrapper, self.cups_specs, self.skip_cups = wrapper, cups_specs, skip_cups
        self.cups, self.cleanups = None, []
        self.certs = os.path.join(self.tmp, "certs")

    def launch(self):
        e2e.make_certs(self.certs)
        self.lns = e2e.LnsPeer(self.certs, *self.lns_args, on_event=self.on_lns_event)
        if self.cups_specs is not None:
            self.cups = e2e.CupsPeer(self.certs, *self.cups_specs)
            self.cleanups.insert(0, self.cups.stop)
        self.bridge = FaultBridge(self.tmp, self.certs, os.path.join(self.tmp, "cred"), self.lns.port,
                                  e2e.free_udp_port(), self.cups and self.cups.port, self.skip_cups, self.level,
                                  self.wrapper)
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
        super().down()


def run_tests(tests, stacks):
    """harness.run_tests for several stacks: all are taken down, and kept on disk if a test failed."""
    try:
        e2e.run_tests(tests)
    except SystemExit as done:
        for st in stacks:
            if done.code and st.bridge is not None:
                st.keep = True
                print("bridge log kept: %s" % st.bridge.log_path)
            st.down()
        raise
