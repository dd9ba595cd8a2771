// CRC-32, file, hex and Base64 helpers (EUI and hex texts of frames: the frame parser's tests).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "common/base64.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

TEST(Utils, Crc32IsTheStandardOneAndChains) {
    const char digits[] = "123456789";
    const uint32_t first = bridge_utils_calculate_crc32(0, digits, 4);
    EXPECT_EQ(bridge_utils_calculate_crc32(first, digits + 4, 5), 0xCBF43926U);
    const std::string blob(1000, '\xa5');
    EXPECT_EQ(bridge_utils_calculate_crc32(0, blob.data(), blob.size()), kes_test::reference_crc32(blob));
}

TEST(Utils, ReadTextFileFillsAtMostAllButTheTerminator) {
    kes_test::TempDir dir;
    constexpr size_t buf_sz = 16;
    const struct {
        size_t len;
        int rc;
        const char *fault;
    } rows[] = {{0, 0, "empty file refused"},
                {buf_sz - 1, 0, "largest file that fits refused"},
                {buf_sz, -ENOBUFS, "terminator written past the buffer"},
                {buf_sz + 10, -ENOBUFS, "long file cut silently"}};
    for (const auto &r : rows) {
        const std::string content(r.len, 'k');
        kes_test::write_file(dir.file("f"), content);
        char buf[buf_sz];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(bridge_utils_read_text_file_to_buf(dir.file("f").c_str(), buf, sizeof buf), r.rc) << r.fault;
        EXPECT_STREQ(buf, r.rc == 0 ? content.c_str() : "") << r.fault;
    }
    char buf[4];
    EXPECT_EQ(bridge_utils_read_text_file_to_buf(dir.file("none").c_str(), buf, sizeof buf), -ENOENT);
    EXPECT_EQ(bridge_utils_read_text_file_to_buf(dir.path().c_str(), buf, sizeof buf), -EISDIR);
}

TEST(Utils, WriteFileReplacesContentAndReportsErrno) {
    kes_test::TempDir dir;
    const std::string path = dir.file("out");
    EXPECT_EQ(bridge_utils_write_buf_to_file(path.c_str(), "0123456789", 10), 0);
    EXPECT_EQ(bridge_utils_write_buf_to_file(path.c_str(), "\0\xff", 2), 0);
    EXPECT_EQ(kes_test::read_file(path), std::string("\0\xff", 2)) << "old tail left behind";
    EXPECT_EQ(bridge_utils_write_buf_to_file(dir.file("no/dir").c_str(), "x", 1), -ENOENT);
    // A small write is buffered: a full disk shows only when the file is closed.
    EXPECT_EQ(bridge_utils_write_buf_to_file("/dev/full", "x", 1), -ENOSPC);
}

TEST(Utils, HexTextToBytes) {
    const struct {
        const char *text;
        size_t arr_sz;
        int rc;
        std::vector<uint8_t> bytes;
        const char *fault;
    } rows[] = {
        {"00ab7FFf", 4, 0, {0x00, 0xab, 0x7f, 0xff}, "case or high nibble lost"},
        {"", 0, 0, {}, "empty text refused"},
        {"abc", 8, -1, {}, "odd length accepted"},
        {"00ab", 1, -1, {}, "output overrun"},
        {"0g", 1, -1, {}, "half a digit taken as a byte"},
        {" 1", 1, -1, {}, "blank taken as a digit"},
        {"0011-2", 3, -1, {}, "bad pair after good ones accepted"},
    };
    for (const auto &r : rows) {
        std::vector<uint8_t> arr(r.arr_sz + 1, 0xEE); // one guard byte past the declared size
        EXPECT_EQ(bridge_utils_hexstring_to_array(r.text, arr.data(), r.arr_sz), r.rc) << r.fault;
        if (r.rc == 0) {
            EXPECT_EQ(std::vector<uint8_t>(arr.begin(), arr.begin() + r.bytes.size()), r.bytes) << r.fault;
        }
        EXPECT_EQ(arr[r.arr_sz], 0xEE) << r.fault;
    }
}

std::vector<uint8_t> decode(const std::string &text) {
    // exactly Base64decode_len bytes, so that a write past it shows under the sanitizers
    std::vector<uint8_t> out(static_cast<size_t>(Base64decode_len(text.c_str())), 0xEE);
    const int n = Base64decode(out.data(), text.c_str());
    EXPECT_EQ(out.at(static_cast<size_t>(n)), 0) << "terminator after the bytes";
    return {out.begin(), out.begin() + n};
}

TEST(Base64, RoundTripsEveryLengthWithAndWithoutPadding) {
    for (size_t len = 0; len <= 64; len++) {
        std::vector<uint8_t> data(len);
        for (size_t i = 0; i < len; i++)
            data[i] = static_cast<uint8_t>(i * 131 + len * 7 + 3);
        std::vector<char> text(static_cast<size_t>(Base64encode_len(static_cast<int>(len))));
        EXPECT_EQ(Base64encode(text.data(), data.data(), static_cast<int>(len)), static_cast<int>(text.size()));
        EXPECT_EQ(strlen(text.data()), (len + 2) / 3 * 4) << len;
        EXPECT_EQ(decode(text.data()), data) << len;
        const std::string bare(text.data(), strcspn(text.data(), "="));
        EXPECT_EQ(decode(bare), data) << len;
    }
}

TEST(Base64, KnownTextsAndWhereDecodingStops) {
    const struct {
        const char *text;
        const char *bytes;
        const char *fault;
    } rows[] = {
        {"Zm9vYmFy", "foobar", "wrong alphabet order"},
        {"+/8=", "\xfb\xff", "'+' and '/' swapped"},
        {"Zm8=garbage", "fo", "text after the padding decoded"},
        {"Zm9vY", "foo", "a lone trailing character made a byte"},
        {"-_-_", "", "URL-safe alphabet accepted"},
    };
    for (const auto &r : rows) {
        const std::vector<uint8_t> expected(r.bytes, r.bytes + strlen(r.bytes));
        EXPECT_EQ(decode(r.text), expected) << r.fault;
    }
}

} // namespace
