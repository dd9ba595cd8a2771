#!/usr/bin/python3
"""End to end: remote provisioning through CUPS. The real kes_bstn daemon (skip_cups = false)
starts with only its CUPS credentials, asks the CUPS peer (sim/cups_peer.py) for an
update, writes the LNS URI and credentials it receives, then discovers and connects to the
LNS peer (sim/lns_peer.py) with them."""

import json
import os
import shutil
import stat
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

TMP = tempfile.mkdtemp(prefix="kes_e2e_cups_")
CERTS = os.path.join(TMP, "certs")




def read(path):
    with open(path, newline="") as f:
        return f.read()


def write(path, text):
    with open(path, "w", newline="") as f:
        f.write(text)


def cups_lns_files(workdir):
    files = lambda prefix: {k: os.path.join(workdir, prefix + "." + k) for k in  # noqa: E731
                            ("uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key",
                             "key_backup")}
    return {"cups": files("cups"), "lns": files("lns")}


def start_bridge(workdir, files):
    """The daemon with CUPS enabled; only the CUPS files exist, the LNS files come from CUPS."""
    cfg = {"general": {"gw_eui": e2e.GW_EUI, "name": "kes-e2e-cups", "fw_version": "1.7.1", "model": "e2e",
                       "package": "1.7.1", "skip_cups": False}, **files}
    config = os.path.join(workdir, "kes_bstn.toml")
    with open(config, "w") as f:
        for section, entries in cfg.items():
            f.write("[%s]\n" % section)
            for k, v in entries.items():
                f.write("%s = %s\n" % (k, json.dumps(v)))
            f.write("\n")
        f.write("[semtech]\nbind_port = %d\n" % e2e.free_udp_port())
    log_path = os.path.join(workdir, "kes_bstn.log")
    log = open(log_path, "w")
    proc = subprocess.Popen([e2e.bridge_binary(), "-d", "-v", "4", "-c", config],
                            stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
    return proc, log, log_path


def provision(name, lns_args, cups_args, prepare, verify):
    """LNS peer, CUPS peer scripted with the LNS port, CUPS files made by `prepare`, then the
    daemon; once it holds a session with the LNS, `verify(lns, cups, files, conn)` runs."""
    workdir = os.path.join(TMP, name)
    os.makedirs(workdir)
    lns = cups = proc = log = None
    ok = False
    try:
        lns = e2e.LnsPeer(CERTS, *lns_args)
        cups = e2e.CupsPeer(CERTS, extra=cups_args(lns.port))
        files = cups_lns_files(workdir)
        write(files["cups"]["uri"], "https://127.0.0.1:%d/cups/\n" % cups.port)
        prepare(files)
        proc, log, log_path = start_bridge(workdir, files)
        conn = lns.wait_for(lambda e: e.get("event") == "connected" and e.get("kind") == "traffic", 30)
        check(conn is not None, "the bridge did not reach the LNS traffic endpoint; log: " + log_path)
        sent = lns.wait_for(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                            and e["msg"].get("msgtype") == "router_config", 10)
        check(sent is not None, "no router_config was sent; log: " + log_path)
        check(proc.poll() is None, "the bridge exited")
        verify(lns, cups, files, conn)
        ok = True
    finally:
        if proc is not None:
            e2e.stop_pid(proc)
        if log is not None:
            log.close()
        for peer in (cups, lns):
            if peer is not None:
                peer.stop()
        if not ok:
            print("kept: %s" % workdir)


def cert(name):
    return os.path.join(CERTS, name)


def test_keypair_provisioning_of_lns_certificate():
    def cups_args(lns_port):
        update = {"lns_uri": "wss://127.0.0.1:%d" % lns_port,
                  "lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}}
        return ["--require-cert", "--respond", json.dumps(update)]

    def prepare(files):
        shutil.copy(cert("ca.pem"), files["cups"]["trust"])
        shutil.copy(cert("client.pem"), files["cups"]["cert"])
        shutil.copy(cert("client.key"), files["cups"]["key"])

    def verify(lns, cups, files, conn):
        recs = cups.requests()
        check(len(recs) == 1, "expected one update-info request, got %d" % len(recs))
        check(recs[0]["path"] == "/cups/update-info", "request path %s" % recs[0]["path"])
        check(recs[0]["client_cn"] == e2e.GW_EUI, "CUPS client certificate CN %s" % recs[0]["client_cn"])
        body = json.loads(recs[0]["body"])
        check(list(body) == ["router", "cupsUri", "cupsCredCrc", "tcCredCrc", "station", "model", "package"],
              "request members %s" % list(body))
        check(body["tcCredCrc"] == 0, "no LNS credentials existed, tcCredCrc %s" % body["tcCredCrc"])
        check(read(files["lns"]["uri"]) == "wss://127.0.0.1:%d" % lns.port, "LNS URI file")
        check(read(files["lns"]["trust"]) == read(cert("ca.pem")), "LNS trust PEM")
        check(read(files["lns"]["cert"]) == read(cert("client_ec.pem")), "LNS cert PEM")
        check(stat.S_IMODE(os.stat(files["lns"]["key"]).st_mode) == 0o600, "LNS key mode")
        check(read(files["cups"]["key_backup"]) == read(cert("client.key")), "CUPS key backup")

    provision("keypair", ["--auth", "cert"], cups_args, prepare, verify)


def test_backup_token_after_refusal_provisions_lns_token():
    def cups_args(lns_port):
        update = {"lns_uri": "wss://127.0.0.1:%d" % lns_port,
                  # The LNS client sends the key file verbatim as handshake header lines,
                  # so the token comes with its CR LF, as real CUPS servers send it.
                  "lns_creds": {"trust": "ca.der", "token": "Authorization: Bearer lns-secret\r\n"}}
        return ["--token", "Authorization: Bearer right", "--respond", json.dumps(update)]

    def prepare(files):
        shutil.copy(cert("ca.pem"), files["cups"]["trust"])
        shutil.copy(cert("ca.pem"), files["cups"]["trust_backup"])
        write(files["cups"]["key"], "Authorization: Bearer wrong\r\n")
        write(files["cups"]["key_backup"], "Authorization: Bearer right\r\n")
        shutil.copy(files["cups"]["uri"], files["cups"]["uri_backup"])

    def verify(lns, cups, files, conn):
        recs = cups.requests()
        check([r["status"] for r in recs] == [401, 200], "CUPS answers %s" % [r["status"] for r in recs])
        check([r["headers"]["authorization"] for r in recs] == ["Bearer wrong", "Bearer right"],
              "CUPS tokens %s" % [r["headers"]["authorization"] for r in recs])
        check(read(files["lns"]["key"]) == "Authorization: Bearer lns-secret\r\n", "LNS token file")
        check(conn.get("authorization") == "Bearer lns-secret", "LNS authorization %r" % conn.get("authorization"))
        # The answer to the backup set is applied without copying the refused main set over it.
        check(read(files["cups"]["key_backup"]) == "Authorization: Bearer right\r\n", "CUPS backup token changed")

    provision("token", ["--auth", "token", "--token", "Bearer lns-secret"], cups_args, prepare, verify)


if __name__ == "__main__":
    e2e.make_certs(CERTS)
    try:
        e2e.run_tests([test_keypair_provisioning_of_lns_certificate,
                       test_backup_token_after_refusal_provisions_lns_token])
    except SystemExit as done:
        if not done.code:
            shutil.rmtree(TMP, ignore_errors=True)
        raise
