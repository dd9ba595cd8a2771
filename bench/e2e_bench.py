#!/usr/bin/python3
"""End-to-end benchmark: packet-forwarder simulator -> kes_bstn (real binary) -> Python LNS.

One rxpk per PUSH_DATA. Measures, through the whole path (UDP, translation, data-rate lookup, uplink
ring, TLS WebSocket):
  * latency PUSH_DATA sent -> uplink received by the LNS (p50/p99/max) at 100 and 1,000 uplinks/s;
  * bursts of 64 and 200 back-to-back PUSH_DATA;
  * sustained zero-loss at 5,000 uplinks/s for 30 s, and the highest zero-loss rate found;
  * the daemon's peak RSS (VmHWM) and CPU seconds per 1,000 uplinks (/proc/PID/stat).

The sender and the LNS run in processes of their own (this file, --role sender / --role lns), so
the measuring side can use both cores; their achieved rate and CPU load are reported, and a phase
in which they, not the bridge, were the limit is flagged. Both take their timestamps from
CLOCK_MONOTONIC (time.monotonic), which is shared by all processes of the machine.

Build the daemon in Release first, then run (takes about 3-4 minutes):
  cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DKES_BUILD_TESTS=OFF -DKES_BUILD_BENCH=OFF
  cmake --build build-release --target kes_bstn -j2
  /usr/bin/python3 bench/e2e_bench.py --bin build-release/kes_bstn
"""

import argparse
import asyncio
import base64
import json
import os
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.abspath(os.path.join(HERE, ".."))
sys.path.insert(0, os.path.join(SOURCE_DIR, "sim"))

LOW32 = 0xFFFFFFFF
TICK = os.sysconf("SC_CLK_TCK")


# ==== role: LNS ====================================================================================
def run_lns(args):
    """sim/lns_peer.py with its per-message output replaced by an in-memory record of
    (arrival time, DevAddr, FCnt, DR, xtime) written to --out at the end, so that printing does not
    slow the LNS down."""
    import lns_peer

    record = []
    real_emit = lns_peer.emit

    def emit(event, **fields):
        msg = fields.get("msg")
        if event == "recv" and isinstance(msg, dict) and msg.get("msgtype") == "updf":
            record.append((time.monotonic(), msg.get("DevAddr", 0), msg.get("FCnt", 0), msg.get("DR"),
                           msg.get("upinfo", {}).get("xtime", 0)))
        elif event != "recv":
            real_emit(event, **fields)

    lns_peer.emit = emit
    sys.argv = ["lns_peer.py", "--certs", args.certs, "--ping-interval", "0"]
    try:
        lns_peer.main()
    finally:
        with open(args.out, "w") as f:
            json.dump(record, f)


# ==== role: sender =================================================================================
def phy_for(i):
    # Unconfirmed data frame; DevAddr and FCnt together number the uplink.
    return struct.pack("<BIBH", 0x40, 0x26000000 | (i >> 16), 0, i & 0xFFFF) + b"\x01\x2a" + b"\x00" * 4


