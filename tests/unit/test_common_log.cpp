// Logger line format, level filtering and the assertion routine.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <regex.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

// Failed assertions print on standard output in stderr mode; death tests see
// only standard error, so the child sends its stdout there and its own
// stderr to /dev/null: the text is matched only if it really went to stdout.
void stdout_only_to_death_test_stream() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDERR_FILENO);
    close(devnull);
}

// Calls the logger with a format hidden from the compiler's format checks.
const char *null_text() {
    static const char *volatile p = nullptr;
    return p;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { bridge_log_init(BRIDGE_LOG_TRACE, true); }
    void TearDown() override { bridge_log_init(BRIDGE_LOG_INFO, true); }
};

TEST_F(LogTest, StderrLineHasDateMillisZoneThreadTagFileAndLine) {
    kes_test::StderrCapture cap;
    const int line = __LINE__ + 1;
    LOG_INFO("value %d of %s", 42, "test");
    const std::string out = cap.stop();

    // POSIX regex: std::regex trips a false uninitialised warning of g++ 12 under ASan.
    regex_t re;
    ASSERT_EQ(regcomp(&re,
                      "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-][0-9]{4} "
                      "\\[([0-9]+)\\]\\[INFO  \\] test_common_log\\.cpp:([0-9]+) value 42 of test\n$",
                      REG_EXTENDED),
              0);
    regmatch_t m[3];
    const int rc = regexec(&re, out.c_str(), 3, m, 0);
    regfree(&re);
    ASSERT_EQ(rc, 0) << out;
    const auto group = [&](int i) { return out.substr(m[i].rm_so, m[i].rm_eo - m[i].rm_so); };
    EXPECT_EQ(std::stol(group(1)), static_cast<long>(syscall(SYS_gettid)));
    EXPECT_EQ(std::stoi(group(2)), line);
}

TEST_F(LogTest, EveryLevelHasItsSixCharacterTag) {
    struct Row {
        unsigned level;
        const char *tag;
    };
    const Row rows[] = {{BRIDGE_LOG_ERROR, "[ERROR ]"}, {BRIDGE_LOG_WARN, "[WARN  ]"}, {BRIDGE_LOG_INFO, "[INFO  ]"},
                        {BRIDGE_LOG_DEBUG, "[DEBUG ]"}, {BRIDGE_LOG_TRACE, "[TRACE ]"}};
    for (const Row &r : rows) {
        kes_test::StderrCapture cap;
        bridge_log_print_message(r.level, "dir/f.c", 3, "m");
        const std::string out = cap.stop();
        EXPECT_NE(out.find(std::string(r.tag) + " f.c:3 m\n"), std::string::npos) << out;
    }
}

TEST_F(LogTest, MessagesAboveTheConfiguredLevelAreDropped) {
    for (unsigned configured = 0; configured <= 4; configured++) {
        for (unsigned level = 0; level <= 4; level++) {
            bridge_log_init(configured, true);
            kes_test::StderrCapture cap;
            bridge_log_print_message(level, "f.c", 1, "x");
            const std::string out = cap.stop();
            EXPECT_EQ(!out.empty(), level <= configured) << "configured " << configured << " level " << level;
        }
    }
    // An out-of-range level is filtered like any other unsigned value.
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    kes_test::StderrCapture cap;
    bridge_log_print_message(5, "f.c", 1, "x");
    EXPECT_EQ(cap.stop(), "");
}

TEST_F(LogTest, PercentMExpandsTheCallersErrnoAndKeepsIt) {
    kes_test::StderrCapture cap;
    errno = ENOENT;
    LOG_ERROR("cannot open %s: %m", "x.txt");
    EXPECT_EQ(errno, ENOENT);
    const std::string out = cap.stop();
    EXPECT_NE(out.find(" cannot open x.txt: No such file or directory\n"), std::string::npos) << out;
}

TEST_F(LogTest, BaseNameIsTakenAfterTheLastSlash) {
    const struct {
        const char *file;
        const char *shown;
    } rows[] = {{"plain.c", "] plain.c:7 m\n"},
                {"/a/b/c.cpp", "] c.cpp:7 m\n"},
                {"rel/x.cpp", "] x.cpp:7 m\n"},
                {"ends/", "] :7 m\n"}};
    for (const auto &r : rows) {
        kes_test::StderrCapture cap;
        bridge_log_print_message(BRIDGE_LOG_INFO, r.file, 7, "m");
        const std::string out = cap.stop();
        EXPECT_NE(out.find(r.shown), std::string::npos) << r.file << ": " << out;
    }
}

