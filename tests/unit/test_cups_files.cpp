// Credential file sets: chained CRC-32 of a set, the backup of the CUPS set,
// and the atomic replacement every written file goes through.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::file_exists;
using kes_test::read_file;
using kes_test::write_file;

namespace {

class CupsFiles : public ::testing::Test {
public:
    void SetUp() override { fresh(); }
    void TearDown() override { bridge_bstn_cups_file_sys = saved_sys; }
    void fresh() {
        bridge_log_init(BRIDGE_LOG_ERROR, true);
        tmp = std::make_unique<kes_test::TempDir>();
        kes_test::point_credentials_at(tmp->path());
    }
    bridge_cfg_creds &cups() { return bridge_config_get_root()->cups; }
    bridge_cfg_creds &lns() { return bridge_config_get_root()->lns; }
    // Names in the scratch folder that are left-over temporary files.
    std::string temporaries() const {
        std::string out;
        std::unique_ptr<DIR, int (*)(DIR *)> d(opendir(tmp->path().c_str()), closedir);
        while (dirent *e = readdir(d.get()))
            if (strstr(e->d_name, ".tmp-")) out += e->d_name;
        return out;
    }

    const bridge_bstn_cups_file_syscalls saved_sys = bridge_bstn_cups_file_sys;
    std::unique_ptr<kes_test::TempDir> tmp;
    bridge_bstn_cups_ctx ctx{};
};

TEST_F(CupsFiles, SetCrcIsTheCrcOfThePresentFilesInOrder) {
    struct Case {
        const char *name;
        bool trust, cert, key, lns, use_backup;
    };
    const Case cases[] = {
        {"cups main, all three", true, true, true, false, false},
        {"cups main, token mode without cert", true, false, true, false, false},
        {"cups main, only cert", false, true, false, false, false},
        {"cups main, nothing", false, false, false, false, false},
        {"cups backup, all three", true, true, true, false, true},
        {"lns main, key only", false, false, true, true, false},
        {"lns backup, trust and cert", true, true, false, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        const bridge_bstn_cred_files set = bridge_bstn_cups_cred_files(c.lns ? lns() : cups(), c.use_backup);
        const std::string texts[] = {"-----BEGIN CERTIFICATE-----\ntrust\n", "client certificate\n",
                                     "Authorization: Bearer abc\r\n"};
        std::string expected;
        for (auto [present, path, text] : {std::tuple{c.trust, set.trust, texts[0]},
                                           std::tuple{c.cert, set.cert, texts[1]}, std::tuple{c.key, set.key, texts[2]}}) {
            if (!present) continue;
            write_file(path, text);
            expected += text;
        }
        // The other flavour of the set holds a decoy that must not be counted.
        write_file(bridge_bstn_cups_cred_files(c.lns ? lns() : cups(), !c.use_backup).trust, "decoy");
        uint32_t crc = 0xdeadbeef;
        EXPECT_EQ(c.lns ? bridge_bstn_cups_lns_cred_crc(&ctx, &crc, c.use_backup)
                        : bridge_bstn_cups_cups_cred_crc(&ctx, &crc, c.use_backup), 0);
        EXPECT_EQ(crc, expected.empty() ? 0u : kes_test::reference_crc32(expected));
    }
}

// Tests run as root, so a permission-denied file cannot be made; a UNIX socket
// in place of the trust file exists but cannot be opened (ENXIO) in the same way.
TEST_F(CupsFiles, UnopenableLnsTrustFailsInsteadOfBeingSkipped) {
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(strlen(lns().trust), sizeof addr.sun_path);
    memcpy(addr.sun_path, lns().trust, strlen(lns().trust));
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    uint32_t crc = 0;
    EXPECT_EQ(bridge_bstn_cups_lns_cred_crc(&ctx, &crc, false), -ENXIO);
    close(sock);
}

TEST_F(CupsFiles, BackupOfTheCupsSet) {
    struct Case {
        const char *fault;
        bool cert;
        bool dest_folder_missing;   // the trust backup cannot be created
        int rc;
        std::string uri_b, trust_b, cert_b, key_b;   // backup contents afterwards
    };
    const Case cases[] = {
        {"a file not copied", true, false, 0, "uri", "trust", "cert", "key"},
        {"old cert backup dropped in token mode", false, false, 0, "uri", "trust", "old cert", "key"},
        {"copying goes on after a failure", true, true, -ENOENT, "uri", "", "cert", "old key"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        fresh();
        write_file(cups().uri, "uri");
        write_file(cups().trust, "trust");
        if (c.cert) write_file(cups().cert, "cert");
        write_file(cups().key, "key");
        write_file(cups().cert_backup, "old cert");
        write_file(cups().key_backup, "old key");
        if (c.dest_folder_missing) kes_test::set_text(cups().trust_backup, tmp->file("no/such/dir"));
        EXPECT_EQ(bridge_bstn_cups_backup_cups_set(&ctx), c.rc);
        EXPECT_EQ(read_file(cups().uri_backup), c.uri_b);
        if (!c.dest_folder_missing) {
            EXPECT_EQ(read_file(cups().trust_backup), c.trust_b);
        }
        EXPECT_EQ(read_file(cups().cert_backup), c.cert_b);
        EXPECT_EQ(read_file(cups().key_backup), c.key_b);
        EXPECT_FALSE(file_exists(lns().uri_backup));
    }
}

ssize_t failing_write(int, const void *, size_t) { errno = EIO; return -1; }
int failing_fsync(int) { errno = EIO; return -1; }
int failing_rename(const char *, const char *) { errno = EIO; return -1; }
// The first fsync (the file's) passes; the folder's fails, after the rename.
int fsync_calls = 0;
int failing_folder_fsync(int fd) { return ++fsync_calls == 1 ? fsync(fd) : failing_fsync(fd); }

// Every writer (token, PEM, copy) goes through the replacement: a failure at
// any step before the rename leaves the old file byte for byte and no temporary.
TEST_F(CupsFiles, FailedWriteLeavesTheOldFile) {
    const std::string old_text("old content\n\0binary", 19);
    static const char token_blob[] = "\0\0\0\0\0\0\0\0Authorization: x";
    struct Writer {
        const char *name;
        std::function<int(CupsFiles *)> run;
        std::function<const char *(CupsFiles *)> target;
    };
    const Writer writers[] = {
        {"token",
         [](CupsFiles *) {
             return bridge_bstn_cups_store_credentials(reinterpret_cast<const uint8_t *>(token_blob),
                                                       sizeof token_blob - 1, true);
         },
         [](CupsFiles *t) { return t->cups().key; }},
        {"copy",
         [](CupsFiles *t) {
             write_file(t->cups().uri, "https://new");
             return bridge_bstn_cups_copy_file(t->cups().uri, t->cups().uri_backup);
         },
         [](CupsFiles *t) { return t->cups().uri_backup; }},
    };
    const std::pair<const char *, bridge_bstn_cups_file_syscalls> faults[] = {
        {"write", {failing_write, fsync, rename}},
        {"fsync", {write, failing_fsync, rename}},
        {"rename", {write, fsync, failing_rename}},
    };
    for (const Writer &w : writers) {
        for (const auto &[step, sys] : faults) {
            SCOPED_TRACE(std::string(w.name) + " failing at " + step);
            fresh();
            write_file(w.target(this), old_text);
            bridge_bstn_cups_file_sys = sys;
            EXPECT_EQ(w.run(this), -EIO);
            bridge_bstn_cups_file_sys = saved_sys;
            EXPECT_EQ(read_file(w.target(this)), old_text);
            EXPECT_EQ(temporaries(), "");
        }
    }
    // A failed folder sync is reported although the file was replaced.
    fsync_calls = 0;
    bridge_bstn_cups_file_sys = {write, failing_folder_fsync, rename};
    bridge_bstn_cups_write_step step;
    EXPECT_EQ(bridge_bstn_cups_replace_file(cups().uri, "x", 1, &step), -EIO);
    EXPECT_EQ(step, CUPS_WRITE_DIR_SYNC);
}

TEST_F(CupsFiles, WrittenFilesAre0600WhateverTheUmask) {
    const mode_t saved = umask(0);
    write_file(cups().uri, "https://cups");
    write_file(cups().trust, "trust");
    write_file(cups().key, "Authorization: Bearer t");
    ASSERT_EQ(chmod(cups().key, 0644), 0);   // a key readable by others is replaced by a private one
    const char blob[] = "\0\0\0\0\0\0\0\0Authorization: Bearer new";
    EXPECT_EQ(bridge_bstn_cups_backup_cups_set(&ctx), 0);
    EXPECT_EQ(bridge_bstn_cups_store_credentials(reinterpret_cast<const uint8_t *>(blob), sizeof blob - 1, true), 0);
    umask(saved);
    for (const char *path : {cups().uri_backup, cups().trust_backup, cups().key_backup, cups().key}) {
        struct stat st {};
        ASSERT_EQ(stat(path, &st), 0) << path;
        EXPECT_EQ(st.st_mode & 07777, 0600u) << path;
    }
}

} // namespace
