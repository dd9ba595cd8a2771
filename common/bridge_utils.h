// Logging, assertions and small stateless helpers shared by every module.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <unistd.h>

// ---- logging ---------------------------------------------------------------

enum bridge_log_level : unsigned {
    BRIDGE_LOG_ERROR = 0,
    BRIDGE_LOG_WARN = 1,
    BRIDGE_LOG_INFO = 2,
    BRIDGE_LOG_DEBUG = 3,
    BRIDGE_LOG_TRACE = 4,
};

int bridge_log_init(unsigned level, bool use_stderr);
int bridge_log_deinit();
bool bridge_log_uses_stderr();
// The syslog priority of a level: ERROR -> LOG_ERR, WARN -> LOG_WARNING, INFO -> LOG_INFO,
// DEBUG and TRACE (and anything above) -> LOG_DEBUG.
int bridge_log_syslog_priority(unsigned level);
void bridge_log_print_message(unsigned level, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

#define BRIDGE_LOG(level, fmt, ...) \
    bridge_log_print_message((level), __FILE__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR(fmt, ...) BRIDGE_LOG(BRIDGE_LOG_ERROR, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARN(fmt, ...) BRIDGE_LOG(BRIDGE_LOG_WARN, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_INFO(fmt, ...) BRIDGE_LOG(BRIDGE_LOG_INFO, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_DEBUG(fmt, ...) BRIDGE_LOG(BRIDGE_LOG_DEBUG, fmt __VA_OPT__(, ) __VA_ARGS__)
#define LOG_TRACE(fmt, ...) BRIDGE_LOG(BRIDGE_LOG_TRACE, fmt __VA_OPT__(, ) __VA_ARGS__)

// ---- assertions ------------------------------------------------------------

// Guards programming errors: prints "Assertion failed: ( <expr> ) in <file>:<line>"
// and aborts. Write the condition in C style (NULL, not nullptr) so that the
// printed text reads like the rest of the logs.
void bridge_assert(bool condition, const char *file, int line, const char *expression_text);
#define BRIDGE_ASSERT(cond) bridge_assert(static_cast<bool>(cond), __FILE__, __LINE__, #cond)

// ---- utilities -------------------------------------------------------------

uint32_t bridge_utils_calculate_crc32(uint32_t crc, const void *buf, size_t len);
int bridge_utils_read_text_file_to_buf(const char *filepath, char *buf, size_t buf_sz);
int bridge_utils_write_buf_to_file(const char *filepath, const void *buf, size_t buf_sz);
int bridge_utils_file_exists(const char *filepath);
int bridge_utils_array_to_hexstring(const uint8_t *arr, size_t arr_len, char *str_buf, size_t str_buf_sz);
int bridge_utils_hexstring_to_array(const char *str_buf, uint8_t *arr, size_t arr_sz);
int bridge_utils_format_eui64(const uint8_t *arr, size_t arr_len, char *str_buf, size_t str_buf_sz);
void bridge_utils_hexdump_stderr(const void *data, size_t sz, size_t cols);

// ---- RAII owners for plain C resources --------------------------------------

struct bridge_file_closer {
    void operator()(FILE *f) const { if (f) fclose(f); }
};
using bridge_unique_file = std::unique_ptr<FILE, bridge_file_closer>;

class bridge_unique_fd {
public:
    bridge_unique_fd() = default;
    explicit bridge_unique_fd(int fd) : fd_(fd) {}
    ~bridge_unique_fd() { reset(); }
    bridge_unique_fd(const bridge_unique_fd &) = delete;
    bridge_unique_fd &operator=(const bridge_unique_fd &) = delete;
    bridge_unique_fd(bridge_unique_fd &&o) noexcept : fd_(o.release()) {}
    bridge_unique_fd &operator=(bridge_unique_fd &&o) noexcept { reset(o.release()); return *this; }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { int fd = fd_; fd_ = -1; return fd; }
    void reset(int fd = -1) { if (fd_ >= 0) ::close(fd_); fd_ = fd; }
private:
    int fd_ = -1;
};
