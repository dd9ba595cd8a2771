#!/usr/bin/python3
"""End to end: zero-touch provisioning through CUPS. The daemon starts with only its CUPS set; the
CUPS simulator (which, like the reference server, refuses a request without tcUri) sends the LNS URI
and an LNS client certificate and key; the daemon writes them, says so, then holds a session with the
LNS simulator, which demands that certificate (so the written key is proven too)."""
import json
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

TMP = tempfile.mkdtemp(prefix="kes_e2e_cups_")
CERTS = os.path.join(TMP, "certs")
KEYS = ("uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key", "key_backup")


def test_fresh_gateway_is_provisioned_into_an_lns_session():
    files = {side: {k: os.path.join(TMP, "%s.%s" % (side, k)) for k in KEYS} for side in ("cups", "lns")}
    lns = cups = proc = None
    log_path = os.path.join(TMP, "kes_bstn.log")
    try:
        lns = e2e.LnsPeer(CERTS, "--auth", "cert")
        update = {"lns_uri": "wss://127.0.0.1:%d" % lns.port,
                  "lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}}
        cups = e2e.CupsPeer(CERTS, extra=["--require-cert", "--respond", json.dumps(update)])
        with open(files["cups"]["uri"], "w") as f:
            f.write("https://127.0.0.1:%d/cups/\n" % cups.port)
        for key, name in (("trust", "ca.pem"), ("cert", "client.pem"), ("key", "client.key")):
            shutil.copy(os.path.join(CERTS, name), files["cups"][key])
        config = os.path.join(TMP, "kes_bstn.toml")
        with open(config, "w") as f:
            f.write('[general]\ngw_eui = "%s"\npackage = "1.7.1"\nskip_cups = false\n' % e2e.GW_EUI)
            for side, entries in files.items():
                f.write("[%s]\n%s\n" % (side, "\n".join('%s = "%s"' % kv for kv in entries.items())))
            f.write("[semtech]\nbind_port = %d\n" % e2e.free_udp_port())
        with open(log_path, "w") as log:
            proc = subprocess.Popen([e2e.bridge_binary(), "-d", "-c", config], stdin=subprocess.DEVNULL,
                                    stdout=log, stderr=subprocess.STDOUT)
        check(lns.wait_for(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                           and e["msg"].get("msgtype") == "router_config", 30) is not None,
              "no LNS session with the provisioned credentials; log: " + log_path)
        recs = cups.requests()
        check([r["status"] for r in recs] == [200], "CUPS answers %s" % [r["status"] for r in recs])
        body = json.loads(recs[0]["body"])
        check(body.get("tcUri") == "" and body.get("tcCredCrc") == 0, "request of a fresh gateway: %s" % body)
        check("CUPS answered: updated LNS URI, LNS credentials" in open(log_path).read(), "no CUPS milestone line")
        check(proc.poll() is None, "the bridge exited")
    finally:
        if proc is not None:
            e2e.stop_pid(proc)
        for peer in (cups, lns):
            if peer is not None:
                peer.stop()


if __name__ == "__main__":
    e2e.make_certs(CERTS)
    try:
        e2e.run_tests([test_fresh_gateway_is_provisioned_into_an_lns_session])
    except SystemExit as done:
        if not done.code:
            shutil.rmtree(TMP, ignore_errors=True)
        raise
