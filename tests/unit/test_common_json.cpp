// Reading one field through a JSON field frame: conversions and sizes (absent fields and writing: the translator
// tests).
#include <gtest/gtest.h>

#include <cstring>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

namespace {

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

TEST(Json, ReadsOneFieldOrRefusesIt) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    constexpr uint32_t I = json_type_int, D = json_type_double, B = json_type_boolean, S = json_type_string;
    const struct { const char *json; uint32_t type, size; bool optional; const char *value, *fault; } rows[] = {
        {"9223372036854775807", I, 0, false, "9223372036854775807", "64-bit value narrowed"},
        {"-2.5", I, 0, false, "-2", "double not truncated toward zero"},
        {"\"-3\"", I, 0, false, "-3", "numeric string refused"},
        {"\"12abc\"", I, 0, false, nullptr, "trailing garbage accepted (json-c alone gives 12)"},
        {"\"\"", I, 0, false, nullptr, "empty string taken as 0"},
        {"\"99999999999999999999\"", I, 0, false, nullptr, "overflowing string accepted"},
        {"{}", I, 0, false, nullptr, "object taken as a number"},
        {"\"2.5\"", D, 0, false, "2.5", "numeric string refused as a double"},
        {"\"x\"", D, 0, false, nullptr, "non-numeric text taken as a double"},
        {"2", B, 0, false, "1", "number not taken as a bool"},
        {"[true]", B, 0, false, nullptr, "array taken as a bool"},
        {"\"abc\"", S, 4, false, "abc", "size - 1 characters refused"},
        {"\"abcd\"", S, 4, false, nullptr, "overflow of the buffer"},
        {"\"abcd\"", S, 4, true, nullptr, "optional field cut instead of refused"},
        {"5", S, 4, false, "5", "number not taken as its text"},
        {"null", S, 8, false, nullptr, "null taken as a text"},
    };
    for (const auto &r : rows) {
        union { int64_t i; double d; bool b; char s[8]; } v;
        memset(&v, 'X', sizeof v);
        const bridge_json_field frame[] = {{"v", r.type, r.size, &v, r.optional}};
        const int rc = bridge_json_deserialize(parse(std::string("{\"v\": ") + r.json + "}").get(), frame);
        EXPECT_EQ(rc, r.value ? 0 : -1) << r.fault;
        if (rc != 0 || !r.value) continue;
        EXPECT_EQ(r.type == I ? std::to_string(v.i) : r.type == D ? std::to_string(v.d).substr(0, 3)
                  : r.type == B ? std::to_string(v.b) : std::string(v.s), r.value) << r.fault;
        EXPECT_TRUE(r.type != S || v.s[strlen(r.value) + 1] == 'X') << "written past the terminator";
    }
}

} // namespace
