#!/usr/bin/python3
"""Writes the seed corpora under fuzz/corpus/<target>/ from realistic inputs.

Run with Debian's interpreter: /usr/bin/python3 fuzz/make_corpus.py
The CUPS bodies embed DER credentials made by sim/make_certs.sh.
"""
import base64
import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CORPUS = os.path.join(ROOT, "fuzz", "corpus")

JOIN = bytes([0x00]) + bytes(range(1, 9)) + bytes(range(0x11, 0x19)) + b"\x34\x12" + b"\xaa\xbb\xcc\xdd"
DATA_UNCONF = bytes([0x40, 0x78, 0x56, 0x34, 0x12, 0x00, 0x05, 0x00, 0x01]) + b"\x11\x22\x33" + b"\x01\x02\x03\x04"
DATA_FOPTS = bytes([0x80, 0x01, 0x00, 0x00, 0x26, 0x83, 0x10, 0x00, 0x02, 0x30, 0x01, 0x0a]) + bytes(8) + b"\x99\x88\x77\x66"
DATA_NOPORT = bytes([0x40, 0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00]) + b"\xde\xad\xbe\xef"
DATA_MAXFOPTS = bytes([0x40, 1, 2, 3, 4, 0x0f, 0, 0]) + bytes(range(10)) + b"\x01\x02\x03\x04"


def b64(b):
    return base64.b64encode(b).decode()


def rxpk_v2(phy, datr="SF7BW125", tmst=1002000):
    return {"time": "2026-11-22T20:50:12.000000Z", "tmms": 1413555030000, "tmst": tmst, "chan": 2, "rfch": 0,
            "freq": 868.5, "stat": 1, "modu": "LORA", "datr": datr, "codr": "4/5", "rssi": -35, "lsnr": 5.1,
            "size": len(phy), "data": b64(phy)}


def rxpk_v1(phy, datr="SF12BW125", tmst=1500000):
    return {"tmst": tmst, "rfch": 1, "freq": 868.1, "stat": 1, "modu": "LORA", "datr": datr, "codr": "4/5",
            "size": len(phy), "data": b64(phy),
            "rsig": [{"ant": 0, "chan": 0, "rssic": -80, "lsnr": -7.26}, {"ant": 1, "chan": 0, "rssic": -90, "lsnr": -9.0}]}


STAT = {"time": "2026-11-22 20:50:12 GMT", "rxnb": 2, "rxok": 2, "rxfw": 2, "ackr": 100.0, "dwnb": 0, "txnb": 0,
        "count": 1000000}
EUI = bytes.fromhex("0016c001ff10a235")


def gwmp(version, token, ident, body=b""):
    return bytes([version]) + struct.pack("<H", token) + bytes([ident]) + body


def compact(obj):
    return json.dumps(obj, separators=(",", ":")).encode()


