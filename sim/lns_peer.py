#!/usr/bin/python3
"""LNS test peer: a small LoRa Basics Station network server over TLS WebSockets.

Run with Debian's interpreter (/usr/bin/python3, python3-websockets 10.4). It listens on
127.0.0.1 on a free port and serves two kinds of WebSocket endpoints:

  <any path>/router-info   discovery: reads {"router": R} and answers
                           {"router": R, "muxs": "muxs-::0", "uri": "wss://127.0.0.1:<port>/traffic/<R>"}
                           then closes at once (like real servers).
  any other path           traffic (subprotocol "lws-lns"): answers the station's `version` with a
                           `router_config`, then logs every text and obeys commands from stdin.

Command line:
  --certs DIR              folder made by sim/make_certs.sh (ca.pem, server.pem, server.key)
  --server-cert NAME       present NAME.pem/NAME.key of that folder (default server; server_other
                           names another host, server_self is self-signed outside ca.pem)
  --auth cert|token        cert: the client must present a certificate signed by ca.pem;
                           token: no client certificate, the HTTP header `Authorization` must equal --token
  --token TEXT             expected Authorization header value, e.g. "Bearer secret"
  --ping-interval S        seconds between server pings (default 60; 0 disables pings)
  --ping-timeout S         drop a client that has not answered a ping within S seconds (default 5)
  --router-config FILE     text sent verbatim as the answer to `version`, re-read for every
                           connection, so it may also hold a bad router_config (default: built-in
                           EU868 router_config with 16 DRs and MuxTime)
  --no-muxtime             leave MuxTime out of the built-in router_config and discovery reply
  --discovery-muxtime      add MuxTime to the discovery reply
  --no-discovery-close     keep the discovery connection open after the reply (--discovery-close,
                           the default, closes it right after the reply)
  --discovery-coalesce     write the router-info reply and the close frame in one TLS record, so
                           that the client reads both at once
  --discovery-no-uri       answer router-info without a `uri` member
  --discovery-double       send the router-info reply twice before closing
  --stall-discovery        never answer router-info (the connection stays open)
  --stall-version          never answer `version`
  --refuse-traffic         refuse traffic connections with HTTP 403
  --refuse-discovery       refuse discovery connections with HTTP 403
  --auto-dnmsg             answer each `updf`/`jreq` with a class-A `dnmsg` built from it
                           (xtime and rctx from its upinfo, RxDelay 1, RX1DR/RX1Freq = its DR/Freq,
                           pdu "0a0b0c0d", diid 1, 2, ..., DevEui "00-00-00-00-00-00-00-01")
  --auto-dnmsg-rx2         also put RX2DR 0 / RX2Freq 869525000 into those dnmsg

Standard output, one line each:
  READY <port>             once listening
  {"event":"connected","kind":"discovery"|"traffic","path":P,"subprotocol":S,"authorization":A}
  {"event":"recv","kind":K,"msg":{...}}        every JSON text received ("text" instead of "msg"
                                               when it is not JSON)
  {"event":"sent","kind":K,"msg":{...}}        every JSON text the peer sent
  {"event":"refused","path":P,"reason":R}      a connection refused during the HTTP upgrade
  {"event":"closed","kind":K,"path":P,"code":C}
  {"event":"error","error":E}                  a command that could not be carried out

Standard input, one JSON command per line, acting on the current (latest) traffic connection:
  {"cmd":"send","msg":{...}}      send the object as one text
  {"cmd":"send_raw","text":"..."} send the text as is
  {"cmd":"close"}                 close the traffic connection (close frame, code 1000)
  {"cmd":"refuse","on":true}      refuse (HTTP 403) or accept again every new connection
The process runs until it is killed (SIGTERM or SIGINT); the end of stdin only ends the commands.
"""

import argparse
import asyncio
import json
import os
import signal
import ssl
import sys
import threading
import time
from http import HTTPStatus

import websockets
from websockets.frames import Close, Frame, Opcode

DEFAULT_DRS = ([[12, 125, 0], [11, 125, 0], [10, 125, 0], [9, 125, 0], [8, 125, 0], [7, 125, 0],
                [7, 250, 0], [0, 0, 0]] + [[-1, 0, 0]] * 8)


def emit(event, **fields):
    fields = {"event": event, **fields}
    sys.stdout.write(json.dumps(fields) + "\n")
    sys.stdout.flush()


