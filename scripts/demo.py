#!/usr/bin/python3
"""Local demo driver: packet-forwarder simulator <-> kes_bstn <-> Basics Station LNS, all on 127.0.0.1.

Makes throw-away certificates, starts the Python LNS (answering every uplink with a class-A
downlink), the bridge and the forwarder simulator in stock mode (like the stock Semtech
forwarder: no `count` in its stat, several rxpk batched in one PUSH_DATA), prints what crosses
each side in a few readable lines together with the bridge's own milestone and summary lines, and
after --seconds (or Ctrl-C / SIGTERM) stops everything it started and prints a summary. The
bridge's whole log (TRACE level) stays in a file whose path the summary shows.
"""

import argparse
import base64
import collections
import os
import random
import signal
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "sim"))
import harness as e2e  # noqa: E402

fwd_sim = e2e.fwd_sim
LOW32 = 0xFFFFFFFF
DATRS = ["SF7BW125", "SF9BW125", "SF8BW125", "SF10BW125", "SF7BW125", "SF12BW125"]
BATCH_EVERY = 4  # every 4th round the forwarder batches 3 packets in one PUSH_DATA
SUMMARY_INTERVAL_S = 10
# Lines of the bridge's log an operator watches (at the default level, INFO and above).
BRIDGE_LINES = ("CUPS answered", "LNS discovered", "LNS session up", "time base synchronised",
                "first uplink forwarded", "summary of the last", "TX_ACK error", "concentrator counter jumped")