def write(target, name, data):
    d = os.path.join(CORPUS, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def make_certs():
    tmp = tempfile.mkdtemp(prefix="kes_seed_certs.")
    subprocess.run(["bash", os.path.join(ROOT, "tests", "peers", "make_certs.sh"), tmp, "fuzz-gw"], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    out = {}
    for name in ("ca.der", "client.der", "client.key.der", "client_ec.key.der"):
        with open(os.path.join(tmp, name), "rb") as f:
            out[name] = f.read()
    shutil.rmtree(tmp)
    return out


def cups_body(cups_uri=b"", lns_uri=b"", cups_cred=b"", lns_cred=b"", sig=b"", blob=b""):
    return (struct.pack("<B", len(cups_uri)) + cups_uri + struct.pack("<B", len(lns_uri)) + lns_uri +
            struct.pack("<H", len(cups_cred)) + cups_cred + struct.pack("<H", len(lns_cred)) + lns_cred +
            struct.pack("<I", len(sig)) + sig + struct.pack("<I", len(blob)) + blob)


def main():
    if os.path.isdir(CORPUS):
        shutil.rmtree(CORPUS)

    # ---- datagrams
    write("datagram", "push_v2_join", gwmp(2, 0x1234, 0, EUI + compact({"rxpk": [rxpk_v2(JOIN)]})))
    write("datagram", "push_v2_updf_stat", gwmp(2, 0x0102, 0, EUI + compact({"rxpk": [rxpk_v2(DATA_FOPTS)], "stat": STAT})))
    write("datagram", "push_v1_rsig", gwmp(1, 0xbeef, 0, EUI + compact({"rxpk": [rxpk_v1(DATA_UNCONF), rxpk_v1(JOIN)]})))
    write("datagram", "push_v2_stat_only", gwmp(2, 7, 0, EUI + compact({"stat": STAT})))
    write("datagram", "push_v2_locpk", gwmp(2, 8, 0, EUI + compact({"locpk": {"lati": 46.2, "long": 6.1}, "rxpk": []})))
    write("datagram", "pull_data_v2", gwmp(2, 0x4242, 2, EUI))
    write("datagram", "tx_ack_v2", gwmp(2, 0, 5, EUI + compact({"txpk_ack": {"error": "NONE"}})))
    write("datagram", "push_v2_fsk", gwmp(2, 9, 0, EUI + compact({"rxpk": [dict(rxpk_v2(DATA_NOPORT), datr=50000, modu="FSK")]})))

    # ---- rxpk objects
    write("rxpk", "v2_join", compact(rxpk_v2(JOIN)))
    write("rxpk", "v2_updf_fopts", compact(rxpk_v2(DATA_FOPTS, "SF9BW125")))
    write("rxpk", "v1_rsig", compact(rxpk_v1(DATA_UNCONF)))
    write("rxpk", "v1_no_rsig", compact({k: v for k, v in rxpk_v1(DATA_NOPORT).items() if k != "rsig"}))
    write("rxpk", "v2_maxfopts", compact(rxpk_v2(DATA_MAXFOPTS, "SF7BW250", tmst=999000)))

    # ---- LoRaWAN PHY payloads
    write("phy", "join_request", JOIN)
    write("phy", "unconfirmed_up", DATA_UNCONF)
    write("phy", "confirmed_fopts", DATA_FOPTS)
    write("phy", "no_port", DATA_NOPORT)
    write("phy", "fopts_15", DATA_MAXFOPTS)

    # ---- LNS texts
    dn_a = {"msgtype": "dnmsg", "DevEui": "00-00-00-00-11-00-00-01", "dC": 0, "diid": 35, "pdu": "60ae7e0100000000d3b2",
            "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000, "RX2DR": 0, "RX2Freq": 869525000, "priority": 0,
            "xtime": 0x42000000f4240, "rctx": 0, "MuxTime": 1700000000.123}
    write("lns_message", "dnmsg_class_a", compact(dn_a))
    write("lns_message", "dnmsg_class_a_rx1", compact({k: v for k, v in dn_a.items() if not k.startswith("RX2")}))
    write("lns_message", "dnmsg_class_b", compact({"msgtype": "dnmsg", "DevEui": "00-00-00-00-11-00-00-02", "dC": 1,
                                                   "diid": 36, "pdu": "a0ae7e01", "DR": 3, "Freq": 869525000,
                                                   "gpstime": 1234567890123, "priority": 1}))
    write("lns_message", "dnmsg_class_c", compact({"msgtype": "dnmsg", "DevEui": "00-00-00-00-11-00-00-03", "dC": 2,
                                                   "diid": 37, "pdu": "60ae7e01000000", "RX2DR": 0,
                                                   "RX2Freq": 869525000, "RxDelay": 0}))
    write("lns_message", "router_config", compact({"msgtype": "router_config", "NetID": [1], "region": "EU863",
                                                   "hwspec": "sx1301/1", "freq_range": [863000000, 870000000],
                                                   "DRs": [[12, 125, 0], [11, 125, 0], [10, 125, 0], [9, 125, 0],
                                                           [8, 125, 0], [7, 125, 0], [7, 250, 0], [0, 0, 0]],
                                                   "MuxTime": 1700000000.5}))
    write("lns_message", "timesync", compact({"msgtype": "timesync", "txtime": 1023024, "gpstime": 1234567890000,
                                              "MuxTime": 1700000001.25}))
    write("lns_message", "dnsched", compact({"msgtype": "dnsched", "schedule": [{"DR": 3, "Freq": 869525000}]}))

    # ---- CUPS bodies and DER items
    der = make_certs()
    token = b"Authorization: Bearer NNSXS.fuzz-token\r\n"
    write("cups_response", "empty", bytes(14))
    write("cups_response", "uris", cups_body(b"https://cups.example.com:443", b"wss://lns.example.com:8887"))
    write("cups_response", "lns_trust_token", cups_body(lns_cred=der["ca.der"] + bytes(4) + token))
    write("cups_response", "lns_ec_key", cups_body(lns_uri=b"wss://127.0.0.1:6090",
                                                   lns_cred=bytes(4) + bytes(4) + der["client_ec.key.der"],
                                                   sig=b"\x30\x45" + bytes(8)))
    write("cups_response", "cups_full", cups_body(cups_cred=der["ca.der"] + der["client.der"] + der["client_ec.key.der"]))
    write("der_len", "short_form", b"\x30\x0a" + bytes(10))
    write("der_len", "long_form_2", b"\x30\x82\x01\x00")
    write("der_len", "long_form_1", b"\x30\x81\x80")
    write("der_len", "cert_head", der["client.der"][:8])

    # ---- URIs
    write("lns_uri", "wss_port_path", "wss://lns.example.com:8887/traffic/eui-0016c001ff10a235")
    write("lns_uri", "ws_host_only", "ws://lns.example.com")
    write("lns_uri", "padded", "  wss://lns.example.com/path\n")
    write("lns_uri", "ipv6", "wss://[::1]:6090/router-info?x=1#f")
    write("lns_uri", "ipv4_trailing_slash", "https://127.0.0.1:443/")

    # ---- configuration files
    with open(os.path.join(ROOT, "config", "kes_bstn.toml"), "rb") as f:
        write("config", "example", f.read())
    write("config", "minimal", "[general]\n[cups]\n[lns]\n[semtech]\n")
    write("config", "skip_cups", '[general]\ngw_eui = "0016c001ff10a235"\nskip_cups = true\n[cups]\n'
                                 '[lns]\nuri = "/tmp/tc.uri"\ntrust = "/tmp/tc.trust"\n[semtech]\nbind_port = 1700\n')

    # ---- Base64 and hex texts
    write("base64", "join", b64(JOIN))
    write("base64", "pad1", "QUJD=")
    write("base64", "pad2", "QUI=")
    write("base64", "stop_at_blank", "AAEC AwQ=")
    write("hex", "pdu", "60ae7e0100000000d3b2")
    write("hex", "upper", "DEADBEEF")
    write("hex", "eui", "0016c001ff10a235")
    return 0


if __name__ == "__main__":
    sys.exit(main())