class Peer:
    def __init__(self, args):
        self.args = args
        self.port = 0
        self.traffic = None
        self.refuse_all = False
        self.diid = 0

    # ---- HTTP upgrade checks ---------------------------------------------------------------
    def process_request(self, path, headers):
        discovery = path.endswith("/router-info")
        reason = None
        if self.refuse_all:
            reason = "refused by command"
        elif discovery and self.args.refuse_discovery:
            reason = "discovery refused"
        elif not discovery and self.args.refuse_traffic:
            reason = "traffic refused"
        elif self.args.auth == "token" and headers.get("Authorization") != self.args.token:
            reason = "bad token"
        if reason is None:
            return None
        emit("refused", path=path, reason=reason)
        return HTTPStatus.FORBIDDEN, [], (reason + "\n").encode()

    # ---- helpers ---------------------------------------------------------------------------
    @staticmethod
    async def send_coalesced(ws, msg, close):
        data = Frame(Opcode.TEXT, json.dumps(msg).encode()).serialize(mask=False)
        ws.transport.write(data + close.serialize(mask=False))
        emit("sent", kind="discovery", msg=msg)
        try:
            await asyncio.wait_for(ws.wait_closed(), 5)
        except asyncio.TimeoutError:
            ws.transport.close()

    async def send(self, ws, kind, msg):
        await ws.send(json.dumps(msg))
        emit("sent", kind=kind, msg=msg)

    def router_config_text(self):
        if self.args.router_config:
            with open(self.args.router_config, encoding="utf-8") as f:
                return f.read().strip()
        msg = {"msgtype": "router_config", "NetID": [1], "JoinEui": [], "region": "EU863",
               "hwspec": "sx1301/1", "freq_range": [863000000, 870000000], "DRs": DEFAULT_DRS,
               "sx1301_conf": [], "nocca": True, "nodc": True, "nodwell": True}
        if not self.args.no_muxtime:
            msg["MuxTime"] = round(time.time(), 6)
        return json.dumps(msg)

    def dnmsg_for(self, up):
        upinfo = up.get("upinfo", {}) if isinstance(up.get("upinfo"), dict) else {}
        self.diid += 1
        msg = {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": self.diid,
               "pdu": "0a0b0c0d", "RxDelay": 1, "RX1DR": up.get("DR", 0), "RX1Freq": up.get("Freq", 0),
               "priority": 0, "xtime": upinfo.get("xtime", up.get("xtime", 0)),
               "rctx": upinfo.get("rctx", 0), "MuxTime": round(time.time(), 6)}
        if self.args.auto_dnmsg_rx2:
            msg["RX2DR"] = 0
            msg["RX2Freq"] = 869525000
        return msg

    # ---- endpoints -------------------------------------------------------------------------
    async def handler(self, ws):
        path = ws.path
        kind = "discovery" if path.endswith("/router-info") else "traffic"
        emit("connected", kind=kind, path=path, subprotocol=ws.subprotocol,
             authorization=ws.request_headers.get("Authorization"))
        if kind == "traffic":
            self.traffic = ws
        try:
            async for text in ws:
                if isinstance(text, bytes):
                    text = text.decode("utf-8", "replace")
                try:
                    msg = json.loads(text)
                    emit("recv", kind=kind, msg=msg)
                except ValueError:
                    emit("recv", kind=kind, text=text)
                    continue
                if not isinstance(msg, dict):
                    continue
                if kind == "discovery":
                    await self.on_discovery(ws, msg)
                else:
                    await self.on_traffic(ws, msg)
        except websockets.ConnectionClosed:
            pass
        finally:
            if self.traffic is ws:
                self.traffic = None
            emit("closed", kind=kind, path=path, code=ws.close_code)

    async def on_discovery(self, ws, msg):
        if self.args.stall_discovery:
            return
        router = str(msg.get("router", ""))
        reply = {"router": router, "muxs": "muxs-::0"}
        if not self.args.discovery_no_uri:
            reply["uri"] = "wss://127.0.0.1:%d/traffic/%s" % (self.port, router)
        if self.args.discovery_muxtime:
            reply["MuxTime"] = round(time.time(), 6)
        if not self.args.discovery_coalesce:
            await self.send(ws, "discovery", reply)
        if self.args.discovery_double:
            await self.send(ws, "discovery", reply)
        if self.args.discovery_coalesce:
            # Reply and close frame in one write (one TLS record): the client meets both in
            # the same read.
            close = Frame(Opcode.CLOSE, Close(1000, "").serialize())
            await self.send_coalesced(ws, reply, close)
        elif self.args.discovery_close:
            await ws.close()

    async def on_traffic(self, ws, msg):
        msgtype = msg.get("msgtype")
        if msgtype == "version":
            if self.args.stall_version:
                return
            text = self.router_config_text()
            await ws.send(text)
            try:
                emit("sent", kind="traffic", msg=json.loads(text))
            except ValueError:
                emit("sent", kind="traffic", text=text)
        elif msgtype in ("updf", "jreq") and self.args.auto_dnmsg:
            await self.send(ws, "traffic", self.dnmsg_for(msg))

    # ---- commands from stdin -----------------------------------------------------------------
    async def command(self, line):
        try:
            cmd = json.loads(line)
            name = cmd["cmd"]
        except (ValueError, KeyError, TypeError):
            emit("error", error="bad command: " + line.strip())
            return
        if name == "refuse":
            self.refuse_all = bool(cmd.get("on", True))
            return
        ws = self.traffic
        if ws is None:
            emit("error", error="no traffic connection for " + name)
            return
        try:
            if name == "send":
                await self.send(ws, "traffic", cmd["msg"])
            elif name == "send_raw":
                await ws.send(cmd["text"])
                emit("sent", kind="traffic", text=cmd["text"])
            elif name == "close":
                await ws.close()
            else:
                emit("error", error="unknown command: " + name)
        except (websockets.ConnectionClosed, KeyError) as exc:
            emit("error", error="%s failed: %r" % (name, exc))

    async def read_stdin(self):
        # A reader thread works for every kind of stdin (pipe, terminal, /dev/null, file).
        loop = asyncio.get_running_loop()
        lines = asyncio.Queue()

        def reader():
            for line in sys.stdin:
                loop.call_soon_threadsafe(lines.put_nowait, line)
            loop.call_soon_threadsafe(lines.put_nowait, None)

        threading.Thread(target=reader, daemon=True).start()
        while True:
            line = await lines.get()
            if line is None:
                return  # end of commands; keep serving
            if line.strip():
                await self.command(line)

    async def run(self):
        a = self.args
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(os.path.join(a.certs, a.server_cert + ".pem"), os.path.join(a.certs, a.server_cert + ".key"))
        if a.auth == "cert":
            ctx.verify_mode = ssl.CERT_REQUIRED
            ctx.load_verify_locations(os.path.join(a.certs, "ca.pem"))
        ping = a.ping_interval if a.ping_interval > 0 else None
        loop = asyncio.get_running_loop()
        stop = loop.create_future()
        for sig in (signal.SIGTERM, signal.SIGINT):
            loop.add_signal_handler(sig, lambda: stop.done() or stop.set_result(None))
        async with websockets.serve(self.handler, "127.0.0.1", 0, ssl=ctx, subprotocols=["lws-lns"],
                                    process_request=self.process_request, ping_interval=ping,
                                    ping_timeout=a.ping_timeout, max_size=1 << 20) as server:
            self.port = server.sockets[0].getsockname()[1]
            print("READY %d" % self.port, flush=True)
            stdin_task = asyncio.ensure_future(self.read_stdin())
            await stop
            stdin_task.cancel()


