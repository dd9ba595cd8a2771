// One GWMP datagram through the dataplane's datagram handling, as the worker
// receives it. The LNS client is not initialised (uplinks stop at its push);
// the time base is synchronised so the uplink translators run. The datagram's
// sender is a local UDP socket of this program, which collects the acknowledgements.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "converter/data/bridge_data_conv.h"
#include "converter/data/bridge_translator.h"
#include "fuzz_support.h"

namespace {

constexpr int64_t SYNCED_BASE = (0x42LL << 48) | 1000000;
int forwarder_sock = -1;
sockaddr_in forwarder_addr{};

void ignore_failure(uint32_t, void *) {}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    forwarder_sock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    FUZZ_CHECK(forwarder_sock >= 0);
    forwarder_addr.sin_family = AF_INET;
    forwarder_addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    FUZZ_CHECK(bind(forwarder_sock, reinterpret_cast<sockaddr *>(&forwarder_addr), sizeof forwarder_addr) == 0);
    socklen_t len = sizeof forwarder_addr;
    FUZZ_CHECK(getsockname(forwarder_sock, reinterpret_cast<sockaddr *>(&forwarder_addr), &len) == 0);
    FUZZ_CHECK(bridge_dataplane_init(ignore_failure, nullptr) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 2048) return 0;
    bridge_bstn_xtime_set_base(SYNCED_BASE);
    const int rc = bridge_dataplane_handle_datagram(data, size, reinterpret_cast<const sockaddr *>(&forwarder_addr),
                                                    sizeof forwarder_addr);

    // Whatever came back is one acknowledgement of this datagram, and only of an accepted one.
    uint8_t ack[64];
    int acks = 0;
    for (;;) {
        ssize_t n = recv(forwarder_sock, ack, sizeof ack, 0);
        if (n < 0) {
            FUZZ_CHECK(errno == EAGAIN || errno == EWOULDBLOCK);
            break;
        }
        ++acks;
        FUZZ_CHECK(n == 4);
        FUZZ_CHECK(ack[0] == data[0] && ack[1] == data[1] && ack[2] == data[2]);
        FUZZ_CHECK((data[3] == 0x00 && ack[3] == 0x01) || (data[3] == 0x02 && ack[3] == 0x04));
    }
    if (rc != 0) FUZZ_CHECK(acks == 0);
    return 0;
}
