// Traffic counters, their periodic summary, the repeat limiter and the systemd watchdog.
#include "common/bridge_health.h"

#include "common/bridge_utils.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>
#include <systemd/sd-daemon.h>

namespace {

struct health_state {
    std::array<std::atomic<uint32_t>, BRIDGE_CNT_COUNT> counters{};
    std::atomic<unsigned> interval_s{BRIDGE_HEALTH_INTERVAL_S};
    std::atomic<uint64_t> last_summary_ms{0};
    std::atomic<uint64_t> last_ping_ms{0};
    std::mutex limit_mutex;
};

health_state health;

struct txack_kind {
    std::string_view text;
    bridge_counter counter;
};

constexpr std::array<txack_kind, 7> txack_kinds{{
    {"TOO_LATE", BRIDGE_CNT_TXACK_TOO_LATE},
    {"TOO_EARLY", BRIDGE_CNT_TXACK_TOO_EARLY},
    {"COLLISION_PACKET", BRIDGE_CNT_TXACK_COLLISION_PACKET},
    {"COLLISION_BEACON", BRIDGE_CNT_TXACK_COLLISION_BEACON},
    {"TX_FREQ", BRIDGE_CNT_TXACK_TX_FREQ},
    {"TX_POWER", BRIDGE_CNT_TXACK_TX_POWER},
    {"GPS_UNLOCKED", BRIDGE_CNT_TXACK_GPS_UNLOCKED},
}};

// The summary, one group per line of sight an operator has: what came in, what went out,
// what the radio refused, how often the session restarted.
struct summary_item {
    const char *text; // printed before the value
    bridge_counter counter;
};

constexpr std::array<summary_item, BRIDGE_CNT_COUNT> summary_items{{
    {"uplinks received=", BRIDGE_CNT_UP_RECEIVED},
    {" forwarded=", BRIDGE_CNT_UP_FORWARDED},
    {" dropped(invalid=", BRIDGE_CNT_UP_DROP_INVALID},
    {" no_time_base=", BRIDGE_CNT_UP_DROP_NO_TIME},
    {" lns_refused=", BRIDGE_CNT_UP_DROP_LNS},
    {"); downlinks received=", BRIDGE_CNT_DN_RECEIVED},
    {" sent=", BRIDGE_CNT_DN_SENT},
    {" dropped(unschedulable=", BRIDGE_CNT_DN_DROP_UNSCHEDULABLE},
    {" no_forwarder=", BRIDGE_CNT_DN_DROP_NO_FORWARDER},
    {" invalid=", BRIDGE_CNT_DN_DROP_INVALID},
    {" queue_full=", BRIDGE_CNT_DN_DROP_PIPE_FULL},
    {"); tx_ack errors(TOO_LATE=", BRIDGE_CNT_TXACK_TOO_LATE},
    {" TOO_EARLY=", BRIDGE_CNT_TXACK_TOO_EARLY},
    {" COLLISION_PACKET=", BRIDGE_CNT_TXACK_COLLISION_PACKET},
    {" COLLISION_BEACON=", BRIDGE_CNT_TXACK_COLLISION_BEACON},
    {" TX_FREQ=", BRIDGE_CNT_TXACK_TX_FREQ},
    {" TX_POWER=", BRIDGE_CNT_TXACK_TX_POWER},
    {" GPS_UNLOCKED=", BRIDGE_CNT_TXACK_GPS_UNLOCKED},
    {" other=", BRIDGE_CNT_TXACK_OTHER},
    {"); session restarts=", BRIDGE_CNT_SESSION_RESTARTS},
}};

constexpr uint64_t WATCHDOG_PING_MS = 1000;

} // namespace

void bridge_health_count(bridge_counter c, uint32_t n) {
    if (c < BRIDGE_CNT_COUNT)
        health.counters[c].fetch_add(n, std::memory_order_relaxed);
}

bridge_counter bridge_health_txack_counter(const char *error) {
    if (error)
        for (const auto &k : txack_kinds)
            if (k.text == error)
                return k.counter;
    return BRIDGE_CNT_TXACK_OTHER;
}

bridge_health_snapshot bridge_health_take() {
    bridge_health_snapshot s{};
    for (unsigned i = 0; i < BRIDGE_CNT_COUNT; ++i)
        s.v[i] = health.counters[i].exchange(0, std::memory_order_relaxed);
    return s;
}

size_t bridge_health_format(const bridge_health_snapshot &s, char *buf, size_t buf_sz) {
    if (buf_sz == 0)
        return 0;
    size_t used = 0;
    buf[0] = '\0';
    for (const auto &item : summary_items) {
        if (used >= buf_sz - 1)
            break;
        const int n = snprintf(buf + used, buf_sz - used, "%s%u", item.text, s.v[item.counter]);
        if (n < 0)
            break;
        used += static_cast<size_t>(n);
    }
    return strnlen(buf, buf_sz);
}

void bridge_health_set_interval(unsigned seconds) {
    health.interval_s = seconds ? seconds : BRIDGE_HEALTH_INTERVAL_S;
}

void bridge_health_tick(uint64_t now_ms) {
    uint64_t last = health.last_summary_ms.load();
    if (last == 0) {
        health.last_summary_ms.compare_exchange_strong(last, now_ms ? now_ms : 1);
        return;
    }
    if (now_ms - last < uint64_t{health.interval_s} * 1000)
        return;
    // Only the thread that moves the mark prints: several loops may tick at once.
    if (!health.last_summary_ms.compare_exchange_strong(last, now_ms))
        return;
    char text[512];
    bridge_health_format(bridge_health_take(), text, sizeof text);
    LOG_INFO("summary of the last %u s: %s", static_cast<unsigned>((now_ms - last + 500) / 1000), text);
}

uint64_t bridge_health_now_ms() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

bool bridge_log_limit_allow(bridge_log_limit *l, uint64_t now_ms, uint32_t *held_back) {
    if (l->printed && now_ms - l->last_ms < BRIDGE_LOG_REPEAT_MS) {
        ++l->suppressed;
        return false;
    }
    *held_back = l->suppressed;
    l->suppressed = 0;
    l->printed = true;
    l->last_ms = now_ms;
    return true;
}

void bridge_log_print_limited(bridge_log_limit *l, unsigned level, const char *file, int line, const char *fmt,
                              ...) {
    const int saved_errno = errno; // for "%m" in fmt
    uint32_t held_back = 0;
    {
        std::lock_guard<std::mutex> guard(health.limit_mutex);
        if (!bridge_log_limit_allow(l, bridge_health_now_ms(), &held_back))
            return;
    }
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    errno = saved_errno;
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (held_back)
        bridge_log_print_message(level, file, line, "%s (repeated %u times since the last report)", text,
                                 held_back);
    else
        bridge_log_print_message(level, file, line, "%s", text);
}

void bridge_watchdog_ready() {
    sd_notify(0, "READY=1");
}

void bridge_watchdog_ping() {
    const uint64_t now = bridge_health_now_ms();
    uint64_t last = health.last_ping_ms.load();
    if (last != 0 && now - last < WATCHDOG_PING_MS)
        return;
    if (health.last_ping_ms.compare_exchange_strong(last, now))
        sd_notify(0, "WATCHDOG=1");
}
