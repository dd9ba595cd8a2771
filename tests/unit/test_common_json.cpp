// The JSON field-frame codec: conversions, absence, sizes, nesting and writing.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

namespace {

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

std::string plain(json_object *obj) {
    return json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// Reads {"v": <json>} through one field.
int read_one(const char *json, uint32_t type, void *ptr, uint32_t size = 0, bool optional = false) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    bridge_json_ptr obj = parse(std::string("{\"v\": ") + json + "}");
    const bridge_json_field frame[] = {{"v", type, size, ptr, optional}};
    return bridge_json_deserialize(obj.get(), frame);
}

TEST(Json, NumberConversions) {
    const struct {
        const char *json;
        int rc;
        int64_t value;
        const char *fault;
    } ints[] = {
        {"9223372036854775807", 0, INT64_MAX, "64-bit value narrowed"},
        {"-2.5", 0, -2, "double not truncated toward zero"},
        {"\"-3\"", 0, -3, "numeric string refused"},
        {"\"12abc\"", -1, 0, "trailing garbage accepted (json-c alone gives 12)"},
        {"\"\"", -1, 0, "empty string taken as 0"},
        {"\"99999999999999999999\"", -1, 0, "overflowing string accepted"},
        {"{}", -1, 0, "object taken as a number"},
    };
    for (const auto &r : ints) {
        int64_t v = 777;
        EXPECT_EQ(read_one(r.json, json_type_int, &v), r.rc) << r.fault;
        EXPECT_EQ(v, r.value) << r.fault;
    }
    double d = 0;
    EXPECT_EQ(read_one("\"2.5\"", json_type_double, &d), 0);
    EXPECT_EQ(d, 2.5);
    EXPECT_EQ(read_one("\"x\"", json_type_double, &d), -1) << "non-numeric text taken as a double";
    bool b = false;
    EXPECT_EQ(read_one("2", json_type_boolean, &b), 0);
    EXPECT_TRUE(b);
    EXPECT_EQ(read_one("[true]", json_type_boolean, &b), -1) << "array taken as a bool";
}

TEST(Json, StringsFitTheirBufferOrFail) {
    const struct {
        const char *json;
        uint32_t size;
        bool optional;
        const char *value; // null: refused
        const char *fault;
    } rows[] = {
        {"\"abc\"", 4, false, "abc", "size - 1 characters refused"},
        {"\"abcd\"", 4, false, nullptr, "overflow of the buffer"},
        {"\"abcd\"", 4, true, nullptr, "optional field cut instead of refused"},
        {"5", 4, false, "5", "number not taken as its text"},
        {"null", 8, false, nullptr, "null taken as a text"},
    };
    for (const auto &r : rows) {
        char buf[8];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(read_one(r.json, json_type_string, buf, r.size, r.optional), r.value ? 0 : -1) << r.fault;
        if (r.value) {
            EXPECT_STREQ(buf, r.value) << r.fault;
            EXPECT_EQ(buf[strlen(r.value) + 1], 'X') << "written past the terminator";
        }
    }
}

TEST(Json, AbsenceAndNesting) {
    bridge_json_ptr obj = parse(R"({"a": 1, "o": {"x": 17}, "n": 5, "z": null})");
    int64_t a = 0, b = -1, x = 0, later = 0;
    const bridge_json_field inner[] = {{"x", json_type_int, 0, &x, false}};
    const bridge_json_field optional_absent[] = {{"a", json_type_int, 0, &a, false},
                                                 {"b", json_type_int, 0, &b, true},
                                                 {"o", json_type_object, 1, const_cast<bridge_json_field *>(inner), false},
                                                 {"z", json_type_object, 1, const_cast<bridge_json_field *>(inner), true}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), optional_absent), 0);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, -1) << "an absent optional field is left untouched";
    EXPECT_EQ(x, 17);
    const bridge_json_field failing[] = {{"n", json_type_object, 1, const_cast<bridge_json_field *>(inner), false},
                                         {"a", json_type_int, 0, &later, false}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), failing), -1) << "a number taken as an object";
    EXPECT_EQ(later, 0) << "fields after a failure are untouched";
    const bridge_json_field mandatory_absent[] = {{"missing", json_type_int, 0, &a, false}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), mandatory_absent), -1);
}

TEST(Json, WritesEveryTypeInFrameOrderAndKeepsEarlierMembersOnFailure) {
    const bool yes = true;
    const double ratio = 1.5, freq = 1.0;
    const int64_t big = INT64_MIN, inner_v = 3;
    const bridge_json_out_field inner[] = {{"v", json_type_int, 0, &inner_v, nullptr}};
    const bridge_json_out_field frame[] = {
        {"n", json_type_null, 0, nullptr, nullptr},  {"b", json_type_boolean, 0, &yes, nullptr},
        {"d", json_type_double, 0, &ratio, nullptr}, {"freq", json_type_double, 0, &freq, "868.100000"},
        {"i", json_type_int, 0, &big, nullptr},      {"s", json_type_string, 3, "a/b", nullptr},
        {"o", json_type_object, 1, inner, nullptr},
    };
    bridge_json_ptr obj(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(obj.get(), frame), 0);
    EXPECT_EQ(plain(obj.get()),
              R"({"n":null,"b":true,"d":1.5,"freq":868.100000,"i":-9223372036854775808,"s":"a/b","o":{"v":3}})");

    const bridge_json_out_field bad_inner[] = {{"ok", json_type_int, 0, &inner_v, nullptr},
                                               {"bad", json_type_array, 0, &inner_v, nullptr}};
    const bridge_json_out_field failing[] = {{"first", json_type_int, 0, &inner_v, nullptr},
                                             {"o", json_type_object, 2, bad_inner, nullptr}};
    bridge_json_ptr partial(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(partial.get(), failing), -1);
    EXPECT_EQ(plain(partial.get()), R"({"first":3})") << "a half-built sub-object was added";
}

} // namespace
