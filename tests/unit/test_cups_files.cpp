// The CUPS client's files: the update's section and credentials walks, DER lengths, the atomic
// replacement (the backup of the CUPS set, set CRC and file modes: tests/integration).
#include <gtest/gtest.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::file_exists;
using kes_test::read_file;
using kes_test::write_file;
using bytes = std::vector<uint8_t>;

namespace {

bytes operator+(bytes a, const bytes &b) { a.insert(a.end(), b.begin(), b.end()); return a; }
bytes of(const std::string &s) { return bytes(s.begin(), s.end()); }
bytes zeros(size_t n) { return bytes(n, 0); }
// A section: its length in `width` little-endian bytes, then the content.
bytes sec(const bytes &content, size_t width) {
    bytes out;
    for (size_t i = 0; i < width; ++i) out.push_back(static_cast<uint8_t>(content.size() >> (8 * i)));
    return out + content;
}

using kes_test::cert;
bytes der(const std::string &name) { return of(cert(name)); }

class CupsFiles : public ::testing::Test {
public:
    void SetUp() override { fresh(); }
    void TearDown() override { bridge_bstn_cups_file_sys = saved_sys; }
    void fresh() {
        bridge_log_init(BRIDGE_LOG_ERROR, true);
        tmp = std::make_unique<kes_test::TempDir>();
        kes_test::point_credentials_at(tmp->path());
    }
    int process(const bytes &body) {
        bridge_bstn_cups_ctx c{};
        c.resp_data.reset(static_cast<uint8_t *>(malloc(body.size() + 1)));
        std::copy(body.begin(), body.end(), c.resp_data.get());
        c.resp_len = static_cast<uint32_t>(body.size());
        return bridge_bstn_cups_process_response(&c);
    }
    int store(const bytes &b, bool cups) { return bridge_bstn_cups_store_credentials(b.data(), b.size(), cups); }
    bridge_cfg_creds &cups() { return bridge_config_get_root()->cups; }
    bridge_cfg_creds &lns() { return bridge_config_get_root()->lns; }

