// The logger: line layout, level filter, errno text and syslog priorities.
// <syslog.h> names clash with the logging macros: take its numbers first.
#include <syslog.h>
namespace {
constexpr int SYS_ERR = LOG_ERR, SYS_WARNING = LOG_WARNING, SYS_INFO = LOG_INFO, SYS_DEBUG = LOG_DEBUG;
}
#undef LOG_INFO
#undef LOG_DEBUG

#include <gtest/gtest.h>

#include <cerrno>
#include <regex.h>
#include <string>

#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

TEST(Log, SyslogPriorityFollowsTheLevel) {
    const struct {
        unsigned level;
        int priority;
    } rows[] = {{BRIDGE_LOG_ERROR, SYS_ERR},  {BRIDGE_LOG_WARN, SYS_WARNING}, {BRIDGE_LOG_INFO, SYS_INFO},
                {BRIDGE_LOG_DEBUG, SYS_DEBUG}, {BRIDGE_LOG_TRACE, SYS_DEBUG},  {99, SYS_DEBUG}};
    for (const auto &r : rows)
        EXPECT_EQ(bridge_log_syslog_priority(r.level), r.priority) << r.level;
}

TEST(Log, StderrLineLayoutAndErrnoText) {
    bridge_log_init(BRIDGE_LOG_INFO, true);
    kes_test::StderrCapture cap;
    errno = ENOENT;
    bridge_log_print_message(BRIDGE_LOG_WARN, "/src/dir/module.cpp", 42, "cannot open %s: %m", "x");
    EXPECT_EQ(errno, ENOENT) << "the caller's errno survives the call";
    const std::string out = cap.stop();
    regex_t re;
    ASSERT_EQ(regcomp(&re,
                      "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-][0-9]{4} "
                      "\\[[0-9]+\\]\\[WARN  \\] module\\.cpp:42 cannot open x: No such file or directory\n$",
                      REG_EXTENDED | REG_NOSUB),
              0);
    EXPECT_EQ(regexec(&re, out.c_str(), 0, nullptr, 0), 0) << out;
    regfree(&re);
}

TEST(Log, OnlyLevelsUpToTheConfiguredOneArePrinted) {
    for (unsigned configured = 0; configured <= 4; configured++)
        for (unsigned level = 0; level <= 5; level++) {
            bridge_log_init(configured, true);
            kes_test::StderrCapture cap;
            bridge_log_print_message(level, "f.c", 1, "x");
            EXPECT_EQ(!cap.stop().empty(), level <= configured) << configured << "/" << level;
        }
    bridge_log_init(BRIDGE_LOG_INFO, true);
}

TEST(Log, LongFormatsAndArgumentsArePrintedWhole) {
    const std::string big(3000, 'y');
    const std::string long_fmt = std::string(2000, 'f') + " %s";
    kes_test::StderrCapture cap;
    bridge_log_print_message(BRIDGE_LOG_ERROR, "f.c", 1, long_fmt.c_str(), big.c_str());
    EXPECT_TRUE(kes_test::contains(cap.stop(), std::string(2000, 'f') + " " + big + "\n"));
}

} // namespace
