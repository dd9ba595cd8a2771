// Credential file sets: mandatory files, chained CRC-32 of a set, file copy and
// the backup of the CUPS set.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::file_exists;
using kes_test::read_file;
using kes_test::write_file;

namespace {

class CupsFiles : public ::testing::Test {
protected:
    void SetUp() override { fresh(); }
    // A new, empty folder and a configuration naming files in it.
    void fresh() {
        bridge_log_init(BRIDGE_LOG_TRACE, true);
        tmp = std::make_unique<kes_test::TempDir>();
        kes_test::point_credentials_at(tmp->path());
    }
    bridge_cfg_creds &cups() { return bridge_config_get_root()->cups; }
    bridge_cfg_creds &lns() { return bridge_config_get_root()->lns; }

    std::unique_ptr<kes_test::TempDir> tmp;
    bridge_bstn_cups_ctx ctx{};
};

TEST_F(CupsFiles, SetCrcIsCrcOfPresentFilesConcatenated) {
    struct Case {
        const char *name;
        bool trust, cert, key;
        bool lns, use_backup;
    };
    const Case cases[] = {
        {"cups main, all three", true, true, true, false, false},
        {"cups main, token mode without cert", true, false, true, false, false},
        {"cups main, only cert", false, true, false, false, false},
        {"cups main, nothing", false, false, false, false, false},
        {"cups backup, all three", true, true, true, false, true},
        {"lns main, all three", true, true, true, true, false},
        {"lns main, key only", false, false, true, true, false},
        {"lns backup, trust and cert", true, true, false, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        bridge_cfg_creds &set = c.lns ? lns() : cups();
        const std::string trust = "-----BEGIN CERTIFICATE-----\ntrust of " + std::string(c.name) + "\n";
        const std::string cert = "client certificate\n";
        const std::string key = "Authorization: Bearer abc\r\n";
        std::string expected;
        if (c.trust) { write_file(c.use_backup ? set.trust_backup : set.trust, trust); expected += trust; }
        if (c.cert) { write_file(c.use_backup ? set.cert_backup : set.cert, cert); expected += cert; }
        if (c.key) { write_file(c.use_backup ? set.key_backup : set.key, key); expected += key; }
        // The other flavour of the set holds decoys that must not be counted.
        write_file(c.use_backup ? set.trust : set.trust_backup, "decoy");

        uint32_t crc = 0xdeadbeef;
        int rc = c.lns ? bridge_bstn_cups_lns_cred_crc(&ctx, &crc, c.use_backup)
                       : bridge_bstn_cups_cups_cred_crc(&ctx, &crc, c.use_backup);
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(crc, expected.empty() ? 0u : kes_test::reference_crc32(expected));
    }
}

TEST_F(CupsFiles, SetCrcLogsSkippedFiles) {
    write_file(cups().key, "k");
    kes_test::StderrCapture cap;
    uint32_t crc = 0;
    ASSERT_EQ(bridge_bstn_cups_cups_cred_crc(&ctx, &crc, false), 0);
    ASSERT_EQ(bridge_bstn_cups_lns_cred_crc(&ctx, &crc, false), 0);
    std::string log = cap.stop();
    EXPECT_NE(log.find("CUPS trust file is missing, skipping CRC check for it"), std::string::npos);
    EXPECT_NE(log.find("CUPS cert file is missing, skipping CRC check for it"), std::string::npos);
    EXPECT_EQ(log.find("CUPS key file is missing"), std::string::npos);
    EXPECT_NE(log.find("LNS trust file is missing, skipping CRC check for it"), std::string::npos);
    // The LNS message names the cert without "LNS": it follows the line number.
    const std::string lns_cert = "cert file is missing, skipping CRC check for it";
    bool found = false;
    for (size_t at = log.find(lns_cert); at != std::string::npos; at = log.find(lns_cert, at + 1)) {
        found = found || (at >= 2 && log[at - 1] == ' ' && isdigit(static_cast<unsigned char>(log[at - 2])));
    }
    EXPECT_TRUE(found) << log;
}

// Tests run as root, so a permission-denied file cannot be made; a UNIX socket
// in place of the trust file exists but cannot be opened (ENXIO) in the same way.
TEST_F(CupsFiles, UnopenableLnsTrustFailsInsteadOfBeingSkipped) {
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(strlen(lns().trust), sizeof addr.sun_path);
    memcpy(addr.sun_path, lns().trust, strlen(lns().trust));
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    write_file(lns().key, "k");
    uint32_t crc = 0;
    EXPECT_EQ(bridge_bstn_cups_lns_cred_crc(&ctx, &crc, false), -ENXIO);
    close(sock);
}

TEST_F(CupsFiles, FileCrcChainsAndKeepsValueForEmptyFile) {
    write_file(tmp->file("a"), "12345");
    write_file(tmp->file("b"), "6789");
    write_file(tmp->file("empty"), "");
    uint32_t crc = 0;
    ASSERT_EQ(bridge_bstn_cups_file_crc(&ctx, tmp->file("a").c_str(), &crc, 0), 0);
    ASSERT_EQ(bridge_bstn_cups_file_crc(&ctx, tmp->file("empty").c_str(), &crc, crc), 0);
    ASSERT_EQ(bridge_bstn_cups_file_crc(&ctx, tmp->file("b").c_str(), &crc, crc), 0);
    EXPECT_EQ(crc, 0xCBF43926u);
    EXPECT_EQ(bridge_bstn_cups_file_crc(&ctx, tmp->file("missing").c_str(), &crc, crc), -ENOENT);
}

TEST_F(CupsFiles, MandatoryFilesNameTheMissingFileAndSet) {
    struct Case {
        bool use_backup, key, trust;
        int rc;
        const char *message;
        const char *path;
    };
    const Case cases[] = {
        {false, false, false, -ENOENT, "missing mandatory key file %s from main set", "cups_key"},
        {false, true, false, -ENOENT, "missing mandatory trust file %s from main set", "cups_trust"},
        {false, true, true, 0, nullptr, nullptr},
        {true, false, true, -ENOENT, "missing mandatory key file %s from backup set", "cups_key_backup"},
        {true, true, false, -ENOENT, "missing mandatory trust file %s from backup set", "cups_trust_backup"},
        {true, true, true, 0, nullptr, nullptr},
    };
    for (const Case &c : cases) {
        fresh();
        SCOPED_TRACE(testing::Message() << "backup " << c.use_backup << " key " << c.key << " trust " << c.trust);
        if (c.key) write_file(c.use_backup ? cups().key_backup : cups().key, "k");
        if (c.trust) write_file(c.use_backup ? cups().trust_backup : cups().trust, "t");
        // The cert and the other set are never looked at.
        write_file(c.use_backup ? cups().key : cups().key_backup, "k");
        kes_test::StderrCapture cap;
        EXPECT_EQ(bridge_bstn_cups_check_mandatory_files(c.use_backup), c.rc);
        std::string log = cap.stop();
        if (c.message) {
            char expected[512];
            snprintf(expected, sizeof expected, c.message, tmp->file(c.path).c_str());
            EXPECT_NE(log.find(expected), std::string::npos) << log;
        } else {
            EXPECT_EQ(log.find("missing mandatory"), std::string::npos) << log;
        }
    }
}

TEST_F(CupsFiles, CopyFile) {
    const std::string big(70000, 'x');
    write_file(tmp->file("src"), big);
    ASSERT_EQ(chmod(tmp->file("src").c_str(), 0640), 0);

    // A new destination gets the content and the source's permission bits.
    ASSERT_EQ(bridge_bstn_cups_copy_file(tmp->file("src").c_str(), tmp->file("new").c_str()), 0);
    EXPECT_EQ(read_file(tmp->file("new")), big);
    struct stat st {};
    ASSERT_EQ(stat(tmp->file("new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);

    // An existing, longer destination is truncated and keeps its own mode.
    write_file(tmp->file("short"), "short");
    write_file(tmp->file("old"), std::string(100000, 'o'));
    ASSERT_EQ(chmod(tmp->file("old").c_str(), 0604), 0);
    ASSERT_EQ(bridge_bstn_cups_copy_file(tmp->file("short").c_str(), tmp->file("old").c_str()), 0);
    EXPECT_EQ(read_file(tmp->file("old")), "short");
    ASSERT_EQ(stat(tmp->file("old").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0604u);

    // An empty source gives an empty destination.
    write_file(tmp->file("empty"), "");
    write_file(tmp->file("was_full"), "content");
    EXPECT_EQ(bridge_bstn_cups_copy_file(tmp->file("empty").c_str(), tmp->file("was_full").c_str()), 0);
    EXPECT_TRUE(file_exists(tmp->file("was_full")));
    EXPECT_EQ(read_file(tmp->file("was_full")), "");
}

TEST_F(CupsFiles, CopyFileFailures) {
    write_file(tmp->file("src"), "data");
    struct Case {
        std::string src, dst;
        int rc;
        std::string message;
    };
    const Case cases[] = {
        {tmp->file("missing"), tmp->file("dst"), -ENOENT,
         "failed to obtain stat info about " + tmp->file("missing") + ": No such file or directory"},
        {tmp->file("src"), tmp->file("no/such/dir"), -ENOENT,
         "failed to open destination file " + tmp->file("no/such/dir") + ": No such file or directory"},
        {tmp->file("src"), tmp->path(), -EISDIR, "failed to open destination file " + tmp->path() + ": Is a directory"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.message);
        kes_test::StderrCapture cap;
        EXPECT_EQ(bridge_bstn_cups_copy_file(c.src.c_str(), c.dst.c_str()), c.rc);
        EXPECT_NE(cap.stop().find(c.message), std::string::npos);
    }
}

TEST_F(CupsFiles, BackupCopiesTheCupsSet) {
    write_file(cups().uri, "https://cups.example:443");
    write_file(cups().trust, "trust");
    write_file(cups().cert, "cert");
    write_file(cups().key, "key");
    write_file(cups().cert_backup, "old cert");
    ASSERT_EQ(bridge_bstn_cups_backup_cups_set(&ctx), 0);
    EXPECT_EQ(read_file(cups().uri_backup), "https://cups.example:443");
    EXPECT_EQ(read_file(cups().trust_backup), "trust");
    EXPECT_EQ(read_file(cups().cert_backup), "cert");
    EXPECT_EQ(read_file(cups().key_backup), "key");
    // The LNS set is not backed up.
    EXPECT_FALSE(file_exists(lns().uri_backup));
}

TEST_F(CupsFiles, BackupWithoutCertKeepsOldCertBackup) {
    write_file(cups().uri, "uri");
    write_file(cups().trust, "trust");
    write_file(cups().key, "Authorization: Bearer t");
    write_file(cups().cert_backup, "old cert");
    kes_test::StderrCapture cap;
    ASSERT_EQ(bridge_bstn_cups_backup_cups_set(&ctx), 0);
    EXPECT_NE(cap.stop().find("skipping backuping the cert file: it doesn't exist"), std::string::npos);
    EXPECT_EQ(read_file(cups().uri_backup), "uri");
    EXPECT_EQ(read_file(cups().trust_backup), "trust");
    EXPECT_EQ(read_file(cups().key_backup), "Authorization: Bearer t");
    EXPECT_EQ(read_file(cups().cert_backup), "old cert");
}

TEST_F(CupsFiles, BackupStopsAtFirstFailure) {
    write_file(cups().uri, "uri");
    write_file(cups().trust, "trust");
    write_file(cups().key, "key");
    write_file(cups().key_backup, "old key");
    kes_test::set_text(cups().trust_backup, tmp->file("no/such/dir"));
    EXPECT_EQ(bridge_bstn_cups_backup_cups_set(&ctx), -ENOENT);
    EXPECT_EQ(read_file(cups().uri_backup), "uri");
    EXPECT_EQ(read_file(cups().key_backup), "old key");
}

} // namespace
