#!/usr/bin/python3
"""Semtech UDP packet-forwarder simulator (GWMP v1/v2) for tests, the demo and the benchmark.

Like the real forwarder it uses two UDP sockets on 127.0.0.1: one sends PUSH_DATA (uplinks and
statistics) and receives PUSH_ACK, the other sends the PULL_DATA keep-alives and receives PULL_ACK
and PULL_RESP (downlinks), answering each PULL_RESP with a TX_ACK (protocol version 2). A simulated
concentrator counter (microseconds, 32 bits, running with real time from a random or given
start, so it can be started just below its wrap) gives the `tmst` of every received packet and
the `count` of every `stat`. In stock mode it behaves like the stock Semtech forwarder (sx1301
packet_forwarder, sx1302_hal): `stat` without `count`, and up to 8 rxpk batched in one PUSH_DATA.
Everything sent and received is recorded with time.monotonic() timestamps.

Use:  sim = FwdSim(bridge_port, stock=True); sim.start(); sim.send_stat(); sim.send_uplinks([...])
"""

import base64
import json
import random
import select
import socket
import struct
import threading
import time

PUSH_DATA, PUSH_ACK, PULL_DATA, PULL_RESP, PULL_ACK, TX_ACK = range(6)
KIND = {PUSH_ACK: "push_ack", PULL_RESP: "pull_resp", PULL_ACK: "pull_ack"}

DEFAULT_EUI = bytes.fromhex("0016c001ff10a235")
BATCH_MAX = 8  # rxpk per PUSH_DATA in the stock forwarder


# ---- LoRaWAN frames (little-endian fields, MIC not computed) ------------------------------------
def join_request(join_eui, dev_eui, dev_nonce, mic=0x01020304):
    """MHDR 0x00 | JoinEUI (8, LE) | DevEUI (8, LE) | DevNonce (2, LE) | MIC (4)."""
    return (bytes([0x00]) + bytes.fromhex(join_eui)[::-1] + bytes.fromhex(dev_eui)[::-1]
            + struct.pack("<H", dev_nonce) + struct.pack("<I", mic))


def data_frame(dev_addr, fcnt, fport=1, payload=b"\x01\x02\x03", fopts=b"", confirmed=False,
               fctrl=None, mic=0x0a0b0c0d):
    """MHDR (0x40 unconfirmed / 0x80 confirmed up) | DevAddr (4, LE) | FCtrl | FCnt (2, LE) |
    FOpts | FPort (absent when fport is None) | FRMPayload | MIC (4)."""
    if fctrl is None:
        fctrl = len(fopts) & 0x0F
    out = bytes([0x80 if confirmed else 0x40]) + struct.pack("<IBH", dev_addr, fctrl, fcnt & 0xFFFF)
    out += fopts
    if fport is not None:
        out += bytes([fport]) + payload
    return out + struct.pack("<I", mic)


def utc_now():
    return time.strftime("%Y-%m-%dT%H:%M:%S.000000Z", time.gmtime())


def rxpk(phy, tmst, version=2, datr="SF7BW125", freq=868.1, chan=0, rssi=-57, lsnr=7.5, tmms=None):
    """One rxpk object: version 2 carries flat rssi/lsnr/chan, version 1 an `rsig` array."""
    pk = {"time": utc_now(), "tmst": tmst & 0xFFFFFFFF, "chan": chan, "rfch": 0, "freq": freq,
          "stat": 1, "modu": "LORA", "datr": datr, "codr": "4/5", "rssi": rssi, "lsnr": lsnr,
          "size": len(phy), "data": base64.b64encode(phy).decode()}
    if version == 1:
        del pk["chan"], pk["rssi"], pk["lsnr"]
        pk["rsig"] = [{"ant": 0, "chan": chan, "rssic": rssi, "lsnr": lsnr}]
    elif tmms is not None:
        pk["tmms"] = tmms
    return pk


def gwmp(version, token, ident, eui=None, body=b""):
    head = bytes([version]) + struct.pack("<H", token & 0xFFFF) + bytes([ident])
    return head + (eui or b"") + body


