// The JSON field-frame codec: conversions, absence, sizes, nesting and writing.
#include <gtest/gtest.h>

#include <cstring>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

namespace {

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }
std::string plain(json_object *o) { return json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE); }

TEST(Json, ReadsOneFieldOrRefusesIt) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    constexpr uint32_t I = json_type_int, D = json_type_double, B = json_type_boolean, S = json_type_string;
    const struct { const char *json; uint32_t type, size; bool optional; const char *value; const char *fault; } rows[] = {
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
        EXPECT_EQ(bridge_json_deserialize(parse(std::string("{\"v\": ") + r.json + "}").get(), frame), r.value ? 0 : -1) << r.fault;
        if (!r.value) continue;
        const std::string got = r.type == I ? std::to_string(v.i) : r.type == D ? std::to_string(v.d).substr(0, 3)
                              : r.type == B ? std::to_string(v.b) : std::string(v.s);
        EXPECT_EQ(got, r.value) << r.fault;
        EXPECT_TRUE(r.type != S || v.s[strlen(r.value) + 1] == 'X') << "written past the terminator";
    }
}

TEST(Json, AbsenceAndNesting) {
    bridge_json_ptr obj = parse(R"({"a": 1, "o": {"x": 17}, "n": 5, "z": null})");
    int64_t a = 0, b = -1, x = 0, later = 0;
    bridge_json_field inner[] = {{"x", json_type_int, 0, &x, false}};
    const bridge_json_field present[] = {{"a", json_type_int, 0, &a, false}, {"b", json_type_int, 0, &b, true},
                                         {"o", json_type_object, 1, inner, false}, {"z", json_type_object, 1, inner, true}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), present), 0);
    EXPECT_TRUE(a == 1 && x == 17 && b == -1) << "an absent optional field is left untouched";
    const bridge_json_field failing[] = {{"n", json_type_object, 1, inner, false}, {"a", json_type_int, 0, &later, false}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), failing), -1) << "a number taken as an object";
    EXPECT_EQ(later, 0) << "fields after a failure are untouched";
    const bridge_json_field absent[] = {{"missing", json_type_int, 0, &a, false}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), absent), -1) << "a mandatory field may be missing";
}

TEST(Json, WritesEveryTypeInFrameOrderAndKeepsEarlierMembersOnFailure) {
    const bool yes = true;
    const double ratio = 1.5, freq = 1.0;
    const int64_t big = INT64_MIN, v = 3;
    const bridge_json_out_field inner[] = {{"v", json_type_int, 0, &v, nullptr}, {"bad", json_type_array, 0, &v, nullptr}};
    const bridge_json_out_field frame[] = {
        {"n", json_type_null, 0, nullptr, nullptr}, {"b", json_type_boolean, 0, &yes, nullptr},
        {"d", json_type_double, 0, &ratio, nullptr}, {"freq", json_type_double, 0, &freq, "868.100000"},
        {"i", json_type_int, 0, &big, nullptr}, {"s", json_type_string, 3, "a/b", nullptr},
        {"o", json_type_object, 1, inner, nullptr}, {"p", json_type_object, 2, inner, nullptr}};
    bridge_json_ptr obj(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(obj.get(), frame, 7), 0);
    EXPECT_EQ(plain(obj.get()), R"({"n":null,"b":true,"d":1.5,"freq":868.100000,"i":-9223372036854775808,"s":"a/b","o":{"v":3}})");
    bridge_json_ptr partial(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(partial.get(), frame + 4, 4), -1);
    EXPECT_EQ(plain(partial.get()), R"({"i":-9223372036854775808,"s":"a/b","o":{"v":3}})") << "a half-built sub-object was added";
}

} // namespace
