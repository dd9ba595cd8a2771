#include "support/test_support.h"

#include "common/bridge_bstn_config.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace kes_test {

void write_file(const std::string &path, const std::string &content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
std::string read_file(const std::string &path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}
bool file_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string member(json_object *o, const char *key) {
    json_object *v = nullptr;
    if (!o || !json_object_object_get_ex(o, key, &v) || json_object_get_type(v) == json_type_null) return "<none>";
    return json_object_get_string(v);
}
std::string member(const std::string &json_text, const char *key) {
    json_object *o = json_tokener_parse(json_text.c_str());
    std::string m = member(o, key);
    json_object_put(o);
    return m;
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

int Process::start_sim(const std::string &script, std::vector<std::string> argv) {
    argv.insert(argv.begin(), {KES_PYTHON, source_dir() + "/sim/" + script, "--certs", certs()});
    int out_pipe[2], in_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(in_pipe) != 0 || (pid_ = fork()) < 0) throw std::runtime_error("pipe/fork failed");
    if (pid_ == 0) {
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(in_pipe[0], STDIN_FILENO);
        for (int fd : {out_pipe[0], out_pipe[1], in_pipe[0], in_pipe[1]}) close(fd);
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
    for (std::string line; !(line = read_line(20000)).empty();)
        if (line.rfind("READY ", 0) == 0) return std::stoi(line.substr(6));
    stop();
    throw std::runtime_error("simulator did not become ready: " + script);
}

std::string Process::read_line(int timeout_ms) {
    size_t nl;
    while ((nl = pending_.find('\n')) == std::string::npos) {
        pollfd p{out_fd_, POLLIN, 0};
        char buf[4096];
        ssize_t n = 0;
        if (out_fd_ < 0 || poll(&p, 1, timeout_ms) <= 0 || (n = read(out_fd_, buf, sizeof buf)) <= 0) return {};
        pending_.append(buf, static_cast<size_t>(n));
    }
    std::string line = pending_.substr(0, nl);
    pending_.erase(0, nl + 1);
    return line;
}

void Process::write_line(const std::string &line) {
    const std::string l = line + "\n";
    // A peer that is gone shows in the test's own checks.
    if (in_fd_ >= 0 && write(in_fd_, l.data(), l.size()) < 0) return;
}

void Process::stop() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0); // a simulator keeps nothing to save
    pid_ = -1;
    for (int *fd : {&out_fd_, &in_fd_})
        if (*fd >= 0) close(std::exchange(*fd, -1));
}

const std::string &certs() {
    static TempDir dir;
    static const bool made = system(("bash " + source_dir() + "/sim/make_certs.sh " + dir.path()).c_str()) == 0;
    EXPECT_TRUE(made) << "sim/make_certs.sh failed";
    return dir.path();
}
std::string cert(const std::string &name) { return read_file(certs() + "/" + name); }

void point_credentials_at(const std::string &dir) {
    bridge_cfg_root *cfg = bridge_config_get_root();
    *cfg = bridge_cfg_root{};
    for (auto [s, prefix] : {std::pair{&cfg->cups, dir + "/cups_"}, std::pair{&cfg->lns, dir + "/lns_"}}) {
        for (auto [field, name] : {std::pair{s->uri, "uri"}, {s->uri_backup, "uri_backup"}, {s->trust, "trust"},
                                   {s->trust_backup, "trust_backup"}, {s->cert, "cert"},
                                   {s->cert_backup, "cert_backup"}, {s->key, "key"}, {s->key_backup, "key_backup"}})
            snprintf(field, BRIDGE_CFG_STR_SZ, "%s", (prefix + name).c_str());
    }
}

} // namespace kes_test
