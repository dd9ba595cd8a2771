// The UDP dataplane towards the packet forwarder (GWMP v1/v2).
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

using bridge_dataplane_cb = void (*)(uint32_t kind, void *arg);

int bridge_dataplane_init(bridge_dataplane_cb cb, void *cb_arg);
int bridge_dataplane_deinit();
int bridge_dataplane_start_server(int port);
int bridge_dataplane_stop_server();
int bridge_dataplane_ns_connect();
int bridge_dataplane_ns_disconnect();

// Network-server side format and version: always Basics Station version 1.
int get_version_and_ns_format(uint32_t *version, uint32_t *format);

// ---- GWMP wire format --------------------------------------------------------

enum : uint8_t {
    GWMP_PUSH_DATA = 0x00,
    GWMP_PUSH_ACK = 0x01,
    GWMP_PULL_DATA = 0x02,
    GWMP_PULL_RESP = 0x03,
    GWMP_PULL_ACK = 0x04,
    GWMP_TX_ACK = 0x05,
};

constexpr size_t GWMP_HEADER_SZ = 4;       // version, token (2 bytes), identifier
constexpr size_t GWMP_EUI_SZ = 8;          // gateway EUI after the header
constexpr size_t BRIDGE_DATAPLANE_RX_BUF_SZ = 1024;   // at most 1023 bytes of datagram + added zero
constexpr size_t BRIDGE_DATAPLANE_PIPE_MSG_SZ = 4096; // one whole PULL_RESP datagram

// Handles one received datagram as the worker does: `data` holds `len` bytes as
// received (cut to 1023 like the worker's receive), `from` is the sender. Sends
// the acknowledgement on the dataplane socket. 0 or negative (datagram dropped).
// Exposed for tests and fuzzing; must not run concurrently with the worker.
int bridge_dataplane_handle_datagram(const uint8_t *data, size_t len, const struct sockaddr *from,
                                     socklen_t from_len);

// The downlink subscriber given to the LNS client (bridge_bstn_lns_downlink_cb):
// translates one processed dnmsg into a PULL_RESP and hands it to the worker.
int bridge_dataplane_downlink_cb(int status, void *arg, const char *payload, size_t length);
