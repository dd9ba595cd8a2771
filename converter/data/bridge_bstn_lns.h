// Client of the Basics Station LNS: discovery, session and uplink push.
#pragma once

#include <cstddef>
#include <cstdint>
#include <json-c/json.h>

// Status of the LNS client: the connection failed or ended, start over.
constexpr int LNS_STATUS_RESTART_REQUIRED = 2;

// Receives each processed dnmsg: status is 0, data the JSON text, data_sz its length plus one.
// Returns 0 when the downlink was handed to the packet forwarder (only then does the LNS
// get a dntxed), negative when it was dropped. Must not block: it runs under the LNS lock.
using bridge_bstn_lns_downlink_cb = int (*)(int status, void *arg, const char *data, size_t data_sz);

int bridge_bstn_lns_init_discovery(uint32_t level, bool use_stderr);
int bridge_bstn_lns_start();
void bridge_bstn_lns_stop();
void bridge_bstn_lns_downlink_subscribe(bridge_bstn_lns_downlink_cb cb, void *arg);
void bridge_bstn_lns_downlink_unsubscribe();
// Queues a jreq/updf for the LNS (DR text -> table index, RefTime added). 0 when queued; 1 when
// refused because no session is up or the data rate is unknown (counted here as lns_refused);
// -1 when the queue is full or a JSON value cannot be made.
int bridge_bstn_lns_uplink_push(json_object *lns_uplink);
