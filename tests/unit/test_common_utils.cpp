// CRC-32, text file, hex and Base64 helpers (EUI and hex texts of frames: the frame parser's tests).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/base64.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

TEST(UtilsTest, Crc32IsTheStandardOneAndChains) {
    const std::string blob(1000, '\xa5');
    EXPECT_EQ(bridge_utils_calculate_crc32(bridge_utils_calculate_crc32(0, "1234", 4), "56789", 5), 0xCBF43926U);
    EXPECT_EQ(bridge_utils_calculate_crc32(0, blob.data(), blob.size()), kes_test::reference_crc32(blob));
}

TEST(UtilsTest, ReadTextFileFillsAtMostAllButTheTerminator) {
    kes_test::TempDir dir;
    const struct { size_t len; std::string path; int rc; const char *fault; } rows[] = {
        {0, dir.file("f"), 0, "empty file refused"}, {15, dir.file("f"), 0, "largest file that fits refused"},
        {16, dir.file("f"), -ENOBUFS, "terminator written past the buffer"},
        {26, dir.file("f"), -ENOBUFS, "long file cut silently"},
        {0, dir.file("none"), -ENOENT, "errno lost"}, {0, dir.path(), -EISDIR, "a folder read as a file"}};
    for (const auto &r : rows) {
        kes_test::write_file(dir.file("f"), std::string(r.len, 'k'));
        char buf[16];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(bridge_utils_read_text_file_to_buf(r.path.c_str(), buf, sizeof buf), r.rc) << r.fault;
        EXPECT_TRUE(r.rc != 0 || std::string(buf) == std::string(r.len, 'k')) << r.fault;
        EXPECT_TRUE(r.rc != -ENOBUFS || buf[0] == 0) << "a cut text left in the buffer";
    }
}

TEST(UtilsTest, HexTextToBytes) {
    const struct { const char *text; size_t arr_sz; int rc; std::vector<uint8_t> bytes; const char *fault; } rows[] = {
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
        EXPECT_TRUE(r.rc != 0 || std::equal(r.bytes.begin(), r.bytes.end(), arr.begin())) << r.fault;
        EXPECT_EQ(arr[r.arr_sz], 0xEE) << r.fault;
    }
}

// Exactly Base64decode_len bytes, so that a write past it shows under the sanitizers.
std::string decode(const std::string &text) {
    std::vector<unsigned char> out(static_cast<size_t>(Base64decode_len(text.c_str())), 'X');
    const int n = Base64decode(out.data(), text.c_str());
    EXPECT_EQ(out.at(static_cast<size_t>(n)), 0) << "no terminator after the bytes";
    return {out.begin(), out.begin() + n};
}

TEST(Base64Test, RoundTripsEveryLengthWithAndWithoutPadding) {
    for (size_t len = 0; len <= 64; len++) {
        std::string data(len, 0);
        for (size_t i = 0; i < len; i++) data[i] = static_cast<char>(i * 131 + len * 7 + 3);
        std::vector<char> text(static_cast<size_t>(Base64encode_len(static_cast<int>(len))));
        const auto *bytes = reinterpret_cast<const unsigned char *>(data.data());
        EXPECT_EQ(Base64encode(text.data(), bytes, static_cast<int>(len)), static_cast<int>(text.size()));
        EXPECT_EQ(strlen(text.data()), (len + 2) / 3 * 4) << len;
        EXPECT_EQ(decode(text.data()), data) << len;
        EXPECT_EQ(decode(std::string(text.data(), strcspn(text.data(), "="))), data) << "unpadded, " << len;
    }
}

TEST(Base64Test, KnownTextsAndWhereDecodingStops) {
    const struct { const char *text, *bytes, *fault; } rows[] = {
        {"Zm9vYmFy", "foobar", "wrong alphabet order"},
        {"+/8=", "\xfb\xff", "'+' and '/' swapped"},
        {"Zm8=garbage", "fo", "text after the padding decoded"},
        {"Zm9vY", "foo", "a lone trailing character made a byte"},
        {"-_-_", "", "URL-safe alphabet accepted"},
    };
    for (const auto &r : rows) EXPECT_EQ(decode(r.text), r.bytes) << r.fault;
}

} // namespace
