#!/usr/bin/python3
"""End to end with the CUPS peer. Zero-touch provisioning: with only its CUPS set, the daemon gets the LNS
URI, certificate and key from the CUPS peer (which, like the reference server, answers 500 to a request
without tcUri), says so, and holds a session with the LNS peer, which demands that certificate (proving
the key). Retry rhythm and answers that are no update: tests/integration (limits shortened)."""
import json

import harness as e2e
from harness import check

UPDATE = {"lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}}
fresh = e2e.Stack(lns_args=("--auth", "cert"), lns_set=False, cups_args=lambda lns_port: [
    "--require-cert", "--respond", json.dumps({"lns_uri": "wss://127.0.0.1:%d" % lns_port, **UPDATE})])


def test_fresh_gateway_is_provisioned_into_an_lns_session():
    fresh.launch().ready(30)  # an uplink reaches the LNS with the provisioned credentials
    statuses = [r["status"] for r in fresh.cups.requests()]
    check(statuses == [200], "CUPS answers %s" % statuses)
    check("CUPS answered: updated LNS URI, LNS credentials" in fresh.bridge.log_text(), "no CUPS milestone line")
    check(fresh.bridge.alive(), "the bridge exited")


if __name__ == "__main__":
    e2e.run_tests([test_fresh_gateway_is_provisioned_into_an_lns_session], fresh)
