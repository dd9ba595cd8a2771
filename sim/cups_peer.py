#!/usr/bin/python3
"""CUPS test server: answers LoRa Basics Station `update-info` requests over HTTPS.

Usage:
  cups_peer.py --certs DIR [--server NAME] [--path PREFIX] [--require-cert] [--token LINE]
               [--respond SPEC ...]

  --certs DIR      folder made by make_certs.sh; the server presents server.pem/server.key,
                   client certificates are verified against ca.pem, and relative file
                   names inside SPECs are taken from this folder.
  --server NAME    present NAME.pem/NAME.key instead (other_server: a CA the bridge does
                   not trust, like a public CA).
  --path PREFIX    requests must be POSTed to PREFIX + "/update-info", anything else
                   gets 404 (default: any path ending in "/update-info").
  --require-cert   answer 401 to a request that came without a client certificate
                   (a certificate that does not chain to ca.pem fails the handshake).
  --token LINE     answer 401 unless the request carries exactly this header line,
                   e.g. "Authorization: Bearer abc" (name compared without case).
  --respond SPEC   scripted answers, used one per request in order. When the script is
                   exhausted the last answer is repeated (at the start: "empty").
                   A request refused by --require-cert/--token gets 401 and does not
                   use a scripted answer.

Like the reference CUPS server, a request whose JSON body lacks any of router, cupsUri,
tcUri, cupsCredCrc, tcCredCrc or package gets 500, and an empty package 404 (after the
path and credential checks, before a scripted answer is used).

Lines on standard input add SPECs to the end of the script; the line "quit" or the end
of standard input stops the server.

SPEC is one of:
  empty           200 with 14 zero bytes (no update)
  <number>        that HTTP status with an empty body, e.g. 401, 500
  truncated       200 announcing 100 bytes of body but sending 14, then closing
  close           closes the connection without answering
  silent          accepts the TCP connection and never speaks (no TLS handshake); the
                  SPEC is taken at connection time
  trickle         200 with 14 zero bytes, the whole answer sent one byte every 2 s
  {JSON}          200 with a binary update built from the JSON object:
                    "cups_uri", "lns_uri": texts (absent: empty section)
                    "cups_creds", "lns_creds": {"trust": F, "cert": F, "key": F,
                        "token": TEXT}; each item absent or null gives the absence
                        marker (4 zero bytes), F names a DER file; "token" replaces
                        the key by the raw text. Absent object: empty section.
                    "sig", "blob": hex bytes for sections 5 and 6 (default empty)
                    "hex": the whole body as hex, used verbatim instead of the above
                    "unannounced": true: no Content-Length, the body ends with the connection

Output: "READY <port>" once listening on 127.0.0.1, then one JSON line per request:
  {"method", "path", "headers": {"content-type", "authorization", <token header>},
   "client_cn": CN of the client certificate or null, "body": request body text,
   "status": status answered or the SPEC word "truncated"/"close"/"trickle"}
{"tls_error": TEXT} for a failed TLS handshake and {"silent": true} for a silent connection.
"""
import argparse
import http.server
import json
import os
import ssl
import sys
import threading
import time

LOCK = threading.Lock()
STOP = threading.Event()
REQUIRED = ("router", "cupsUri", "tcUri", "cupsCredCrc", "tcCredCrc", "package")


def out(obj):
    with LOCK:
        sys.stdout.write(json.dumps(obj) + "\n")
        sys.stdout.flush()


class Script:
    def __init__(self, specs):
        self.specs = list(specs)
        self.last = "empty"
        self.cv = threading.Condition()

    def add(self, spec):
        with self.cv:
            self.specs.append(spec)

    def next(self):
        with self.cv:
            if self.specs:
                self.last = self.specs.pop(0)
            return self.last

    def take_silent(self):
        with self.cv:
            if self.specs and self.specs[0] == "silent":
                self.specs.pop(0)
                return True
            return False


def section(data, width):
    return len(data).to_bytes(width, "little") + data


def creds_blob(certs, creds):
    if creds is None:
        return b""

    def der(name):
        if creds.get(name) is None:
            return b"\0\0\0\0"
        with open(os.path.join(certs, creds[name]), "rb") as f:
            return f.read()

    key = creds["token"].encode() if "token" in creds else der("key")
    return der("trust") + der("cert") + key


