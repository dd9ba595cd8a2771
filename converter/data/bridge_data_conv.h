// The UDP dataplane towards the packet forwarder (GWMP v1/v2).
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>

#include "converter/data/bridge_data_conv_gwmp.h"

using bridge_dataplane_cb = void (*)(uint32_t kind, void *arg);

int bridge_dataplane_init(bridge_dataplane_cb cb, void *cb_arg);
int bridge_dataplane_deinit();
// Binds `port` on [semtech] bind_address (empty: every IPv4 address) and starts the worker.
int bridge_dataplane_start_server(int port);
int bridge_dataplane_stop_server();
int bridge_dataplane_ns_connect();
int bridge_dataplane_ns_disconnect();

// Network-server side format and version: always Basics Station version 1.
int get_version_and_ns_format(uint32_t *version, uint32_t *format);

// ---- GWMP datagrams ------------------------------------------------------------

// The largest UDP payload over IPv4 plus the zero byte added after it: a forwarder batches up
// to 8 rxpk in one PUSH_DATA, several KiB with large payloads.
constexpr size_t BRIDGE_DATAPLANE_RX_BUF_SZ = 65507 + 1;
constexpr size_t BRIDGE_DATAPLANE_PIPE_MSG_SZ = 4096; // one whole PULL_RESP datagram
// Downlinks the pipe to the worker holds (the LNS client's downlink ring holds fewer).
constexpr size_t BRIDGE_DATAPLANE_PIPE_MSGS = 64;

// Handles one received datagram as the worker does: `data` holds `len` bytes as
// received, `from` is the sender. Sends
// the acknowledgement on the dataplane socket. 0 or negative (datagram dropped).
// Exposed for tests and fuzzing; must not run concurrently with the worker.
int bridge_dataplane_handle_datagram(const uint8_t *data, size_t len, const struct sockaddr *from,
                                     socklen_t from_len);

// The downlink subscriber given to the LNS client (bridge_bstn_lns_downlink_cb):
// translates one processed dnmsg into a PULL_RESP and hands it to the worker. 0 only when
// the PULL_RESP is on its way to the forwarder; never blocks.
int bridge_dataplane_downlink_cb(int status, void *arg, const char *payload, size_t length);
