// Helpers shared by the C++ tests: captured log output, scratch folders, files and peer processes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kes_test {

// True when `text` holds `part` (log captures, file contents).
inline bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Redirects file descriptor 2 (standard error) into a temporary file until stop().
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

void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// A child process (normally a simulator from sim/ under /usr/bin/python3). start() waits until
// the child prints a line beginning with `ready_prefix` and returns the rest of that line.
class Process {
public:
    Process() = default;
    ~Process() { stop(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    std::string start(const std::vector<std::string> &argv, const std::string &ready_prefix,
                      int timeout_ms = 20000);
    // The next line the child prints on standard output (empty on time-out or end).
    std::string read_line(int timeout_ms = 10000);
    // Sends one line on the child's standard input.
    void write_line(const std::string &line);
    void stop();
    pid_t pid() const { return pid_; }
private:
    pid_t pid_ = -1;
    int out_fd_ = -1;
    int in_fd_ = -1;
    std::string pending_;
};

// Makes the throw-away PKI of sim/make_certs.sh in `dir`; false when it failed.
bool make_certs(const std::string &dir);

// Clears the configuration root and names every CUPS and LNS file inside `dir`
// (dir/cups_uri, dir/cups_trust_backup, dir/lns_key, ...).
void point_credentials_at(const std::string &dir);
// Copies `text` into a fixed-size configuration text field.
template <size_t N>
void set_text(char (&field)[N], const std::string &text) {
    snprintf(field, N, "%s", text.c_str());
}
// Plain bitwise CRC-32 (IEEE 802.3), independent of the table-driven one under test.
uint32_t reference_crc32(const std::string &data);

inline std::string source_dir() { return KES_SOURCE_DIR; }
inline std::string python() { return KES_PYTHON; }

} // namespace kes_test