def build_update(certs, spec):
    if "hex" in spec:
        return bytes.fromhex(spec["hex"])
    return (section(spec.get("cups_uri", "").encode(), 1)
            + section(spec.get("lns_uri", "").encode(), 1)
            + section(creds_blob(certs, spec.get("cups_creds")), 2)
            + section(creds_blob(certs, spec.get("lns_creds")), 2)
            + section(bytes.fromhex(spec.get("sig", "")), 4)
            + section(bytes.fromhex(spec.get("blob", "")), 4))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def client_cn(self):
        cert = self.connection.getpeercert()
        if not cert:
            return None
        for rdn in cert.get("subject", ()):
            for key, value in rdn:
                if key == "commonName":
                    return value
        return None

    def authorised(self, cn):
        opts = self.server.opts
        if opts.require_cert and cn is None:
            return False
        if opts.token:
            name, _, value = opts.token.partition(":")
            return self.headers.get(name.strip()) == value.strip()
        return True

    def answer(self, status, body=b"", length=None):
        """`length`: the Content-Length announced; None: the body's; False: none."""
        self.send_response(status)
        self.send_header("Content-Type", "application/octet-stream")
        if length is not False:
            self.send_header("Content-Length", str(len(body) if length is None else length))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)
        self.wfile.flush()
        self.close_connection = True

    def trickle(self, body):
        head = ("HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n" % len(body)).encode()
        self.close_connection = True
        for i, b in enumerate(head + body):
            if STOP.wait(0 if i == 0 else 2):
                return
            try:
                self.wfile.write(bytes([b]))
                self.wfile.flush()
            except OSError:
                return

    def do_POST(self):
        opts = self.server.opts
        length = int(self.headers.get("Content-Length", "0"))
        body = self.rfile.read(length).decode(errors="replace")
        wanted = ["content-type", "authorization"]
        if opts.token:
            wanted.append(opts.token.partition(":")[0].strip().lower())
        headers = {h: self.headers.get(h) for h in wanted}
        cn = self.client_cn()
        record = {"method": "POST", "path": self.path, "headers": headers,
                  "client_cn": cn, "body": body}
        expected = self.path.endswith("/update-info") if opts.path is None \
            else self.path == opts.path + "/update-info"
        if not expected:
            record["status"] = 404
            out(record)
            self.answer(404)
            return
        if not self.authorised(cn):
            record["status"] = 401
            out(record)
            self.answer(401)
            return
        refusal = refuse_body(body)
        if refusal:
            record["status"] = refusal
            out(record)
            self.answer(refusal)
            return
        spec = self.server.script.next()
        record["status"] = spec if spec in ("truncated", "close", "trickle") else None
        length = None
        if spec == "empty":
            status, payload = 200, bytes(14)
        elif spec == "truncated":
            out(record)
            self.answer(200, bytes(14), length=100)
            return
        elif spec == "close":
            out(record)
            self.close_connection = True
            return
        elif spec == "trickle":
            out(record)
            self.trickle(bytes(14))
            return
        elif spec.startswith("{"):
            update = json.loads(spec)
            status, payload = 200, build_update(opts.certs, update)
            length = False if update.get("unannounced") else None
        else:
            status, payload = int(spec), b""
        record["status"] = status
        out(record)
        self.answer(status, payload, length)


def refuse_body(text):
    """The reference server's status for a body it cannot use, or None."""
    try:
        body = json.loads(text)
    except ValueError:
        return 500
    if not isinstance(body, dict) or any(k not in body for k in REQUIRED):
        return 500
    return 404 if body["package"] == "" else None


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def finish_request(self, request, client_address):
        if self.script.take_silent():
            out({"silent": True})
            STOP.wait(120)
            return
        # The handshake runs on the request's own thread so that a stuck client
        # cannot block the listener.
        request.settimeout(10)
        try:
            tls = self.tls.wrap_socket(request, server_side=True)
        except (ssl.SSLError, OSError) as e:
            out({"tls_error": str(e)})
            return
        super().finish_request(tls, client_address)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--certs", required=True)
    ap.add_argument("--server", default="server")
    ap.add_argument("--path")
    ap.add_argument("--require-cert", action="store_true")
    ap.add_argument("--token")
    ap.add_argument("--respond", action="append", default=[])
    opts = ap.parse_args()

    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(os.path.join(opts.certs, opts.server + ".pem"),
                        os.path.join(opts.certs, opts.server + ".key"))
    tls.load_verify_locations(os.path.join(opts.certs, "ca.pem"))
    tls.verify_mode = ssl.CERT_OPTIONAL

    server = Server(("127.0.0.1", 0), Handler)
    server.tls = tls
    server.opts = opts
    server.script = Script(opts.respond)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    out_line = "READY %d\n" % server.server_address[1]
    with LOCK:
        sys.stdout.write(out_line)
        sys.stdout.flush()

    # Standard input closing means the test that started us is gone.
    for line in sys.stdin:
        line = line.strip()
        if line == "quit":
            break
        if line:
            server.script.add(line)
    STOP.set()
    server.shutdown()


if __name__ == "__main__":
    main()