TEST_F(LogTest, FormatEndingInNewlineGivesAnEmptyLine) {
    kes_test::StderrCapture cap;
    LOG_INFO("done\n");
    const std::string out = cap.stop();
    ASSERT_GE(out.size(), 6u);
    EXPECT_EQ(out.substr(out.size() - 6), "done\n\n");
}

TEST_F(LogTest, LongMessagesArePrintedWhole) {
    const std::string big(3000, 'y');
    kes_test::StderrCapture cap;
    LOG_WARN("%s|%s", big.c_str(), big.c_str());
    const std::string out = cap.stop();
    EXPECT_NE(out.find(" " + big + "|" + big + "\n"), std::string::npos);
    // A long caller format (not only long arguments) must survive too.
    const std::string long_fmt = std::string(2000, 'f') + " %d";
    kes_test::StderrCapture cap2;
    bridge_log_print_message(BRIDGE_LOG_INFO, "f.c", 1, long_fmt.c_str(), 9);
    EXPECT_NE(cap2.stop().find(std::string(2000, 'f') + " 9\n"), std::string::npos);
}

TEST_F(LogTest, SyslogModeWritesNothingToStderr) {
    bridge_log_init(BRIDGE_LOG_TRACE, false);
    EXPECT_FALSE(bridge_log_uses_stderr());
    kes_test::StderrCapture cap;
    LOG_ERROR("to syslog only");
    const uint8_t bytes[] = {1, 2, 3};
    bridge_utils_hexdump_stderr(bytes, sizeof(bytes), 8);
    EXPECT_EQ(cap.stop(), "");
    bridge_log_deinit();
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    EXPECT_TRUE(bridge_log_uses_stderr());
}

using LogDeathTest = LogTest;

TEST_F(LogDeathTest, FailedAssertionPrintsOnStdoutAndAborts) {
    EXPECT_EXIT(
        {
            stdout_only_to_death_test_stream();
            bridge_assert(false, "/full/path/to/module.cpp", 123, "ctx != NULL");
        },
        ::testing::KilledBySignal(SIGABRT), "^Assertion failed: \\( ctx != NULL \\) in /full/path/to/module\\.cpp:123\n$");
}

TEST_F(LogDeathTest, MacroPrintsTheConditionAsWritten) {
    const int *ptr = nullptr;
    EXPECT_EXIT(
        {
            stdout_only_to_death_test_stream();
            BRIDGE_ASSERT(ptr != NULL);
        },
        ::testing::KilledBySignal(SIGABRT), "Assertion failed: \\( ptr != NULL \\) in /.*tests/unit/test_common_log\\.cpp:[0-9]+");
}

TEST_F(LogDeathTest, SyslogModeAssertionLeavesStdoutAndStderrEmpty) {
    EXPECT_EXIT(
        {
            bridge_log_init(BRIDGE_LOG_INFO, false);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            bridge_assert(false, "f.c", 1, "converter_ctx.inited");
        },
        ::testing::KilledBySignal(SIGABRT), "^$");
}

TEST_F(LogDeathTest, LoggerRefusesNullFileAndFormat) {
    EXPECT_EXIT(
        {
            stdout_only_to_death_test_stream();
            bridge_log_print_message(BRIDGE_LOG_INFO, null_text(), 1, "x");
        },
        ::testing::KilledBySignal(SIGABRT), "Assertion failed: \\( file != NULL \\)");
    EXPECT_EXIT(
        {
            stdout_only_to_death_test_stream();
            bridge_log_print_message(BRIDGE_LOG_INFO, "f.c", 1, null_text());
        },
        ::testing::KilledBySignal(SIGABRT), "Assertion failed: \\( user_fmt != NULL \\)");
}

TEST_F(LogTest, HoldingAssertionDoesNothing) {
    kes_test::StderrCapture cap;
    bridge_assert(true, "f.c", 1, "x");
    EXPECT_EQ(cap.stop(), "");
}

} // namespace