    const bridge_bstn_cups_file_syscalls saved_sys = bridge_bstn_cups_file_sys;
    std::unique_ptr<kes_test::TempDir> tmp;
};

TEST_F(CupsFiles, SectionWalk) {
    const bytes x = sec(of("https://x"), 1);
    const struct { const char *fault; bytes body; int rc; const char *cups_uri; } cases[] = {
        {"empty body taken as no update", {}, -1, nullptr},
        {"13 bytes taken as no update", zeros(13), -1, nullptr},
        {"no update writes files", zeros(14), 0, nullptr},
        {"trailing bytes refused", zeros(14) + of("junk"), 0, nullptr},
        {"URI length misread", sec(of("https://cups:443/abc"), 1) + zeros(13), 0, "https://cups:443/abc"},
        {"cut length prefix read past the end", x + zeros(1 + 2 + 2 + 3), -1, "https://x"},
        {"section past the end accepted", x + zeros(3) + bytes{9, 0} + zeros(8), -1, "https://x"},
        {"blob past the end accepted", zeros(10) + bytes{1, 0, 0, 0}, -1, nullptr},
        {"clear-text CUPS URI stored", sec(of("http://cups:80"), 1) + zeros(13), -EPROTONOSUPPORT, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        fresh();
        EXPECT_EQ(process(c.body), c.rc);
        EXPECT_EQ(file_exists(cups().uri) ? read_file(cups().uri) : "<none>", c.cups_uri ? c.cups_uri : "<none>");
        EXPECT_FALSE(file_exists(lns().uri));
    }
}

TEST(CupsDerSeqLen, Table) {
    const struct { const char *fault; bytes in; int32_t len; } cases[] = {
        {"short form misread", {0x30, 0x05}, 7},
        {"two length bytes misread", {0x30, 0x82, 0x01, 0x00}, 260},
        {"leading length byte kept", {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x10}, 0x10 + 7},
        {"largest positive total refused", {0x30, 0x84, 0x7f, 0xff, 0xff, 0xf0}, 0x7ffffff6},
        {"total 0x80000000 taken", {0x30, 0x84, 0x7f, 0xff, 0xff, 0xfa}, -1},
        {"total wrapping to 0 taken", {0x30, 0x84, 0xff, 0xff, 0xff, 0xfa}, -1},
        {"total wrapping to 2 taken (fuzzer)", {0x30, 0x88, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xf8}, -1},
        {"length bytes past the end read", {0x30, 0x82, 0x01}, -1},
        {"tag alone read past the end", {0x30}, -1},
    };
    for (const auto &c : cases) EXPECT_EQ(bridge_bstn_cups_der_seq_len(c.in.data(), c.in.size()), c.len) << c.fault;
}

TEST_F(CupsFiles, CredentialsBlobs) {
    const std::string token = "Authorization: Bearer 0123456789abcdef\r\n";
    const bytes fuzz = of(read_file(kes_test::source_dir() + "/fuzz/regressions/cups_response/"
                                                             "der_len_wraps_to_zero_key"));
    const bytes bad = {0x30, 0x03, 0x02, 0x01, 0x05};   // a SEQUENCE that is neither certificate nor key
    const struct { const char *fault; bytes blob; int rc; std::string files; } cases[] = {   // trust|cert|key
        {"token not stored byte for byte", der("ca.der") + zeros(4) + of(token), 0, cert("ca.pem") + "|old|" + token},
        {"blob ending after the trust misread", der("ca.der"), 0, cert("ca.pem") + "|old|old"},
        {"absence markers overwrite", zeros(12) + of("ignored after the key item"), 0, "old|old|old"},
        {"certificate not converted to PEM", zeros(4) + der("client.der"), 0, "old|" + cert("client.pem") + "|old"},
        {"trust that is a SET accepted", bytes{0x31, 0x03, 0x02, 0x01, 0x00}, -1, "old|old|old"},
        {"cut absence marker accepted", zeros(6), -1, "old|old|old"},
        {"item longer than the blob accepted", bytes{0x30, 0x10, 1, 2, 3, 4, 5}, -1, "old|old|old"},
        {"undecodable certificate written", bad, -1, "old|old|old"},
        {"undecodable key written", zeros(8) + bad, -1, "old|old|old"},
        {"key length wrapping to zero (fuzzer)", fuzz, -1, "old|old|old"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        fresh();
        for (const char *path : {lns().trust, lns().cert, lns().key}) write_file(path, "old");
        EXPECT_EQ(store(c.blob, false), c.rc);
        EXPECT_EQ(read_file(lns().trust) + "|" + read_file(lns().cert) + "|" + read_file(lns().key), c.files);
        EXPECT_FALSE(file_exists(cups().trust));
    }
}

ssize_t failing_write(int, const void *, size_t) { errno = EIO; return -1; }
int failing_fsync(int) { errno = EIO; return -1; }
int failing_rename(const char *, const char *) { errno = EIO; return -1; }
int fsync_calls = 0;   // the file's fsync passes, the folder's (after the rename) fails
int failing_folder_fsync(int fd) { return ++fsync_calls == 1 ? fsync(fd) : failing_fsync(fd); }

// Every writer (token, PEM, copy) goes through the replacement: a failure at any step
// before the rename leaves the old file byte for byte and no temporary file.
TEST_F(CupsFiles, FailedWriteLeavesTheOldFile) {
    const std::string old_text("old content\n\0binary", 19);
    const std::pair<const char *, bridge_bstn_cups_file_syscalls> faults[] = {
        {"write", {failing_write, fsync, rename}}, {"fsync", {write, failing_fsync, rename}},
        {"rename", {write, fsync, failing_rename}}};
    for (int writer = 0; writer < 3; ++writer) {
        for (const auto &[step, sys] : faults) {
            SCOPED_TRACE(std::to_string(writer) + " failing at " + step);
            fresh();
            const char *target = writer == 2 ? cups().uri_backup : cups().key;
            write_file(target, old_text);
            write_file(cups().uri, "https://new");
            bridge_bstn_cups_file_sys = sys;
            const int rc = writer == 0   ? store(zeros(8) + of("Authorization: x"), true)
                           : writer == 1 ? store(zeros(8) + der("client_ec.key.der"), true)
                                         : bridge_bstn_cups_copy_file(cups().uri, cups().uri_backup);
            bridge_bstn_cups_file_sys = saved_sys;
            EXPECT_EQ(rc, -EIO);
            EXPECT_EQ(read_file(target), old_text);
            std::unique_ptr<DIR, int (*)(DIR *)> d(opendir(tmp->path().c_str()), closedir);
            while (dirent *e = readdir(d.get())) EXPECT_FALSE(strstr(e->d_name, ".tmp-")) << e->d_name;
        }
    }
    // A rename that may not survive a power cut is reported.
    bridge_bstn_cups_file_sys = {write, failing_folder_fsync, rename};
    bridge_bstn_cups_write_step step;
    EXPECT_EQ(bridge_bstn_cups_replace_file(cups().uri, "x", 1, &step), -EIO);
    EXPECT_EQ(step, CUPS_WRITE_DIR_SYNC);
}

} // namespace
