// Helpers shared by the C++ tests: captured log output, scratch folders, files and peer processes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kes_test {

inline bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// Standard error goes into a temporary file until stop(), which returns what was written.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string stop();
private:
    int saved_fd_ = -1;
    std::string path_;
};

// A scratch folder removed with its content on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }
private:
    std::string path_;
};

// A child process (normally a simulator from sim/). start() waits for a line beginning with `ready_prefix` and
// returns the rest of that line; read_line() returns an empty text on time-out or end.
class Process {
public:
    Process() = default;
    ~Process() { stop(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    std::string start(const std::vector<std::string> &argv, const std::string &ready_prefix, int timeout_ms = 20000);
    std::string read_line(int timeout_ms = 10000);
    void write_line(const std::string &line);
    void stop();
    pid_t pid() const { return pid_; }
private:
    pid_t pid_ = -1;
    int out_fd_ = -1, in_fd_ = -1;
    std::string pending_;
};

// The throw-away PKI of sim/make_certs.sh in `dir`; false when it failed.
bool make_certs(const std::string &dir);
// Clears the configuration root and names every CUPS and LNS file inside `dir` (dir/cups_uri, dir/lns_key, ...).
void point_credentials_at(const std::string &dir);
template <size_t N>
void set_text(char (&field)[N], const std::string &text) { snprintf(field, N, "%s", text.c_str()); }
// Plain bitwise CRC-32 (IEEE 802.3), independent of the table-driven one under test.
uint32_t reference_crc32(const std::string &data);
inline std::string source_dir() { return KES_SOURCE_DIR; }
inline std::string python() { return KES_PYTHON; }

} // namespace kes_test