class Demo:
    def __init__(self, seconds, binary, interval):
        self.seconds = seconds
        self.binary = binary
        self.interval = interval
        self.t0 = time.monotonic()
        self.out_lock = threading.Lock()
        self.count = collections.Counter()
        self.dr_seen = collections.Counter()
        self.last_tmst = None
        self.stop = threading.Event()
        self.stopping = False
        self.lns = self.bridge = self.fwd = None
        self.workdir = tempfile.mkdtemp(prefix="kes_demo_")

    def say(self, who, text):
        with self.out_lock:
            print("[%5.1fs] %-22s %s" % (time.monotonic() - self.t0, who, text), flush=True)

    # ---- what the LNS sees -------------------------------------------------------------------
    def on_lns(self, ev):
        msg = ev.get("msg") if isinstance(ev.get("msg"), dict) else {}
        kind, mt = ev.get("event"), msg.get("msgtype")
        if kind == "connected":
            self.say("bridge -> LNS", "WebSocket %s %s" % (ev.get("kind"), ev.get("path")))
        elif kind == "recv" and mt in ("jreq", "updf"):
            self.count["at_lns"] += 1
            self.dr_seen[msg.get("DR")] += 1
            who = ("DevEui %s" % msg.get("DevEui")) if mt == "jreq" else \
                  ("DevAddr %08x FCnt %d" % (msg.get("DevAddr", 0) & LOW32, msg.get("FCnt", 0)))
            xt = msg.get("upinfo", {}).get("xtime", 0)
            self.say("bridge -> LNS", "%s DR %s %s xtime %#x (epoch %d, tmst %d)"
                     % (mt, msg.get("DR"), who, xt, xt >> 48, xt & LOW32))
        elif kind == "recv" and mt == "dntxed":
            self.count["dntxed"] += 1
            self.say("bridge -> LNS", "dntxed diid %s xtime %#x" % (msg.get("diid"), msg.get("xtime", 0)))
        elif kind == "sent" and mt == "router_config":
            self.say("LNS -> bridge", "router_config with %d data rates" % len(msg.get("DRs", [])))
        elif kind == "sent" and mt == "dnmsg":
            self.count["dnmsg"] += 1
            self.say("LNS -> bridge", "dnmsg diid %s RX1DR %s RX1Freq %s RxDelay %s"
                     % (msg.get("diid"), msg.get("RX1DR"), msg.get("RX1Freq"), msg.get("RxDelay")))
        elif kind == "closed" and ev.get("kind") == "traffic" and not self.stopping:
            self.say("LNS", "traffic connection closed (code %s)" % ev.get("code"))

    # ---- what the forwarder sees ---------------------------------------------------------------
    def on_fwd(self, ev):
        kind = ev.get("kind")
        if ev.get("dir") == "sent" and kind == "push_data":
            body = ev.get("json", {})
            if "stat" in body:
                self.count["stat"] += 1
                self.say("forwarder -> bridge", "stat without count (the stock forwarder reports none)")
            for pk in body.get("rxpk", []):
                self.count["uplinks"] += 1
                self.last_tmst = pk["tmst"]
                phy = base64.b64decode(pk["data"])
                frame = "join request" if phy[0] == 0 else "data frame"
                self.say("forwarder -> bridge", "rxpk %s %s %.1f MHz tmst %d" % (frame, pk["datr"], pk["freq"],
                                                                               pk["tmst"]))
        elif kind == "push_ack":
            self.count["push_ack"] += 1
        elif kind == "pull_data":
            self.count["pull_data"] += 1
        elif kind == "pull_ack":
            self.count["pull_ack"] += 1
        elif kind == "tx_ack":
            self.count["tx_ack"] += 1
        elif kind == "pull_resp":
            self.count["pull_resp"] += 1
            txpk = ev.get("json", {}).get("txpk", {})
            delay = ""
            if self.last_tmst is not None and "tmst" in txpk:
                delay = " (last uplink + %.3f s)" % (((txpk["tmst"] - self.last_tmst) & LOW32) / 1e6)
            self.say("bridge -> forwarder", "PULL_RESP txpk %s %.3f MHz tmst %s%s, TX_ACK sent"
                     % (txpk.get("datr"), txpk.get("freq", 0), txpk.get("tmst"), delay))

    # ---- what the bridge says -----------------------------------------------------------------
    def follow_bridge_log(self):
        with open(self.bridge.log_path, errors="replace") as log:
            while not self.stopping:
                line = log.readline()
                if not line:
                    time.sleep(0.1)
                elif any(text in line for text in BRIDGE_LINES):
                    self.count["bridge_summary"] += "summary of the last" in line
                    self.say("bridge log", line.strip())

    # ---- run ----------------------------------------------------------------------------------
    def run(self):
        self.say("demo", "work dir %s: making certificates" % self.workdir)
        certs = os.path.join(self.workdir, "certs")
        e2e.make_certs(certs)
        self.lns = e2e.LnsPeer(certs, "--auto-dnmsg", on_event=self.on_lns)
        port = e2e.free_udp_port()
        self.say("demo", "LNS on wss://127.0.0.1:%d, bridge UDP port %d" % (self.lns.port, port))
        os.environ["KES_BSTN_BIN"] = self.binary
        self.bridge = e2e.Bridge(self.workdir, certs, self.lns.port, port, level=4,
                                 general={"summary_interval": SUMMARY_INTERVAL_S})
        threading.Thread(target=self.follow_bridge_log, daemon=True).start()
        self.fwd = fwd_sim.FwdSim(port, on_event=self.on_fwd, stock=True)
        if not self.bridge.wait_log("allowed DR item received", 30):
            raise RuntimeError("the bridge did not complete its LNS handshake (see %s)" % self.bridge.log_path)
        self.fwd.start(keepalive=5.0)
        self.say("forwarder", "PULL_DATA keep-alive every 5 s from port %d, uplinks from port %d"
                 % (self.fwd.pull_port, self.fwd.push_port))
        end = self.t0 + self.seconds
        next_stat = time.monotonic()
        next_up = time.monotonic() + 0.5
        n = 0
        while not self.stop.is_set() and time.monotonic() < end:
            now = time.monotonic()
            if now >= next_stat:
                self.fwd.send_stat()
                next_stat = now + 10.0
            if now >= next_up:
                datr = DATRS[n % len(DATRS)]
                phys = []
                for _ in range(3 if n % BATCH_EVERY == BATCH_EVERY - 1 else 1):
                    if n == 0:
                        phys.append(fwd_sim.join_request("70b3d57ed0000001", "0004a30b001c0530",
                                                         random.randrange(0x10000)))
                    else:
                        phys.append(fwd_sim.data_frame(0x260B1234, n, fport=1, payload=bytes([n & 0xFF, 0x42])))
                    n += 1
                self.fwd.send_uplinks(phys, datr=datr)
                next_up = now + self.interval
            self.stop.wait(0.05)
        time.sleep(0.5)  # let the last downlink and dntxed land

    def shutdown(self):
        self.stopping = True
        for part in (self.fwd, self.bridge, self.lns):
            if part is not None:
                part.stop()
        c = self.count
        drs = ", ".join("DR %s x%d" % (k, v) for k, v in sorted(self.dr_seen.items(), key=lambda kv: str(kv[0])))
        print()
        print("summary after %.0f s:" % (time.monotonic() - self.t0))
        print("  uplinks  : %d sent by the forwarder, %d arrived at the LNS (%s)" % (c["uplinks"], c["at_lns"],
                                                                                  drs or "none"))
        print("  downlinks: %d dnmsg from the LNS, %d PULL_RESP to the forwarder, %d TX_ACK, %d dntxed"
              % (c["dnmsg"], c["pull_resp"], c["tx_ack"], c["dntxed"]))
        print("  GWMP     : %d stat, %d PUSH_ACK, %d PULL_DATA / %d PULL_ACK"
              % (c["stat"], c["push_ack"], c["pull_data"], c["pull_ack"]))
        print("  bridge   : %d summary lines (every %d s)" % (c["bridge_summary"], SUMMARY_INTERVAL_S))
        if self.bridge is not None:
            print("  bridge log: %s" % self.bridge.log_path)
        ok = c["uplinks"] > 0 and c["at_lns"] == c["uplinks"] and c["pull_resp"] > 0
        print("  result   : %s" % ("OK" if ok else "PROBLEM (see the bridge log)"))
        return ok


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--bin", default=os.path.join(HERE, "..", "build", "kes_bstn"))
    p.add_argument("--seconds", type=float, default=30.0)
    p.add_argument("--interval", type=float, default=3.0, help="seconds between uplinks")
    a = p.parse_args()
    demo = Demo(a.seconds, os.path.abspath(a.bin), a.interval)
    signal.signal(signal.SIGTERM, lambda *_: demo.stop.set())
    ok = False
    try:
        demo.run()
    except KeyboardInterrupt:
        pass
    except Exception as exc:  # still stop everything and show what was seen
        print("demo failed: %s" % exc, file=sys.stderr)
    finally:
        ok = demo.shutdown()
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
