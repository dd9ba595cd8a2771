// Helpers shared by the C++ tests: captured log output, scratch folders, files and peer processes.
#pragma once

#include <cstdio>
#include <string>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>
#include <json-c/json.h>

namespace kes_test {

inline bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// What `run` writes to standard error.
template <class F>
std::string stderr_of(F &&run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}
// Member `key` of `o` as text; "<none>" when absent or null.
std::string member(json_object *o, const char *key);
std::string member(const std::string &json_text, const char *key);

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

// A simulator from sim/ run with the test PKI, talking through its standard input and output. start_sim()
// returns the port of its "READY <port>" line; read_line() returns an empty text on time-out or end.
class Process {
public:
    Process() = default;
    ~Process() { stop(); }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    int start_sim(const std::string &script, std::vector<std::string> args);
    std::string read_line(int timeout_ms = 10000);
    void write_line(const std::string &line);
    void stop();
private:
    pid_t pid_ = -1;
    int out_fd_ = -1, in_fd_ = -1;
    std::string pending_;
};

// The throw-away PKI of sim/make_certs.sh, made once per test program: its folder, one file's content.
const std::string &certs();
std::string cert(const std::string &name);
// Clears the configuration root and names every CUPS and LNS file inside `dir` (dir/cups_uri, dir/lns_key, ...).
void point_credentials_at(const std::string &dir);
template <size_t N>
void set_text(char (&field)[N], const std::string &text) { snprintf(field, N, "%s", text.c_str()); }
inline std::string source_dir() { return KES_SOURCE_DIR; }

} // namespace kes_test
