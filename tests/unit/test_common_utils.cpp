// CRC-32, file, hex, EUI-64, hex dump and Base64 helpers.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/base64.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

void stdout_only_to_death_test_stream() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, STDERR_FILENO);
    close(devnull);
}

bool contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

class UtilsTest : public ::testing::Test {
protected:
    void SetUp() override { bridge_log_init(BRIDGE_LOG_TRACE, true); }
    void TearDown() override { bridge_log_init(BRIDGE_LOG_INFO, true); }
    kes_test::TempDir dir;
};

// ---- CRC-32 ----------------------------------------------------------------

TEST_F(UtilsTest, Crc32MatchesTheStandardCheckValueAndChains) {
    const char digits[] = "123456789";
    EXPECT_EQ(bridge_utils_calculate_crc32(0, digits, 9), 0xCBF43926U);
    const uint32_t first = bridge_utils_calculate_crc32(0, digits, 4);
    EXPECT_EQ(bridge_utils_calculate_crc32(first, digits + 4, 5), 0xCBF43926U);
    EXPECT_EQ(bridge_utils_calculate_crc32(0, digits, 0), 0U);
    EXPECT_EQ(bridge_utils_calculate_crc32(0, "a", 1), 0xE8B7BE43U);
    const std::vector<uint8_t> zeros(32, 0);
    EXPECT_EQ(bridge_utils_calculate_crc32(0, zeros.data(), zeros.size()), 0x190A55ADU);
}

// ---- files -----------------------------------------------------------------

TEST_F(UtilsTest, ReadTextFileSizeBoundaries) {
    constexpr size_t buf_sz = 16;
    struct Row {
        size_t file_len;
        int rc;
        const char *message;
    } rows[] = {
        {0, 0, "file is empty"},
        {1, 0, nullptr},
        {buf_sz - 1, 0, nullptr},
        {buf_sz, -ENOBUFS, "a file content is too big to fit into the buffer"},
        {buf_sz + 10, -ENOBUFS, "a file content is too big to fit into the buffer"},
    };
    for (const Row &r : rows) {
        const std::string content(r.file_len, 'k');
        const std::string path = dir.file("f" + std::to_string(r.file_len));
        kes_test::write_file(path, content);
        std::vector<char> buf(buf_sz, 'X');
        kes_test::StderrCapture cap;
        const int rc = bridge_utils_read_text_file_to_buf(path.c_str(), buf.data(), buf.size());
        const std::string log = cap.stop();
        EXPECT_EQ(rc, r.rc) << r.file_len;
        EXPECT_STREQ(buf.data(), rc == 0 ? content.c_str() : "") << r.file_len;
        if (r.message) {
            EXPECT_TRUE(contains(log, r.message)) << log;
        }
        EXPECT_EQ(r.rc == -ENOBUFS, contains(log, "[ERROR ]")) << log;
    }
}

TEST_F(UtilsTest, ReadTextFileReportsOpenAndReadErrors) {
    char buf[8] = "XXXXXXX";
    kes_test::StderrCapture cap;
    const std::string missing = dir.file("missing");
    EXPECT_EQ(bridge_utils_read_text_file_to_buf(missing.c_str(), buf, sizeof(buf)), -ENOENT);
    std::string log = cap.stop();
    EXPECT_TRUE(contains(log, "[DEBUG ]")) << log;
    EXPECT_TRUE(contains(log, "failed to open a file " + missing + ": No such file or directory\n")) << log;

    // A folder opens for reading but cannot be read.
    kes_test::StderrCapture cap2;
    EXPECT_EQ(bridge_utils_read_text_file_to_buf(dir.path().c_str(), buf, sizeof(buf)), -EISDIR);
    log = cap2.stop();
    EXPECT_STREQ(buf, "");
    EXPECT_TRUE(contains(log, "[ERROR ]")) << log;
    EXPECT_TRUE(contains(log, "failed to read a file " + dir.path() + ": Is a directory\n")) << log;
}

