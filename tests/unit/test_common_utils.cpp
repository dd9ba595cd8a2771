// Text file and Base64 helpers (CRC-32: the CUPS exchange against an independent CRC; hex texts: the
// downlink translator; EUI texts: the frame parser).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/base64.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

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