def run_sender(args):
    """Sends `--count` PUSH_DATA (one rxpk each) at `--rate` per second (0: back to back), after one
    stat; prints a JSON summary with the send times."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
    sock.bind(("127.0.0.1", 0))
    sock.setblocking(False)
    addr = ("127.0.0.1", args.port)
    eui = bytes.fromhex("0016c001ff10a235")
    c0 = args.count0
    head = lambda token: bytes([2]) + struct.pack("<H", token & 0xFFFF) + b"\x00" + eui  # noqa: E731
    template = ('{"rxpk":[{"tmst":%d,"chan":0,"rfch":0,"freq":868.1,"stat":1,"modu":"LORA",'
                '"datr":"SF7BW125","codr":"4/5","rssi":-50,"lsnr":7.5,"size":12,"data":"%s"}]}')
    acks = 0

    def drain():
        nonlocal acks
        while True:
            try:
                d = sock.recv(64)
            except BlockingIOError:
                return
            if len(d) == 4 and d[3] == 1:
                acks += 1

    sock.sendto(head(0xFFFF) + json.dumps({"stat": {"count": c0}}).encode(), addr)
    deadline = time.monotonic() + 2
    while acks == 0 and time.monotonic() < deadline:
        select.select([sock], [], [], 0.05)
        drain()
    acks = 0

    n = args.count
    sends = [0.0] * n
    start = time.monotonic()
    max_lag = 0.0
    period = 1.0 / args.rate if args.rate > 0 else 0.0
    for i in range(n):
        target = start + i * period
        now = time.monotonic()
        if now < target:
            time.sleep(target - now)  # no spinning: the machine's cores are shared with the bridge
        else:
            max_lag = max(max_lag, now - target)
        # tmst follows the plan, so it never falls behind the stat count whatever the pace.
        tmst = (c0 + 1000 + int(i * period * 1e6) + i) & LOW32
        body = template % (tmst, base64.b64encode(phy_for(args.first + i)).decode())
        sends[i] = time.monotonic()
        sock.sendto(head(i) + body.encode(), addr)
        if i & 31 == 0:
            drain()
    end = time.monotonic()
    deadline = end + 3
    while acks < n and time.monotonic() < deadline:
        select.select([sock], [], [], 0.05)
        drain()
    json.dump({"sent": n, "acks": acks, "start": start, "end": end, "max_lag": max_lag, "sends": sends},
              sys.stdout)


# ==== driver =======================================================================================
def proc_cpu(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK  # utime + stime


def thread_cpu(pid):
    """CPU seconds per thread name: the UDP worker runs on a "thread-pool-N" thread, the LNS
    session (libwebsockets, TLS writes) on the main thread."""
    out = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/comm" % (pid, tid)) as f:
                name = f.read().strip()
            name = "main (LNS session)" if tid == str(pid) else name
            out[name] = out.get(name, 0.0) + proc_cpu_path("/proc/%d/task/%s/stat" % (pid, tid))
        except OSError:
            pass
    return out


def proc_cpu_path(path):
    with open(path) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def proc_status(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return 0


def loadavg():
    with open("/proc/loadavg") as f:
        return float(f.read().split()[0])


def rss_by_mapping(pid, top=6):
    """Resident kB per mapped file (or [anon]/[heap]/[stack]), largest first."""
    out, name = {}, "[anon]"
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            parts = line.split()
            if parts and "-" in parts[0] and len(parts) >= 5 and not parts[0].endswith(":"):
                name = os.path.basename(parts[5]) if len(parts) >= 6 else "[anon]"
            elif parts and parts[0] == "Rss:":
                out[name] = out.get(name, 0) + int(parts[1])
    return sorted(out.items(), key=lambda kv: -kv[1])[:top]


def percentile(sorted_values, p):
    if not sorted_values:
        return float("nan")
    k = min(len(sorted_values) - 1, max(0, int(round(p / 100.0 * (len(sorted_values) - 1)))))
    return sorted_values[k]


class Bench:
    def __init__(self, binary, keep):
        import harness as e2e
        self.e2e = e2e
        self.tmp = tempfile.mkdtemp(prefix="kes_bench_")
        self.keep = keep
        self.certs = os.path.join(self.tmp, "certs")
        e2e.make_certs(self.certs)
        os.environ["KES_BSTN_BIN"] = os.path.abspath(binary)
        self.lns = self.bridge = None
        self.lns_out = None
        self.next_id = 1
        self.c0 = 1_000_000
        self.results = []

    def start(self):
        """A fresh LNS and bridge for one measurement (the LNS record is read when it stops)."""
        self.lns_out = os.path.join(self.tmp, "lns_%d.json" % self.next_id)
        self.lns = subprocess.Popen([sys.executable, os.path.abspath(__file__), "--role", "lns", "--certs",
                                     self.certs, "--out", self.lns_out], stdout=subprocess.PIPE,
                                    stderr=subprocess.DEVNULL, stdin=subprocess.PIPE, text=True)
        line = self.lns.stdout.readline()
        if not line.startswith("READY"):
            raise RuntimeError("bench LNS did not start: %r" % line)
        lns_port = int(line.split()[1])
        lines = []
        threading.Thread(target=lambda out=self.lns.stdout: [lines.append(x) for x in out], daemon=True).start()
        port = self.e2e.free_udp_port()
        self.port = port
        self.bridge = self.e2e.Bridge(self.tmp, self.certs, lns_port, port, level=1,
                                      log_path=os.path.join(self.tmp, "kes_bstn_%d.log" % self.next_id))
        # The LNS prints its router_config when it answers the bridge's version message.
        ok = self.e2e.wait_until(lambda: any("router_config" in x for x in lines), 20)
        if not ok or not self.bridge.alive():
            raise RuntimeError("bridge did not connect; log %s" % self.bridge.log_path)
        time.sleep(0.3)  # the bridge fills its data-rate table right after router_config

    def stop(self):
        hwm = proc_status(self.bridge.proc.pid, "VmHWM") if self.bridge.alive() else 0
        self.bridge.stop()
        self.e2e.stop_pid(self.lns)
        with open(self.lns_out) as f:
            record = json.load(f)
        return record, hwm

    def send(self, rate, count):
        first = self.next_id
        self.next_id += count + 10
        p = subprocess.run([sys.executable, os.path.abspath(__file__), "--role", "sender", "--port", str(self.port),
                            "--rate", str(rate), "--count", str(count), "--first", str(first),
                            "--count0", str(self.c0)], capture_output=True, text=True, timeout=count / max(rate, 1) + 60)
        if p.returncode != 0:
            raise RuntimeError("sender failed: " + p.stderr[-2000:])
        out = json.loads(p.stdout)
        out["first"] = first
        return out

    def phase(self, name, rate, count, settle=2.0):
        """Runs one load on a fresh bridge; returns a result dict."""
        self.start()
        cpu_b0, cpu_l0 = proc_cpu(self.bridge.proc.pid), proc_cpu(self.lns.pid)
        threads0 = thread_cpu(self.bridge.proc.pid)
        s = self.send(rate, count)
        # Wait for the tail to arrive (nothing more after `settle` s of silence counts as lost).
        time.sleep(settle)
        cpu_b1, cpu_l1 = proc_cpu(self.bridge.proc.pid), proc_cpu(self.lns.pid)
        threads = thread_cpu(self.bridge.proc.pid)
        drops = self.e2e.udp_drops(self.port)
        for t, v in threads0.items():
            if t in threads:
                threads[t] -= v
        rss = {k: proc_status(self.bridge.proc.pid, k) for k in ("RssAnon", "RssFile")}
        rss["top"] = rss_by_mapping(self.bridge.proc.pid)
        errors = self.bridge.log_text()
        record, hwm = self.stop()
        ids = {}
        for t, devaddr, fcnt, dr, xtime in record:
            ids[((devaddr & 0xFFFF) << 16) | fcnt] = t
        lat = []
        xtime_zero = sum(1 for r in record if r[4] == 0)
        for i, sent_at in enumerate(s["sends"]):
            t = ids.get(s["first"] + i)
            if t is not None:
                lat.append((t - sent_at) * 1000.0)
        lat.sort()
        elapsed = s["end"] - s["start"]
        r = {
            "name": name, "rate": rate, "sent": s["sent"], "arrived": len(lat), "acks": s["acks"],
            "lost": s["sent"] - len(lat), "achieved": s["sent"] / elapsed if elapsed > 0 else float("inf"),
            "sender_max_lag_ms": s["max_lag"] * 1000.0, "p50": percentile(lat, 50), "p99": percentile(lat, 99),
            "max": lat[-1] if lat else float("nan"), "bridge_cpu": cpu_b1 - cpu_b0, "lns_cpu": cpu_l1 - cpu_l0,
            "duration": elapsed, "hwm_kb": hwm, "xtime_zero": xtime_zero,
            "ring_full": errors.count("failed to insert a message into the ringbuffer"),
            "threads": threads, "rss": rss, "udp_drops": drops, "load": loadavg(),
        }
        r["cpu_per_1000"] = r["bridge_cpu"] / (r["sent"] / 1000.0)
        # Measuring side saturated: the sender fell behind its plan, or the LNS used a whole core.
        busy = r["lns_cpu"] / max(elapsed + settle, 1e-9)
        r["lns_load"] = busy
        r["sender_limited"] = rate > 0 and r["achieved"] < 0.97 * rate
        r["lns_limited"] = busy > 0.9
        self.results.append(r)
        self.show(r)
        return r

    @staticmethod
    def show(r):
        flags = []
        if r["sender_limited"]:
            flags.append("SENDER could not keep the rate")
        if r["lns_limited"]:
            flags.append("Python LNS saturated (%.0f%% of a core)" % (r["lns_load"] * 100))
        if r["ring_full"]:
            flags.append("bridge uplink ring full %d times" % r["ring_full"])
        if r["udp_drops"]:
            flags.append("kernel dropped %d datagrams (receive buffer full)" % r["udp_drops"])
        split = ", ".join("%s %.3f s" % kv for kv in sorted(r["threads"].items()) if kv[1] > 0)
        print("%-22s rate %6s/s sent %6d arrived %6d lost %5d acks %6d achieved %7.0f/s | latency ms p50 %6.2f "
              "p99 %7.2f max %7.2f | bridge CPU %.3f s (%.4f s/1000) VmHWM %d kB%s"
              % (r["name"], r["rate"] or "burst", r["sent"], r["arrived"], r["lost"], r["acks"], r["achieved"],
                 r["p50"], r["p99"], r["max"], r["bridge_cpu"], r["cpu_per_1000"], r["hwm_kb"],
                 ("  [" + "; ".join(flags) + "]") if flags else ""))
        print("%-22s bridge CPU by thread: %s; LNS process %.0f%% of a core; RssAnon %d kB RssFile %d kB; "
              "machine load average %.1f" % ("", split or "-", r["lns_load"] * 100, r["rss"]["RssAnon"],
                                              r["rss"]["RssFile"], r["load"]), flush=True)

    def cleanup(self):
        if not self.keep:
            import shutil
            shutil.rmtree(self.tmp, ignore_errors=True)


def run_driver(args):
    b = Bench(args.bin, args.keep)
    print("kes_bstn end-to-end benchmark: %s (%d CPU cores shared by the bridge, the Python LNS and the "
          "Python sender)" % (os.path.abspath(args.bin), os.cpu_count()), flush=True)
    try:
        low = b.phase("latency 100/s", 100, 100 * args.latency_seconds)
        mid = b.phase("latency 1000/s", 1000, 1000 * args.latency_seconds)
        burst64 = b.phase("burst 64", 0, 64)
        burst = b.phase("burst 200", 0, 200)
        found = 0
        for rate in args.search:
            r = b.phase("search %d/s" % rate, rate, int(rate * args.search_seconds))
            if r["lost"] == 0 and r["acks"] == r["sent"] and not r["sender_limited"]:
                found = max(found, rate)
            else:
                break
        sustained = b.phase("sustained 5000/s", 5000, 5000 * args.sustained_seconds)
    finally:
        b.cleanup()

    peak = max(r["hwm_kb"] for r in b.results)
    cpu = sustained["cpu_per_1000"]
    print()
    print("targets:")
    checks = [
        ("zero loss at 5,000 uplinks/s for %d s" % args.sustained_seconds,
         sustained["lost"] == 0 and sustained["acks"] == sustained["sent"],
         "%d of %d lost, %d not acknowledged, achieved %.0f/s" % (sustained["lost"], sustained["sent"],
                                                                  sustained["sent"] - sustained["acks"],
                                                                  sustained["achieved"])),
        ("burst of 64: all acknowledged, all at the LNS",
         burst64["lost"] == 0 and burst64["acks"] == burst64["sent"],
         "%d of %d arrived, %d acknowledged" % (burst64["arrived"], burst64["sent"], burst64["acks"])),
        ("p99 < 2 ms at 100/s", low["p99"] < 2.0, "p99 %.2f ms (p50 %.2f, max %.2f)" % (low["p99"], low["p50"], low["max"])),
        ("peak RSS < 8 MB", peak < 8 * 1024, "VmHWM %d kB; at the end RssAnon %d kB (private), RssFile %d kB "
         "(shared libraries): %s" % (peak, sustained["rss"]["RssAnon"], sustained["rss"]["RssFile"],
                                     ", ".join("%s %d" % kv for kv in sustained["rss"]["top"]))),
        ("< 0.05 CPU s per 1,000 uplinks", cpu < 0.05, "%.4f s per 1,000 at 5,000/s, %.4f at 1,000/s"
         % (cpu, mid["cpu_per_1000"])),
    ]
    for name, ok, detail in checks:
        print("  %-40s %-4s %s" % (name, "MET" if ok else "MISS", detail))
    print("  highest zero-loss rate found: %s/s (steps %s, %g s each)" % (found or "none", args.search,
                                                                         args.search_seconds))
    print("  burst of 200 back-to-back: %d arrived, %d lost, %d ring-full drops, max latency %.2f ms"
          % (burst["arrived"], burst["lost"], burst["ring_full"], burst["max"]))
    print("  machine load average during the phases: %s (other work on this machine shares its %d cores)"
          % (", ".join("%.1f" % r["load"] for r in b.results), os.cpu_count()))
    limited = [r["name"] for r in b.results if r["sender_limited"] or r["lns_limited"]]
    if limited:
        print("  measuring side was the limit in: %s" % ", ".join(limited))
    else:
        print("  measuring side: the sender kept every planned rate and the LNS stayed below 90% of a core")


def main():
    p = argparse.ArgumentParser(description="kes_bstn end-to-end benchmark")
    p.add_argument("--role", choices=["driver", "lns", "sender"], default="driver")
    p.add_argument("--bin", default=os.path.join(SOURCE_DIR, "build-release", "kes_bstn"))
    p.add_argument("--keep", action="store_true", help="keep the work folder (logs, LNS records)")
    p.add_argument("--latency-seconds", type=int, default=10)
    p.add_argument("--sustained-seconds", type=int, default=30)
    p.add_argument("--search-seconds", type=float, default=5.0)
    p.add_argument("--search", type=lambda s: [int(x) for x in s.split(",")],
                   default=[200, 500, 1000, 2000, 3000, 5000, 7000])
    # roles
    p.add_argument("--certs")
    p.add_argument("--out")
    p.add_argument("--port", type=int)
    p.add_argument("--rate", type=float)
    p.add_argument("--count", type=int)
    p.add_argument("--first", type=int, default=0)
    p.add_argument("--count0", type=int, default=1_000_000)
    args = p.parse_args()
    if args.role == "lns":
        run_lns(args)
    elif args.role == "sender":
        run_sender(args)
    else:
        run_driver(args)


if __name__ == "__main__":
    main()