TEST_F(UtilsTest, WriteFileCreatesTruncatesAndReportsErrors) {
    const std::string path = dir.file("out.bin");
    const std::string long_text = "0123456789abcdef";
    EXPECT_EQ(bridge_utils_write_buf_to_file(path.c_str(), long_text.data(), long_text.size()), 0);
    EXPECT_EQ(kes_test::read_file(path), long_text);
    const uint8_t bin[] = {0x00, 0xff, 0x10};
    EXPECT_EQ(bridge_utils_write_buf_to_file(path.c_str(), bin, sizeof(bin)), 0);
    EXPECT_EQ(kes_test::read_file(path), std::string("\x00\xff\x10", 3));

    kes_test::StderrCapture cap;
    const std::string bad = dir.file("no/such/dir");
    EXPECT_EQ(bridge_utils_write_buf_to_file(bad.c_str(), bin, sizeof(bin)), -ENOENT);
    const std::string log = cap.stop();
    EXPECT_TRUE(contains(log, "can't open a file " + bad + ": No such file or directory\n")) << log;

    if (access("/dev/full", W_OK) == 0) {
        // Small writes are buffered: the full device is only noticed at close.
        kes_test::StderrCapture cap2;
        EXPECT_EQ(bridge_utils_write_buf_to_file("/dev/full", bin, sizeof(bin)), -ENOSPC);
        EXPECT_TRUE(contains(cap2.stop(), "failed to write a file /dev/full: No space left on device\n"));
        const std::vector<uint8_t> big(1 << 16, 7);
        EXPECT_EQ(bridge_utils_write_buf_to_file("/dev/full", big.data(), big.size()), -ENOSPC);
    }
}

TEST_F(UtilsTest, FileExistsGivesZeroOrMinusErrno) {
    const std::string path = dir.file("here");
    kes_test::write_file(path, "x");
    EXPECT_EQ(bridge_utils_file_exists(path.c_str()), 0);
    EXPECT_EQ(bridge_utils_file_exists(dir.path().c_str()), 0);
    EXPECT_EQ(bridge_utils_file_exists(dir.file("gone").c_str()), -ENOENT);
    EXPECT_EQ(bridge_utils_file_exists(dir.file("here/sub").c_str()), -ENOTDIR);
}

// ---- hex and EUI texts -----------------------------------------------------

TEST_F(UtilsTest, ArrayToHexstringNeedsRoomForTheTerminator) {
    const uint8_t bytes[] = {0x00, 0xab, 0x7f, 0xff};
    char out[9];
    memset(out, 'X', sizeof(out));
    EXPECT_EQ(bridge_utils_array_to_hexstring(bytes, 4, out, 9), 0);
    EXPECT_STREQ(out, "00ab7fff");

    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_utils_array_to_hexstring(bytes, 4, out, 8), -1);
    EXPECT_TRUE(contains(cap.stop(), "not enough space in the output buffer: [8]\n"));

    char one[1] = {'X'};
    EXPECT_EQ(bridge_utils_array_to_hexstring(bytes, 0, one, 1), 0);
    EXPECT_EQ(one[0], '\0');
}

TEST_F(UtilsTest, HexstringToArrayTable) {
    struct Row {
        const char *text;
        size_t arr_sz;
        int rc;
        std::vector<uint8_t> bytes;
        const char *message;
    } rows[] = {
        {"00ab7FFf", 4, 0, {0x00, 0xab, 0x7f, 0xff}, nullptr},
        {"0102", 8, 0, {0x01, 0x02}, nullptr},
        {"", 0, 0, {}, nullptr},
        {"abc", 8, -1, {}, "input string length must be divisible by 2"},
        {"00ab", 1, -1, {}, "output buffer is too small"},
        {"zz", 1, -1, {}, "failed to convert a byte to a hexstring at offset [0]"},
        {"0g", 1, -1, {}, "failed to convert a byte to a hexstring at offset [0]"},
        {" 1", 1, -1, {}, "failed to convert a byte to a hexstring at offset [0]"},
        {"1 ", 1, -1, {}, "failed to convert a byte to a hexstring at offset [0]"},
        {"+1", 1, -1, {}, "failed to convert a byte to a hexstring at offset [0]"},
        {"00zz", 2, -1, {}, "failed to convert a byte to a hexstring at offset [2]"},
        {"0011-2", 3, -1, {}, "failed to convert a byte to a hexstring at offset [4]"},
    };
    for (const Row &r : rows) {
        std::vector<uint8_t> arr(r.arr_sz + 1, 0xEE); // one guard byte past the declared size
        kes_test::StderrCapture cap;
        const int rc = bridge_utils_hexstring_to_array(r.text, arr.data(), r.arr_sz);
        const std::string log = cap.stop();
        EXPECT_EQ(rc, r.rc) << '"' << r.text << '"';
        if (rc == 0) {
            EXPECT_EQ(std::vector<uint8_t>(arr.begin(), arr.begin() + r.bytes.size()), r.bytes) << r.text;
        }
        EXPECT_EQ(arr[r.arr_sz], 0xEE) << r.text;
        if (r.message) {
            EXPECT_TRUE(contains(log, std::string("[ERROR ]")) && contains(log, std::string(r.message) + "\n"))
                << r.text << ": " << log;
        }
    }
}

