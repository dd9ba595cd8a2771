#!/usr/bin/python3
"""End to end: zero-touch provisioning. With only its CUPS set, the daemon gets the LNS URI, certificate and
key from the CUPS simulator (which, like the reference server, answers 500 to a request without tcUri),
says so, and holds a session with the LNS simulator, which demands that certificate (proving the key)."""
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
LOG = os.path.join(TMP, "kes_bstn.log")


def test_fresh_gateway_is_provisioned_into_an_lns_session():
    keys = ("uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key", "key_backup")
    lns = cups = proc = None
    try:
        lns = e2e.LnsPeer(CERTS, "--auth", "cert")
        update = {"lns_uri": "wss://127.0.0.1:%d" % lns.port,
                  "lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}}
        cups = e2e.CupsPeer(CERTS, extra=["--require-cert", "--respond", json.dumps(update)])
        with open(os.path.join(TMP, "cups.uri"), "w") as f:
            f.write("https://127.0.0.1:%d/cups/\n" % cups.port)
        for key, name in (("trust", "ca.pem"), ("cert", "client.pem"), ("key", "client.key")):
            shutil.copy(os.path.join(CERTS, name), os.path.join(TMP, "cups." + key))
        config = os.path.join(TMP, "kes_bstn.toml")
        with open(config, "w") as f:
            f.write('[general]\ngw_eui = "%s"\npackage = "1.7.1"\nskip_cups = false\n' % e2e.GW_EUI)
            for side in ("cups", "lns"):
                f.write("[%s]\n" % side + "".join('%s = "%s/%s.%s"\n' % (k, TMP, side, k) for k in keys))
            f.write("[semtech]\nbind_port = %d\n" % e2e.free_udp_port())
        with open(LOG, "w") as log:
            proc = subprocess.Popen([e2e.bridge_binary(), "-d", "-c", config], stdin=subprocess.DEVNULL,
                                    stdout=log, stderr=subprocess.STDOUT)
        check(lns.wait_for(lambda e: e.get("event") == "sent" and isinstance(e.get("msg"), dict)
                           and e["msg"].get("msgtype") == "router_config", 30) is not None,
              "no LNS session with the provisioned credentials; log: " + LOG)
        statuses = [r["status"] for r in cups.requests()]
        check(statuses == [200], "CUPS answers %s" % statuses)
        check("CUPS answered: updated LNS URI, LNS credentials" in open(LOG).read(), "no CUPS milestone line")
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
