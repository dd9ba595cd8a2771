// What an operator needs to see that the bridge works: traffic counters summarised at a fixed
// interval, a limiter for lines that would repeat for every datagram, and the systemd watchdog.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// ---- counters ----------------------------------------------------------------

// Each counter counts events since the last summary line. Plain atomics: bumping one is
// safe from any thread and allocates nothing.
enum bridge_counter : unsigned {
    BRIDGE_CNT_UP_RECEIVED,        // rxpk taken from PUSH_DATA
    BRIDGE_CNT_UP_FORWARDED,       // jreq/updf queued for the LNS
    BRIDGE_CNT_UP_DROP_INVALID,    // malformed datagram, JSON or radio packet
    BRIDGE_CNT_UP_DROP_NO_TIME,    // no usable time base for its tmst
    BRIDGE_CNT_UP_DROP_LNS,        // the LNS client refused it (no session, queue full)
    BRIDGE_CNT_DN_RECEIVED,        // dnmsg from the LNS
    BRIDGE_CNT_DN_SENT,            // PULL_RESP handed to the forwarder
    BRIDGE_CNT_DN_DROP_UNSCHEDULABLE, // no usable window, DR or frequency
    BRIDGE_CNT_DN_DROP_NO_FORWARDER,  // no PULL_DATA yet, or a version-1 forwarder
    BRIDGE_CNT_DN_DROP_INVALID,       // translation failed
    BRIDGE_CNT_DN_DROP_PIPE_FULL,     // the worker's queue was full
    BRIDGE_CNT_TXACK_TOO_LATE,
    BRIDGE_CNT_TXACK_TOO_EARLY,
    BRIDGE_CNT_TXACK_COLLISION_PACKET,
    BRIDGE_CNT_TXACK_COLLISION_BEACON,
    BRIDGE_CNT_TXACK_TX_FREQ,
    BRIDGE_CNT_TXACK_TX_POWER,
    BRIDGE_CNT_TXACK_GPS_UNLOCKED,
    BRIDGE_CNT_TXACK_OTHER,
    BRIDGE_CNT_SESSION_RESTARTS,
    BRIDGE_CNT_COUNT,
};

void bridge_health_count(bridge_counter c, uint32_t n = 1);
// Counter for a TX_ACK error text of the forwarder ("TOO_LATE", ...); unknown texts give
// BRIDGE_CNT_TXACK_OTHER.
bridge_counter bridge_health_txack_counter(const char *error);

// Current values, read and reset at once.
struct bridge_health_snapshot {
    uint32_t v[BRIDGE_CNT_COUNT];
};
bridge_health_snapshot bridge_health_take();
// "uplinks received=.. forwarded=.. dropped(...); downlinks ...; session restarts=.." into buf.
// Returns the text length (cut to buf_sz - 1).
size_t bridge_health_format(const bridge_health_snapshot &s, char *buf, size_t buf_sz);

constexpr unsigned BRIDGE_HEALTH_INTERVAL_S = 300;
// Interval of the summary line; 0 keeps the default.
void bridge_health_set_interval(unsigned seconds);
// Logs the summary at INFO when the interval has passed since the last one (the first call
// only starts the interval). Cheap when not due: call it from any loop that keeps moving.
void bridge_health_tick(uint64_t now_ms);

// Monotonic milliseconds: the clock for intervals and limiters.
uint64_t bridge_health_now_ms();

// ---- repeat limiter ------------------------------------------------------------

constexpr uint64_t BRIDGE_LOG_REPEAT_MS = 60000;

// State of one repeating log line.
struct bridge_log_limit {
    uint64_t last_ms;     // when it was last printed
    uint32_t suppressed;  // occurrences held back since then
    bool printed;         // printed at least once
};

// Decides whether this occurrence is printed: the first always, later ones at most once per
// BRIDGE_LOG_REPEAT_MS. On true, *held_back is how many were held back before it.
bool bridge_log_limit_allow(bridge_log_limit *l, uint64_t now_ms, uint32_t *held_back);

// Logs like BRIDGE_LOG, through limiter `l` (thread-safe), adding
// " (repeated N times since the last report)" when occurrences were held back.
void bridge_log_print_limited(bridge_log_limit *l, unsigned level, const char *file, int line, const char *fmt,
                              ...) __attribute__((format(printf, 5, 6)));

// One limiter per call site.
#define BRIDGE_LOG_LIMITED(level, fmt, ...)                                                                  \
    do {                                                                                                     \
        static bridge_log_limit kes_limit_{};                                                                \
        bridge_log_print_limited(&kes_limit_, (level), __FILE__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)
#define LOG_ERROR_LIMITED(fmt, ...) BRIDGE_LOG_LIMITED(BRIDGE_LOG_ERROR, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARN_LIMITED(fmt, ...) BRIDGE_LOG_LIMITED(BRIDGE_LOG_WARN, fmt __VA_OPT__(, ) __VA_ARGS__)

// ---- systemd watchdog ----------------------------------------------------------

// READY=1 once the daemon is configured. No-op without NOTIFY_SOCKET.
void bridge_watchdog_ready();
// WATCHDOG=1, sent at most once a second: call it from every loop that must keep moving.
void bridge_watchdog_ping();