TEST_F(UtilsTest, FormatEui64ReversesBytesAndChecksSizes) {
    const uint8_t eui[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    char out[24];
    EXPECT_EQ(bridge_utils_format_eui64(eui, 8, out, 24), 0);
    EXPECT_STREQ(out, "08-07-06-05-04-03-02-01");
    const uint8_t high[8] = {0x35, 0xa2, 0x10, 0xff, 0x01, 0xc0, 0x16, 0x00};
    EXPECT_EQ(bridge_utils_format_eui64(high, 8, out, 24), 0);
    EXPECT_STREQ(out, "00-16-c0-01-ff-10-a2-35");

    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_utils_format_eui64(eui, 8, out, 23), -1);
    EXPECT_EQ(bridge_utils_format_eui64(eui, 7, out, 24), -1);
    EXPECT_EQ(bridge_utils_format_eui64(eui, 9, out, 24), -1);
    const std::string log = cap.stop();
    EXPECT_TRUE(contains(log, "input array must be more than 24 bytes in size\n")) << log;
    EXPECT_TRUE(contains(log, "buffer to format the EUI must be exactly 8 bytes long\n")) << log;
}

TEST_F(UtilsTest, HexdumpPadsTheLastRow) {
    const uint8_t data[] = {'A', 'B', 0x01, 0x7f, 'z'};
    kes_test::StderrCapture cap;
    bridge_utils_hexdump_stderr(data, sizeof(data), 4);
    EXPECT_EQ(cap.stop(), "0x000000: 41 42 01 7f AB..\n"
                          "0x000004: 7a          z   \n");
    kes_test::StderrCapture cap2;
    bridge_utils_hexdump_stderr(data, 2, 2);
    EXPECT_EQ(cap2.stop(), "0x000000: 41 42 AB\n");
}

TEST_F(UtilsTest, FailedPreconditionsAbortWithTheirText) {
    char buf[4];
    uint8_t arr[4] = {};
    const struct {
        void (*call)(char *, uint8_t *);
        const char *text;
    } rows[] = {
        {[](char *, uint8_t *) { bridge_utils_calculate_crc32(0, nullptr, 1); }, "buf != NULL"},
        {[](char *, uint8_t *) { bridge_utils_read_text_file_to_buf("x", nullptr, 4); }, "buf != NULL"},
        {[](char *b, uint8_t *) { bridge_utils_read_text_file_to_buf("x", b, 0); }, "buf_sz != 0"},
        {[](char *b, uint8_t *) { bridge_utils_read_text_file_to_buf(nullptr, b, 4); }, "filepath != NULL"},
        {[](char *b, uint8_t *) { bridge_utils_write_buf_to_file(nullptr, b, 4); }, "filepath != NULL"},
        {[](char *, uint8_t *) { bridge_utils_file_exists(nullptr); }, "filepath"},
        {[](char *b, uint8_t *) { bridge_utils_array_to_hexstring(nullptr, 0, b, 4); }, "arr != NULL"},
        {[](char *, uint8_t *a) { bridge_utils_hexstring_to_array(nullptr, a, 4); }, "str_buf != NULL"},
        {[](char *, uint8_t *a) { bridge_utils_format_eui64(a, 8, nullptr, 24); }, "str_buf != NULL"},
        {[](char *, uint8_t *a) { bridge_utils_hexdump_stderr(a, 0, 4); }, "sz != 0"},
        {[](char *, uint8_t *a) { bridge_utils_hexdump_stderr(a, 4, 0); }, "cols != 0"},
    };
    for (const auto &r : rows) {
        EXPECT_EXIT(
            {
                stdout_only_to_death_test_stream();
                r.call(buf, arr);
            },
            ::testing::KilledBySignal(SIGABRT), std::string("Assertion failed: \\( ") + r.text + " \\) in ")
            << r.text;
    }
}

