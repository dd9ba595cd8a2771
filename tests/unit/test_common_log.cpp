// The logger (level filter, syslog priorities), the repeat limiter and the summary line. The line layout
// is read by the slow tests (they take the times from it).
// <syslog.h> names clash with the logging macros: take its numbers first.
#include <syslog.h>
namespace {
constexpr int SYS_ERR = LOG_ERR, SYS_WARNING = LOG_WARNING, SYS_INFO = LOG_INFO, SYS_DEBUG = LOG_DEBUG;
}
#undef LOG_INFO
#undef LOG_DEBUG

#include <gtest/gtest.h>

#include <cerrno>

#include "common/bridge_health.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

TEST(LogTest, SyslogPriorityFollowsTheLevel) {
    const struct { unsigned level; int priority; } rows[] = {
        {BRIDGE_LOG_ERROR, SYS_ERR}, {BRIDGE_LOG_WARN, SYS_WARNING}, {BRIDGE_LOG_INFO, SYS_INFO},
        {BRIDGE_LOG_DEBUG, SYS_DEBUG}, {BRIDGE_LOG_TRACE, SYS_DEBUG}, {99, SYS_DEBUG}};
    for (const auto &r : rows) EXPECT_EQ(bridge_log_syslog_priority(r.level), r.priority) << r.level;
}

TEST(LogTest, LevelFilterErrnoTextAndLongLines) {
    for (unsigned configured = 0; configured <= 4; configured++)
        for (unsigned level = 0; level <= 5; level++) {
            bridge_log_init(configured, true);
            const std::string out = kes_test::stderr_of([&] { bridge_log_print_message(level, "f.c", 1, "x"); });
            EXPECT_EQ(!out.empty(), level <= configured) << configured << "/" << level;
        }
    bridge_log_init(BRIDGE_LOG_INFO, true);
    const std::string big(3000, 'y'), fmt = std::string(2000, 'f') + " %m %s";
    int errno_after = 0;
    const std::string out = kes_test::stderr_of([&] {
        errno = ENOENT;
        bridge_log_print_message(BRIDGE_LOG_WARN, "/src/dir/module.cpp", 42, fmt.c_str(), big.c_str());
        errno_after = errno;
    });
    EXPECT_EQ(errno_after, ENOENT) << "the caller's errno lost";
    EXPECT_TRUE(out.ends_with(" " + fmt.substr(0, 2000) + " No such file or directory " + big + "\n")) << "cut or bad";
}

TEST(LogTest, RepeatLimiterPrintsTheFirstThenOneAMinuteWithTheHeldBackCount) {
    bridge_log_limit l{};
    const struct { uint64_t now_ms; bool printed; uint32_t held_back; const char *fault; } rows[] = {
        {5, true, 0, "first occurrence held back"}, {1005, false, 0, "repeats printed within the minute"},
        {60004, false, 0, "minute measured short"}, {60005, true, 2, "held-back count lost"},
        {60006, false, 0, "count not restarted"}, {200000, true, 1, "count not restarted"}};
    for (const auto &r : rows) {
        uint32_t held_back = 99;
        EXPECT_EQ(bridge_log_limit_allow(&l, r.now_ms, &held_back), r.printed) << r.fault;
        EXPECT_TRUE(!r.printed || held_back == r.held_back) << r.fault;
    }
}

TEST(LogTest, SummaryLineEveryIntervalWithItsCounters) {
    bridge_log_init(BRIDGE_LOG_INFO, true);
    bridge_health_take();
    bridge_health_set_interval(2);
    bridge_health_count(BRIDGE_CNT_UP_RECEIVED, 7);
    for (const char *error : {"TOO_LATE", "TX_POWER", "bogus"}) bridge_health_count(bridge_health_txack_counter(error));
    bridge_health_count(BRIDGE_CNT_SESSION_RESTARTS, 3);
    std::string out;
    for (uint64_t now : {1000, 2999, 3000}) {
        out += std::to_string(now) + ":" + kes_test::stderr_of([&] { bridge_health_tick(now); });
    }
    EXPECT_TRUE(kes_test::contains(out, "1000:2999:3000:")) << "a summary before its interval: " << out;
    EXPECT_TRUE(kes_test::contains(out, "summary of the last 2 s: uplinks received=7 forwarded=0 dropped(invalid=0 "
        "no_time_base=0 lns_refused=0); downlinks received=0 sent=0 dropped(unschedulable=0 no_forwarder=0 "
        "invalid=0 queue_full=0); tx_ack errors(TOO_LATE=1 TOO_EARLY=0 COLLISION_PACKET=0 COLLISION_BEACON=0 "
        "TX_FREQ=0 TX_POWER=1 GPS_UNLOCKED=0 other=1); session restarts=3")) << out;
}

} // namespace
