#include "support/test_support.h"

#include "common/bridge_bstn_config.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace kes_test {

StderrCapture::StderrCapture() {
    char tmpl[] = "/tmp/kes_stderr_XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) throw std::runtime_error("mkstemp failed");
    path_ = tmpl;
    fflush(stderr);
    saved_fd_ = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
    active_ = true;
}

StderrCapture::~StderrCapture() {
    if (active_) stop();
    if (!path_.empty()) unlink(path_.c_str());
}

std::string StderrCapture::stop() {
    if (active_) {
        fflush(stderr);
        dup2(saved_fd_, STDERR_FILENO);
        close(saved_fd_);
        active_ = false;
    }
    return read_file(path_);
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/kes_test_XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

Process::~Process() { stop(); }

std::string Process::start(const std::vector<std::string> &argv, const std::string &ready_prefix,
                           int timeout_ms) {
    int out_pipe[2], in_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(in_pipe) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(in_pipe[0], STDIN_FILENO);
        close(out_pipe[0]); close(out_pipe[1]);
        close(in_pipe[0]); close(in_pipe[1]);
        std::vector<char *> args;
        for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(in_pipe[0]);
    out_fd_ = out_pipe[0];
    in_fd_ = in_pipe[1];
    for (;;) {
        std::string line = read_line(timeout_ms);
        if (line.empty()) {
            stop();
            throw std::runtime_error("peer did not become ready: " + argv.back());
        }
        if (line.rfind(ready_prefix, 0) == 0) {
            std::string rest = line.substr(ready_prefix.size());
            while (!rest.empty() && rest.front() == ' ') rest.erase(rest.begin());
            return rest;
        }
    }
}

std::string Process::read_line(int timeout_ms) {
    for (;;) {
        auto nl = pending_.find('\n');
        if (nl != std::string::npos) {
            std::string line = pending_.substr(0, nl);
            pending_.erase(0, nl + 1);
            return line;
        }
        if (out_fd_ < 0) return {};
        pollfd p{out_fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0) return {};
        char buf[4096];
        ssize_t n = read(out_fd_, buf, sizeof buf);
        if (n <= 0) return {};
        pending_.append(buf, static_cast<size_t>(n));
    }
}

void Process::write_line(const std::string &line) {
    std::string l = line + "\n";
    if (in_fd_ >= 0 && write(in_fd_, l.data(), l.size()) < 0) {
        // the peer is gone; the test notices through its own checks
    }
}

void Process::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        for (int i = 0; i < 50; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) { pid_ = -1; break; }
            usleep(20000);
        }
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    if (out_fd_ >= 0) { close(out_fd_); out_fd_ = -1; }
    if (in_fd_ >= 0) { close(in_fd_); in_fd_ = -1; }
}

bool make_certs(const std::string &dir) {
    const std::string cmd = "bash " + source_dir() + "/sim/make_certs.sh " + dir;
    return system(cmd.c_str()) == 0;
}

void point_credentials_at(const std::string &dir) {
    bridge_cfg_root *cfg = bridge_config_get_root();
    *cfg = bridge_cfg_root{};
    for (auto [set, prefix] : {std::pair{&cfg->cups, "cups_"}, std::pair{&cfg->lns, "lns_"}}) {
        const std::string p = dir + "/" + prefix;
        set_text(set->uri, p + "uri");
        set_text(set->uri_backup, p + "uri_backup");
        set_text(set->trust, p + "trust");
        set_text(set->trust_backup, p + "trust_backup");
        set_text(set->cert, p + "cert");
        set_text(set->cert_backup, p + "cert_backup");
        set_text(set->key, p + "key");
        set_text(set->key_backup, p + "key_backup");
    }
}

uint32_t reference_crc32(const std::string &data) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int i = 0; i < 8; ++i) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

std::string source_dir() { return KES_SOURCE_DIR; }
std::string python() { return KES_PYTHON; }

} // namespace kes_test