// ---- Base64 ----------------------------------------------------------------

std::string encode(const std::vector<uint8_t> &in) {
    std::vector<char> out(static_cast<size_t>(Base64encode_len(static_cast<int>(in.size()))));
    const int rc = Base64encode(out.data(), in.data(), static_cast<int>(in.size()));
    EXPECT_EQ(rc, static_cast<int>(out.size()));
    EXPECT_EQ(strlen(out.data()) + 1, out.size());
    return out.data();
}

// Decodes into a buffer of exactly Base64decode_len bytes, so that any write
// past it is caught by the sanitizer build.
std::vector<uint8_t> decode(const std::string &text) {
    std::vector<uint8_t> out(static_cast<size_t>(Base64decode_len(text.c_str())), 0xEE);
    const int n = Base64decode(out.data(), text.c_str());
    EXPECT_GE(n, 0);
    EXPECT_LT(static_cast<size_t>(n), out.size());
    EXPECT_EQ(out[static_cast<size_t>(n)], 0) << "terminator after the bytes";
    return std::vector<uint8_t>(out.begin(), out.begin() + n);
}

std::vector<uint8_t> bytes_of(const std::string &s) {
    return std::vector<uint8_t>(s.begin(), s.end());
}

TEST(Base64Test, KnownVectorsAndLengthFunctions) {
    const struct {
        const char *plain;
        const char *coded;
    } rows[] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},        {"foo", "Zm9v"},
                {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
    for (const auto &r : rows) {
        EXPECT_EQ(encode(bytes_of(r.plain)), r.coded);
        EXPECT_EQ(decode(r.coded), bytes_of(r.plain)) << r.coded;
    }
    const int enc_len[][2] = {{0, 1}, {1, 5}, {2, 5}, {3, 5}, {4, 9}, {6, 9}, {7, 13}, {-1, 1}};
    for (const auto &r : enc_len)
        EXPECT_EQ(Base64encode_len(r[0]), r[1]) << r[0];
    const struct {
        const char *in;
        int len;
    } dec_len[] = {{"", 1}, {"Q", 4}, {"QUJD", 4}, {"QUJDRA", 7}, {"Zm8=", 4}, {"Zm9vYmFy", 7}, {" Zm9v", 1}};
    for (const auto &r : dec_len)
        EXPECT_EQ(Base64decode_len(r.in), r.len) << r.in;

    // Two bytes: three characters, one "=", the terminator.
    char out[5];
    const unsigned char two[] = {0xfb, 0xff};
    EXPECT_EQ(Base64encode(out, two, 2), 5);
    EXPECT_STREQ(out, "+/8=");
    EXPECT_EQ(decode(out), std::vector<uint8_t>({0xfb, 0xff}));
}

TEST(Base64Test, RoundTripsEveryLengthUpTo300) {
    for (size_t len = 0; len <= 300; len++) {
        std::vector<uint8_t> data(len);
        for (size_t i = 0; i < len; i++)
            data[i] = static_cast<uint8_t>(i * 131 + len * 7 + 3);
        const std::string text = encode(data);
        EXPECT_EQ(text.size(), (len + 2) / 3 * 4) << len;
        EXPECT_EQ(decode(text), data) << len;
        // Without its padding the text decodes to the same bytes.
        const std::string bare = text.substr(0, text.find('='));
        EXPECT_EQ(decode(bare), data) << len;
    }
}

TEST(Base64Test, DecodingStopsAtTheFirstNonAlphabetCharacter) {
    const struct {
        const char *in;
        std::vector<uint8_t> out;
    } rows[] = {
        {"Q", {}},                      // six bits: no whole byte
        {"QQ", {'A'}},
        {"QUJD!!!", {'A', 'B', 'C'}},
        {"Zm8=garbage", {'f', 'o'}},
        {"Zm9vY", {'f', 'o', 'o'}},     // a lone trailing character adds nothing
        {" Zm9v", {}},
        {"Zm9v\nZm9v", {'f', 'o', 'o'}},
        {"====", {}},
        {"-_-_", {}},                   // URL-safe alphabet is not this one
        {"\xff\x80QUJD", {}},
    };
    for (const auto &r : rows)
        EXPECT_EQ(decode(r.in), r.out) << r.in;
}

} // namespace
