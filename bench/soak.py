#!/usr/bin/python3
"""Soak run: the real kes_bstn daemon for a long time at a steady uplink rate with a downlink
every second, against the Python LNS peer and the packet-forwarder simulator.

Checks at the end:
  * every uplink sent was acknowledged (PUSH_ACK) and reached the LNS exactly once,
    identified by (DevAddr, FCnt): DevAddr carries the high bits of the sequence number;
  * every dnmsg the LNS sent came back as a dntxed and reached the simulator as a PULL_RESP;
  * the bridge never restarted its session (drops, if any, are listed by the second in which
    the uplink ring was full) and its resident set (VmRSS) grew by less than
    --max-rss-growth percent between the sample taken after the warm-up and the last one.

Prints one line per RSS sample and a summary; writes the summary as JSON to --json when given.
Exit status 0 only if every check passed.

  scripts/soak.sh                      # Release build + 10 minutes at 200 uplinks/s
  /usr/bin/python3 bench/soak.py --bin build-release/kes_bstn --duration 60
"""

import argparse
import json
import os
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.abspath(os.path.join(HERE, ".."))
sys.path.insert(0, os.path.join(SOURCE_DIR, "sim"))

import harness as e2e  # noqa: E402
import fwd_sim  # noqa: E402

DEVADDR_BASE = 0x26010000
LOW32 = 0xFFFFFFFF


def rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