class EventLog:
    """Events recorded by reader threads (`self.events`, guarded by the condition `self.lock`)."""

    def wait_for(self, pred, timeout=10.0, start=0):
        """First event from index `start` on that satisfies `pred`, or None after `timeout` s."""
        deadline = time.monotonic() + timeout
        with self.lock:
            i = start
            while True:
                while i < len(self.events):
                    if pred(self.events[i]):
                        return self.events[i]
                    i += 1
                left = deadline - time.monotonic()
                if left <= 0:
                    return None
                self.lock.wait(left)

    def mark(self):
        with self.lock:
            return len(self.events)

    def find(self, pred, start=0):
        with self.lock:
            return [e for e in self.events[start:] if pred(e)]


class FwdSim(EventLog):
    """A packet forwarder: two sockets, a receiver thread and an event record."""

    def __init__(self, bridge_port, version=2, eui=DEFAULT_EUI, host="127.0.0.1", counter_start=None,
                 on_event=None, stock=False):
        self.addr = (host, bridge_port)
        self.version = version
        self.stock = stock
        self.eui = eui
        self.on_event = on_event
        self.lock = threading.Condition()
        self.events = []             # dicts: t, dir ("sent"/"recv"), kind, token, ...
        self.pending_push = {}       # token -> send time of unacknowledged PUSH_DATA
        self.pending_pull = {}
        self.token_errors = []       # acks whose token matched no request
        self.tx_ack = True
        self.tx_ack_error = "NONE"
        self.running = False
        self.keepalive_interval = None
        self._token = random.randrange(0x10000)
        self._t0 = time.monotonic()
        self._c0 = random.randrange(1 << 32) if counter_start is None else counter_start
        self.push_sock = self._socket()
        self.pull_sock = self._socket()
        self.old_pull_socks = []
        self._threads = []

    @staticmethod
    def _socket():
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind(("127.0.0.1", 0))
        return s

    @property
    def push_port(self):
        return self.push_sock.getsockname()[1]

    @property
    def pull_port(self):
        return self.pull_sock.getsockname()[1]

    # ---- counter and tokens ----------------------------------------------------------------
    def counter(self):
        """Concentrator counter now: microseconds since a random start, 32 bits."""
        return (self._c0 + int((time.monotonic() - self._t0) * 1e6)) & 0xFFFFFFFF

    def next_token(self):
        with self.lock:
            self._token = (self._token + 1) & 0xFFFF
            return self._token

    # ---- lifecycle -------------------------------------------------------------------------
    def start(self, keepalive=None):
        """Starts the receiver; with `keepalive` seconds also the PULL_DATA keep-alive (one at once)."""
        self.running = True
        t = threading.Thread(target=self._receiver, name="fwd-sim-rx", daemon=True)
        t.start()
        self._threads.append(t)
        if keepalive:
            self.keepalive_interval = keepalive
            k = threading.Thread(target=self._keepalive, name="fwd-sim-ka", daemon=True)
            k.start()
            self._threads.append(k)
        return self

    def stop(self):
        self.running = False
        for t in self._threads:
            t.join(2)
        for s in [self.push_sock, self.pull_sock] + self.old_pull_socks:
            s.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()

    def rebind_pull(self):
        """Moves the downlink socket to a new port, like a restarted forwarder."""
        with self.lock:
            self.old_pull_socks.append(self.pull_sock)
            self.pull_sock = self._socket()
        return self.pull_port

    # ---- recording -------------------------------------------------------------------------
    def _record(self, **ev):
        ev.setdefault("t", time.monotonic())
        with self.lock:
            self.events.append(ev)
            self.lock.notify_all()
        if self.on_event:
            self.on_event(ev)
        return ev

    # ---- sending ---------------------------------------------------------------------------
    def _sendto(self, sock, data):
        """A closed bridge port makes Linux report ECONNREFUSED on a later send: record, go on."""
        try:
            sock.sendto(data, self.addr)
            return True
        except OSError as exc:
            self._record(dir="error", kind="send_error", error=str(exc))
            return False

    def send_raw(self, data, sock=None, note="raw"):
        self._sendto(sock or self.push_sock, data)
        return self._record(dir="sent", kind=note, size=len(data))

    def push_data(self, obj, version=None, token=None):
        """PUSH_DATA with the JSON object `obj`; returns the sent event (with its token)."""
        token = self.next_token() if token is None else token
        body = json.dumps(obj, separators=(",", ":")).encode()
        data = gwmp(version or self.version, token, PUSH_DATA, self.eui, body)
        now = time.monotonic()
        with self.lock:
            self.pending_push[token] = now
        self._sendto(self.push_sock, data)
        return self._record(t=now, dir="sent", kind="push_data", token=token, json=obj, size=len(data))

    def pull_data(self, token=None):
        token = self.next_token() if token is None else token
        with self.lock:
            self.pending_pull[token] = time.monotonic()
            sock = self.pull_sock
        self._sendto(sock, gwmp(self.version, token, PULL_DATA, self.eui))
        return self._record(dir="sent", kind="pull_data", token=token, port=sock.getsockname()[1])

    def send_stat(self, count=None, **extra):
        """A stat object alone; the stock forwarder reports no `count`."""
        stat = {"time": time.strftime("%Y-%m-%d %H:%M:%S GMT", time.gmtime()), "lati": 46.24, "long": 3.25,
                "alti": 145, "rxnb": 0, "rxok": 0, "rxfw": 0, "ackr": 100.0, "dwnb": 0, "txnb": 0}
        if not self.stock or count is not None:
            stat["count"] = self.counter() if count is None else count
        stat.update(extra)
        return self.push_data({"stat": stat})

    def send_uplink(self, phy, tmst=None, version=None, **radio):
        """One rxpk in one PUSH_DATA; `tmst` defaults to the counter now."""
        v = version or self.version
        tmst = self.counter() if tmst is None else tmst
        ev = self.push_data({"rxpk": [rxpk(phy, tmst, version=v, **radio)]}, version=v)
        ev["tmst"] = tmst & 0xFFFFFFFF
        return ev

    def send_uplinks(self, phys, **radio):
        """Up to 8 rxpk in one PUSH_DATA, each stamped with the counter when it is built; the sent
        event carries their "tmsts"."""
        assert 0 < len(phys) <= BATCH_MAX
        pks = [rxpk(phy, self.counter(), version=self.version, **radio) for phy in phys]
        ev = self.push_data({"rxpk": pks})
        ev["tmsts"] = [pk["tmst"] for pk in pks]
        return ev

    # ---- receiving -------------------------------------------------------------------------
    def _receiver(self):
        while self.running:
            with self.lock:
                socks = [self.push_sock, self.pull_sock] + self.old_pull_socks
            try:
                ready, _, _ = select.select(socks, [], [], 0.1)
            except (OSError, ValueError):
                return
            for s in ready:
                try:
                    data, _ = s.recvfrom(65535)
                except OSError:
                    continue
                self._handle(s, data)

    def _handle(self, sock, data):
        now = time.monotonic()
        port = sock.getsockname()[1]
        if len(data) < 4:
            self._record(t=now, dir="recv", kind="short", size=len(data), port=port)
            return
        version, token, ident = data[0], struct.unpack("<H", data[1:3])[0], data[3]
        kind = KIND.get(ident, "unknown")
        ev = {"t": now, "dir": "recv", "kind": kind, "token": token, "version": version,
              "size": len(data), "port": port}
        if ident == PUSH_ACK:
            with self.lock:
                sent = self.pending_push.pop(token, None)
            ev["token_ok"] = sent is not None
            if sent is not None:
                ev["rtt"] = now - sent
            else:
                self.token_errors.append(ev)
        elif ident == PULL_ACK:
            with self.lock:
                ev["token_ok"] = self.pending_pull.pop(token, None) is not None
            if not ev["token_ok"]:
                self.token_errors.append(ev)
        elif ident == PULL_RESP:
            raw = data[4:]
            ev["zero_terminated"] = raw.endswith(b"\0")
            try:
                ev["json"] = json.loads(raw.rstrip(b"\0").decode())
            except ValueError:
                ev["text"] = raw.decode("utf-8", "replace")
            if self.tx_ack:
                ack = {"txpk_ack": {"error": self.tx_ack_error}}
                self._sendto(sock, gwmp(2, token, TX_ACK, self.eui, json.dumps(ack).encode()))
                self._record(dir="sent", kind="tx_ack", token=token, port=port)
        self._record(**ev)

    def _keepalive(self):
        next_at = time.monotonic()
        while self.running:
            if time.monotonic() >= next_at:
                self.pull_data()
                next_at = time.monotonic() + self.keepalive_interval
            time.sleep(0.05)
