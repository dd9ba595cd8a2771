// Logging, assertions and small stateless helpers shared by every module.

// <syslog.h> defines LOG_INFO and LOG_DEBUG as priorities, clashing with our
// logging macros: take what we need from it first, then drop the clashing names.
#include <syslog.h>
namespace {
constexpr int SYSLOG_ERR = LOG_ERR;
// Indexed by level: journalctl -p and syslog filters then see ERROR as err, WARN as warning.
constexpr int syslog_priorities[] = {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG, LOG_DEBUG};
} // namespace
#undef LOG_INFO
#undef LOG_DEBUG

#include "common/bridge_utils.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

// ---- logging ---------------------------------------------------------------

namespace {

struct bridge_log_state {
    unsigned level;
    bool use_stderr;
};

// Until bridge_log_init runs (early start-up, tests) messages go to standard error.
bridge_log_state log_state = {BRIDGE_LOG_INFO, true};

constexpr std::array<const char *, 5> log_tags = {"ERROR ", "WARN  ", "INFO  ", "DEBUG ", "TRACE "};

// Built lines of ordinary length stay on the stack; only an unusually long
// caller format needs the heap.
constexpr size_t LOG_STACK_FMT_SZ = 512;

const char *base_name(const char *file) {
    const char *slash = strrchr(file, '/');
    return slash ? slash + 1 : file;
}

// Emits `line_fmt` (which still holds the caller's conversions) with the caller's arguments.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
void emit_line(unsigned level, const char *line_fmt, va_list ap) {
    if (log_state.use_stderr)
        vfprintf(stderr, line_fmt, ap);
    else
        vsyslog(bridge_log_syslog_priority(level), line_fmt, ap);
}
#pragma GCC diagnostic pop

} // namespace

int bridge_log_syslog_priority(unsigned level) {
    return syslog_priorities[level < std::size(syslog_priorities) ? level : std::size(syslog_priorities) - 1];
}

int bridge_log_init(unsigned level, bool use_stderr) {
    log_state.level = level;
    log_state.use_stderr = use_stderr;
    if (!use_stderr)
        openlog("kes_bstn", LOG_PID, LOG_DAEMON);
    return 0;
}

int bridge_log_deinit() {
    closelog();
    return 0;
}

bool bridge_log_uses_stderr() {
    return log_state.use_stderr;
}

void bridge_log_print_message(unsigned level, const char *file, int line, const char *user_fmt, ...) {
    BRIDGE_ASSERT(file != NULL);
    BRIDGE_ASSERT(user_fmt != NULL);
    if (level > log_state.level)
        return;

    // "%m" in the caller's format must see the caller's errno, not ours.
    const int saved_errno = errno;
    const int tid = static_cast<int>(syscall(SYS_gettid));
    const char *tag = log_tags[level < log_tags.size() ? level : log_tags.size() - 1];

    char date_time[32] = "";
    char zone[32] = "";
    char millis[8] = "";
    if (log_state.use_stderr) {
        // One clock reading for seconds and milliseconds, so the two always agree.
        struct timeval tv {};
        gettimeofday(&tv, nullptr);
        const time_t now = tv.tv_sec;
        struct tm local {};
        localtime_r(&now, &local); // reentrant: any thread may log
        if (strftime(date_time, sizeof(date_time), "%F %T", &local) == 0)
            snprintf(date_time, sizeof(date_time), "FMT_ERR");
        if (strftime(zone, sizeof(zone), "%z ", &local) == 0)
            snprintf(zone, sizeof(zone), "FMT_ERR");
        snprintf(millis, sizeof(millis), ".%03u", static_cast<unsigned>((tv.tv_usec / 1000) % 1000));
    }

    static constexpr const char line_layout[] = "%s%s%s[%d][%s] %s:%d %s\n";
    const char *bname = base_name(file);
    const int needed = snprintf(nullptr, 0, line_layout, date_time, millis, zone, tid, tag, bname, line, user_fmt);
    if (needed < 0)
        return;

    std::array<char, LOG_STACK_FMT_SZ> stack_buf;
    std::string heap_buf;
    char *line_fmt = stack_buf.data();
    if (static_cast<size_t>(needed) + 1 > stack_buf.size()) {
        heap_buf.resize(static_cast<size_t>(needed) + 1);
        line_fmt = heap_buf.data();
    }
    snprintf(line_fmt, static_cast<size_t>(needed) + 1, line_layout, date_time, millis, zone, tid, tag, bname, line,
             user_fmt);

    va_list ap;
    va_start(ap, user_fmt);
    errno = saved_errno;
    emit_line(level, line_fmt, ap);
    va_end(ap);
    errno = saved_errno;
}