class Counters:
    """Fed from the peers' reader threads."""

    def __init__(self):
        self.lock = threading.Lock()
        self.lns_uplinks = {}        # (DevAddr, FCnt) -> times seen
        self.last_xtime = 0
        self.dntxed = set()
        self.pull_resp = 0
        self.push_ack = 0
        self.uplink_tokens = set()   # tokens of the soak's uplinks not yet acknowledged

    def on_lns(self, ev):
        msg = ev.get("msg")
        if ev.get("event") != "recv" or not isinstance(msg, dict):
            return
        kind = msg.get("msgtype")
        with self.lock:
            if kind == "updf":
                key = (msg.get("DevAddr"), msg.get("FCnt"))
                self.lns_uplinks[key] = self.lns_uplinks.get(key, 0) + 1
                self.last_xtime = msg.get("upinfo", {}).get("xtime", self.last_xtime)
            elif kind == "dntxed":
                self.dntxed.add(msg.get("diid"))

    def on_fwd(self, ev):
        if ev.get("dir") != "recv":
            return
        with self.lock:
            if ev.get("kind") == "pull_resp":
                self.pull_resp += 1
            elif ev.get("kind") == "push_ack" and ev.get("token") in self.uplink_tokens:
                self.uplink_tokens.discard(ev.get("token"))
                self.push_ack += 1


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--bin", required=True, help="kes_bstn binary (Release build)")
    p.add_argument("--duration", type=float, default=600.0, help="seconds of traffic")
    p.add_argument("--rate", type=float, default=200.0, help="uplinks per second")
    p.add_argument("--downlink-interval", type=float, default=1.0, help="seconds between dnmsg")
    p.add_argument("--warmup", type=float, default=10.0, help="seconds of traffic before the first RSS sample")
    p.add_argument("--sample-interval", type=float, default=60.0, help="seconds between RSS samples")
    p.add_argument("--max-rss-growth", type=float, default=5.0, help="percent")
    p.add_argument("--level", type=int, default=2, help="bridge log level (2 = INFO)")
    p.add_argument("--max-burst", type=int, default=8,
                   help="most uplinks sent back to back when the sender fell behind its schedule (the "
                        "rest follows 5 ms later); a real forwarder batches at most 8 packets")
    p.add_argument("--bridge-nice", type=int, help="renice the daemon to this value (diagnoses drops caused "
                   "by other processes taking the CPU: the bridge's own threads keep their relative priority)")
    p.add_argument("--json", help="write the summary here")
    args = p.parse_args()
    os.environ["KES_BSTN_BIN"] = os.path.abspath(args.bin)

    c = Counters()
    stack = e2e.Stack(level=args.level, on_lns_event=c.on_lns, on_fwd_event=c.on_fwd)
    failed = []
    summary = {}
    try:
        stack.up()
        fwd, pid = stack.fwd, stack.bridge.proc.pid
        if args.bridge_nice is not None:
            for tid in os.listdir("/proc/%d/task" % pid):
                os.setpriority(os.PRIO_PROCESS, int(tid), args.bridge_nice)
        with c.lock:   # the handshake traffic of up() is not part of the soak
            c.lns_uplinks.clear()
            c.push_ack = c.pull_resp = 0
        lns_mark = stack.lns.mark()
        stop = threading.Event()

        def keepalive():   # PULL_DATA every 5 s and stat every 30 s, like the real forwarder
            n = 0
            while not stop.wait(5.0):
                fwd.pull_data()
                n += 1
                if n % 6 == 0:
                    fwd.send_stat()
        threading.Thread(target=keepalive, daemon=True).start()

        sent_dn = []

        def downlinks():
            diid = 0
            while not stop.wait(args.downlink_interval):
                with c.lock:
                    xtime = c.last_xtime
                diid += 1
                stack.lns.send({"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0,
                                "diid": diid, "pdu": "0a0b0c0d", "RxDelay": 1, "RX1DR": 5,
                                "RX1Freq": 868100000, "priority": 0, "xtime": xtime, "rctx": 0})
                sent_dn.append(diid)
        dn_thread = threading.Thread(target=downlinks, daemon=True)
        dn_thread.start()

        samples = []
        start = time.monotonic()
        next_sample = start + args.warmup
        sent = 0
        behind = []   # (time, uplinks due at once) each time the sender fell behind its schedule
        capped = False
        sock = fwd.push_sock
        while True:
            now = time.monotonic()
            if now - start >= args.duration:
                break
            if now >= next_sample:
                samples.append((round(now - start, 1), rss_kib(pid)))
                print("t=%6.1fs  RSS %d KiB  sent %d  acked %d  at LNS %d" %
                      (samples[-1][0], samples[-1][1], sent, c.push_ack, len(c.lns_uplinks)), flush=True)
                next_sample += args.sample_interval
            due = int((now - start) * args.rate) + 1
            was_capped, capped = capped, due - sent > args.max_burst
            if capped:   # the sender itself was held up: catch up in steps of max_burst, 5 ms apart
                if not was_capped:
                    behind.append((round(now - start, 1), due - sent))
                due = sent + args.max_burst
            while sent < due:
                i = sent
                phy = fwd_sim.data_frame(DEVADDR_BASE + (i >> 16), i & 0xFFFF, fport=2, payload=i.to_bytes(4, "big"))
                token = fwd.next_token()
                data = fwd_sim.gwmp(fwd.version, token, fwd_sim.PUSH_DATA, fwd.eui,
                                    json.dumps({"rxpk": [fwd_sim.rxpk(phy, fwd.counter())]},
                                               separators=(",", ":")).encode())
                with fwd.lock:
                    fwd.pending_push[token] = time.monotonic()
                with c.lock:
                    c.uplink_tokens.add(token)
                sock.sendto(data, fwd.addr)
                sent += 1
            time.sleep(0.005 if capped else max(0.0, start + sent / args.rate - time.monotonic()))
        elapsed = time.monotonic() - start
        stop.set()
        dn_thread.join(3)
        time.sleep(5.0)   # drain
        samples.append((round(time.monotonic() - start, 1), rss_kib(pid)))
        print("t=%6.1fs  RSS %d KiB  (end)" % samples[-1], flush=True)

        expected = {(DEVADDR_BASE + (i >> 16), i & 0xFFFF) for i in range(sent)}
        with c.lock:
            got = dict(c.lns_uplinks)
            acked, pull_resp, dntxed = c.push_ack, c.pull_resp, set(c.dntxed)
        missing = len(expected - got.keys())
        dup = sum(1 for k, n in got.items() if n > 1)
        log = stack.bridge.log_text()
        rss0, rss1 = samples[0][1], samples[-1][1]
        growth = 100.0 * (rss1 - rss0) / rss0 if rss0 else 0.0
        # Where uplinks were dropped: seconds in which the uplink ring was full.
        bursts = {}
        for line in log.splitlines():
            if "failed to insert a message into the ringbuffer" in line:
                bursts[line[:19]] = bursts.get(line[:19], 0) + 1
        summary = {
            "duration_s": round(elapsed, 1), "rate_per_s": args.rate, "uplinks_sent": sent,
            "achieved_rate_per_s": round(sent / elapsed, 1), "push_ack": acked, "uplinks_at_lns": len(got),
            "uplinks_missing": missing, "uplinks_duplicated": dup, "dnmsg_sent": len(sent_dn),
            "dntxed_at_lns": len(dntxed), "pull_resp_at_fwd": pull_resp,
            "rss_start_kib": rss0, "rss_end_kib": rss1, "rss_growth_pct": round(growth, 2),
            "rss_samples": samples, "bridge_alive": stack.bridge.alive(),
            "restarts": log.count("restarting Basic Station in 20 seconds..."),
            "error_lines": sum(1 for line in log.splitlines() if "ERROR" in line),
            "uplink_ring_full": sum(bursts.values()), "ring_full_by_second": bursts,
            "other_error_lines": [ln for ln in log.splitlines() if "ERROR" in ln and not any(
                t in ln for t in ("failed to insert a message into the ringbuffer", "failed to send message to LNS",
                                  "failed to process uplink message"))][:10],
            "loadavg_end": open("/proc/loadavg").read().split()[:3],
            "sender_fell_behind": behind, "bridge_nice": args.bridge_nice,
            "reconnections": len(stack.lns.find(lambda e: e.get("event") == "connected"
                                                       and e.get("kind") == "traffic", lns_mark)),
        }
        if missing or dup or acked != sent:
            failed.append("uplink loss: %d missing, %d duplicated, %d of %d acknowledged" % (missing, dup, acked, sent))
        if len(dntxed) != len(sent_dn) or pull_resp != len(sent_dn):
            failed.append("downlink loss: %d dnmsg, %d dntxed, %d PULL_RESP" % (len(sent_dn), len(dntxed), pull_resp))
        if growth >= args.max_rss_growth:
            failed.append("RSS grew by %.2f%%" % growth)
        if not summary["bridge_alive"] or summary["restarts"]:
            failed.append("bridge died or restarted its session")
    except Exception as exc:  # report and keep the log
        failed.append("soak aborted: %r" % exc)
    finally:
        if failed and stack.bridge is not None:
            stack.keep = True
            summary["bridge_log"] = stack.bridge.log_path
        stack.down()
    summary["failures"] = failed
    print(json.dumps(summary, indent=1))
    if args.json:
        with open(args.json, "w") as f:
            json.dump(summary, f, indent=1)
    print("SOAK %s" % ("FAILED: " + "; ".join(failed) if failed else "PASSED"))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