def main():
    p = argparse.ArgumentParser(description="LNS test peer (Basics Station over TLS WebSockets)")
    p.add_argument("--certs", required=True)
    p.add_argument("--server-cert", default="server")
    p.add_argument("--auth", choices=["cert", "token"], default="cert")
    p.add_argument("--token", default="")
    p.add_argument("--ping-interval", type=float, default=60.0)
    p.add_argument("--ping-timeout", type=float, default=5.0)
    p.add_argument("--router-config")
    p.add_argument("--no-muxtime", action="store_true")
    p.add_argument("--discovery-muxtime", action="store_true")
    p.add_argument("--discovery-close", action=argparse.BooleanOptionalAction, default=True)
    p.add_argument("--discovery-coalesce", action="store_true")
    p.add_argument("--discovery-no-uri", action="store_true")
    p.add_argument("--discovery-double", action="store_true")
    p.add_argument("--stall-discovery", action="store_true")
    p.add_argument("--stall-version", action="store_true")
    p.add_argument("--refuse-traffic", action="store_true")
    p.add_argument("--refuse-discovery", action="store_true")
    p.add_argument("--auto-dnmsg", action="store_true")
    p.add_argument("--auto-dnmsg-rx2", action="store_true")
    args = p.parse_args()
    asyncio.run(Peer(args).run())


if __name__ == "__main__":
    main()