// ---- assertions ------------------------------------------------------------

void bridge_assert(bool condition, const char *file, int line, const char *expression_text) {
    if (condition)
        return;
    if (log_state.use_stderr) {
        printf("Assertion failed: ( %s ) in %s:%d\n", expression_text, file, line);
        // abort() does not flush stdio: without this the text is lost on a pipe.
        fflush(stdout);
    } else {
        syslog(SYSLOG_ERR, "Assertion failed: ( %s ) in %s:%d\n", expression_text, file, line);
    }
    abort();
}

// ---- CRC-32 ----------------------------------------------------------------

namespace {

constexpr std::array<uint32_t, 256> make_crc32_table() {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < table.size(); n++) {
        uint32_t c = n;
        for (int k = 0; k < 8; k++)
            c = (c & 1U) ? (0xEDB88320U ^ (c >> 1)) : (c >> 1);
        table[n] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> crc32_table = make_crc32_table();

} // namespace

uint32_t bridge_utils_calculate_crc32(uint32_t crc, const void *buf, size_t len) {
    BRIDGE_ASSERT(buf != NULL);
    const auto *p = static_cast<const uint8_t *>(buf);
    crc = ~crc;
    for (size_t i = 0; i < len; i++)
        crc = crc32_table[(crc ^ p[i]) & 0xFFU] ^ (crc >> 8);
    return ~crc;
}

// ---- files -----------------------------------------------------------------

int bridge_utils_read_text_file_to_buf(const char *filepath, char *buf, size_t buf_sz) {
    BRIDGE_ASSERT(buf != NULL);
    BRIDGE_ASSERT(buf_sz != 0);
    BRIDGE_ASSERT(filepath != NULL);
    LOG_TRACE("trying to read %s ...", filepath);

    bridge_unique_file f(fopen(filepath, "r"));
    if (!f) {
        const int err = errno;
        LOG_DEBUG("failed to open a file %s: %m", filepath);
        return -err;
    }

    const size_t n = fread(buf, 1, buf_sz, f.get());
    if (n == buf_sz) {
        LOG_ERROR("a file content is too big to fit into the buffer");
        buf[0] = '\0';
        return -ENOBUFS;
    }
    if (n == 0) {
        buf[0] = '\0';
        if (ferror(f.get())) {
            const int err = errno;
            LOG_ERROR("failed to read a file %s: %m", filepath);
            return -err;
        }
        LOG_DEBUG("file is empty");
        return 0;
    }
    buf[n] = '\0';
    return 0;
}

int bridge_utils_write_buf_to_file(const char *filepath, const void *buf, size_t buf_sz) {
    BRIDGE_ASSERT(buf != NULL);
    BRIDGE_ASSERT(buf_sz != 0);
    BRIDGE_ASSERT(filepath != NULL);
    LOG_TRACE("trying to write [%zu] bytes to %s ...", buf_sz, filepath);

    bridge_unique_file f(fopen(filepath, "w+"));
    if (!f) {
        const int err = errno;
        LOG_ERROR("can't open a file %s: %m", filepath);
        return -err;
    }
    if (fwrite(buf, 1, buf_sz, f.get()) != buf_sz) {
        const int err = errno;
        LOG_ERROR("failed to write a file %s: %m", filepath);
        return -err;
    }
    // Buffered data reaches the disk only at close: a full disk shows up here.
    if (fclose(f.release()) != 0) {
        const int err = errno;
        LOG_ERROR("failed to write a file %s: %m", filepath);
        return -err;
    }
    return 0;
}

int bridge_utils_file_exists(const char *filepath) {
    BRIDGE_ASSERT(filepath);
    LOG_TRACE("checking %s file existence...", filepath);
    if (access(filepath, F_OK) != 0)
        return -errno;
    return 0;
}

// ---- hex and EUI texts -----------------------------------------------------

namespace {

int hex_digit_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

int bridge_utils_array_to_hexstring(const uint8_t *arr, size_t arr_len, char *str_buf, size_t str_buf_sz) {
    BRIDGE_ASSERT(arr != NULL);
    BRIDGE_ASSERT(str_buf != NULL);
    if (str_buf_sz <= 2 * arr_len) {
        LOG_ERROR("not enough space in the output buffer: [%zu]", str_buf_sz);
        return -1;
    }
    static constexpr char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < arr_len; i++) {
        str_buf[2 * i] = digits[arr[i] >> 4];
        str_buf[2 * i + 1] = digits[arr[i] & 0x0F];
    }
    str_buf[2 * arr_len] = '\0';
    return 0;
}

int bridge_utils_hexstring_to_array(const char *str_buf, uint8_t *arr, size_t arr_sz) {
    BRIDGE_ASSERT(arr != NULL);
    BRIDGE_ASSERT(str_buf != NULL);
    const size_t len = strlen(str_buf);
    if (len % 2 != 0) {
        LOG_ERROR("input string length must be divisible by 2");
        return -1;
    }
    if (arr_sz < len / 2) {
        LOG_ERROR("output buffer is too small");
        return -1;
    }
    for (size_t i = 0; i < len / 2; i++) {
        // Both characters must be digits: a "%02hhx" scan alone would take "0g" or " 1" as one digit.
        const int hi = hex_digit_value(str_buf[2 * i]);
        const int lo = hex_digit_value(str_buf[2 * i + 1]);
        if (hi < 0 || lo < 0) {
            LOG_ERROR("failed to convert a byte to a hexstring at offset [%zu]", 2 * i);
            return -1;
        }
        arr[i] = static_cast<uint8_t>((hi << 4) | lo);
    }
    return 0;
}

int bridge_utils_format_eui64(const uint8_t *arr, size_t arr_len, char *str_buf, size_t str_buf_sz) {
    BRIDGE_ASSERT(arr != NULL);
    BRIDGE_ASSERT(str_buf != NULL);
    if (arr_len != 8) {
        LOG_ERROR("buffer to format the EUI must be exactly 8 bytes long");
        return -1;
    }
    if (str_buf_sz < 24) {
        LOG_ERROR("input array must be more than 24 bytes in size");
        return -1;
    }
    // The array holds the EUI least significant byte first.
    snprintf(str_buf, str_buf_sz, "%02x-%02x-%02x-%02x-%02x-%02x-%02x-%02x", arr[7], arr[6], arr[5], arr[4], arr[3],
             arr[2], arr[1], arr[0]);
    return 0;
}

void bridge_utils_hexdump_stderr(const void *data, size_t sz, size_t cols) {
    BRIDGE_ASSERT(data != NULL);
    BRIDGE_ASSERT(sz != 0);
    BRIDGE_ASSERT(cols != 0);
    if (!log_state.use_stderr)
        return;

    const auto *bytes = static_cast<const uint8_t *>(data);
    const size_t total = (sz + cols - 1) / cols * cols;
    std::string row;
    for (size_t start = 0; start < total; start += cols) {
        char cell[16];
        row.clear();
        snprintf(cell, sizeof(cell), "0x%06x: ", static_cast<unsigned>(start));
        row += cell;
        for (size_t i = start; i < start + cols; i++) {
            if (i < sz) {
                snprintf(cell, sizeof(cell), "%02x ", bytes[i]);
                row += cell;
            } else {
                row += "   ";
            }
        }
        for (size_t i = start; i < start + cols; i++) {
            if (i >= sz)
                row += ' ';
            else
                row += isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
        }
        row += '\n';
        fputs(row.c_str(), stderr); // one call per row keeps rows whole between threads
    }
}
