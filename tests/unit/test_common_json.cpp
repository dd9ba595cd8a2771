// The JSON field-frame codec: conversions, failures, nesting and writing.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

bool contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

bridge_json_ptr parse(const std::string &text) {
    bridge_json_ptr obj(json_tokener_parse(text.c_str()));
    EXPECT_NE(obj, nullptr) << text;
    return obj;
}

std::string plain(json_object *obj) {
    return json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

class JsonTest : public ::testing::Test {
protected:
    void SetUp() override { bridge_log_init(BRIDGE_LOG_INFO, true); }
    void TearDown() override { bridge_log_init(BRIDGE_LOG_INFO, true); }

    // Reads {"v": <value>} through one field; returns the result and keeps the log.
    int read_one(const std::string &value, uint32_t type, void *ptr, uint32_t size = 0, bool optional = false) {
        bridge_json_ptr obj = parse("{\"v\": " + value + "}");
        const bridge_json_field frame[] = {{"v", type, size, ptr, optional}};
        kes_test::StderrCapture cap;
        const int rc = bridge_json_deserialize(obj.get(), frame);
        log = cap.stop();
        return rc;
    }

    std::string log;
};

// ---- reading ---------------------------------------------------------------

TEST_F(JsonTest, IntegerConversions) {
    const struct {
        const char *json;
        int rc;
        int64_t value;
    } rows[] = {
        {"5", 0, 5},
        {"-7", 0, -7},
        {"9223372036854775807", 0, INT64_MAX},
        {"5.9", 0, 5},                // json-c truncates a double
        {"-2.5", 0, -2},
        {"true", 0, 1},
        {"false", 0, 0},
        {"null", 0, 0},               // present, not skipped
        {"\"42\"", 0, 42},            // numeric string
        {"\"-3\"", 0, -3},
        {"\"12abc\"", -1, 0},         // json-c alone would give 12
        {"\"abc\"", -1, 0},
        {"\"\"", -1, 0},
        {"\"99999999999999999999\"", -1, 0},
        {"{}", -1, 0},
        {"[1]", -1, 0},
    };
    for (const auto &r : rows) {
        int64_t v = 777;
        EXPECT_EQ(read_one(r.json, json_type_int, &v), r.rc) << r.json;
        EXPECT_EQ(v, r.value) << r.json;
        EXPECT_EQ(contains(log, "[WARN  ]") && contains(log, "unable to fetch integer\n"), r.rc != 0) << r.json;
    }
}

TEST_F(JsonTest, DoubleConversions) {
    const struct {
        const char *json;
        int rc;
        double value;
    } rows[] = {
        {"1.5", 0, 1.5},   {"3", 0, 3.0},     {"true", 0, 1.0}, {"null", 0, 0.0},
        {"\"2.5\"", 0, 2.5}, {"\"x\"", -1, 0.0}, {"{}", -1, 0.0},  {"[]", -1, 0.0},
    };
    for (const auto &r : rows) {
        double v = 99.0;
        EXPECT_EQ(read_one(r.json, json_type_double, &v), r.rc) << r.json;
        EXPECT_EQ(v, r.value) << r.json;
        EXPECT_EQ(contains(log, "unable to fetch double\n"), r.rc != 0) << r.json;
    }
}

TEST_F(JsonTest, BooleanConversions) {
    const struct {
        const char *json;
        int rc;
        bool value;
    } rows[] = {
        {"true", 0, true}, {"false", 0, false}, {"0", 0, false}, {"2", 0, true},  {"0.0", 0, false},
        {"null", 0, false}, {"\"x\"", 0, true}, {"\"\"", 0, false}, {"{}", -1, false}, {"[true]", -1, false},
    };
    for (const auto &r : rows) {
        bool v = !r.value;
        EXPECT_EQ(read_one(r.json, json_type_boolean, &v), r.rc) << r.json;
        EXPECT_EQ(v, r.value) << r.json;
        EXPECT_EQ(contains(log, "unable to fetch integer\n"), r.rc != 0) << r.json;
    }
}

TEST_F(JsonTest, StringsTakeJsonTextOfOtherValuesAndRespectTheSize) {
    const struct {
        const char *json;
        uint32_t size;
        bool optional;
        int rc;
        const char *value;
        const char *message;
    } rows[] = {
        {"\"abc\"", 4, false, 0, "abc", nullptr},                       // size - 1 bytes fit
        {"\"abcd\"", 4, false, -1, nullptr, "[WARN  ]"},                // size bytes do not
        {"\"abcd\"", 4, true, -1, nullptr, "not enough space for incoming string"},
        {"\"\"", 1, false, 0, "", nullptr},
        {"\"a\"", 1, false, -1, nullptr, "not enough space for incoming string"},
        {"5", 4, false, 0, "5", nullptr},
        {"true", 8, false, 0, "true", nullptr},
        {"null", 8, false, -1, nullptr, "unable to fetch string"},
    };
    for (const auto &r : rows) {
        char buf[16];
        memset(buf, 'X', sizeof(buf));
        EXPECT_EQ(read_one(r.json, json_type_string, buf, r.size, r.optional), r.rc) << r.json;
        if (r.value) {
            EXPECT_STREQ(buf, r.value) << r.json;
            EXPECT_EQ(buf[strlen(r.value) + 1], 'X') << "nothing written past the terminator";
        }
        if (r.message) {
            EXPECT_TRUE(contains(log, r.message)) << r.json << ": " << log;
        }
    }
    // Optional lowers conversion messages to TRACE, except the size refusal.
    char buf[8];
    EXPECT_EQ(read_one("null", json_type_string, buf, sizeof(buf), true), -1);
    EXPECT_EQ(log, "");
    EXPECT_EQ(read_one("\"toolongtext\"", json_type_string, buf, sizeof(buf), true), -1);
    EXPECT_TRUE(contains(log, "[WARN  ]") && contains(log, "not enough space for incoming string\n")) << log;
}

TEST_F(JsonTest, AbsentFieldsAndPartialFilling) {
    bridge_json_ptr obj = parse(R"({"a": 1, "c": "x", "e": 5})");
    int64_t a = 0, b = -1, e = 0;
    char c[4] = "";
    int64_t d = 123;
    const bridge_json_field optional_absent[] = {
        {"a", json_type_int, 0, &a, false},
        {"b", json_type_int, 0, &b, true},
        {"c", json_type_string, sizeof(c), c, false},
    };
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), optional_absent), 0);
    EXPECT_EQ(cap.stop(), "") << "optional absence is only traced";
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, -1) << "untouched";
    EXPECT_STREQ(c, "x");

    a = 0;
    const bridge_json_field mandatory_absent[] = {
        {"a", json_type_int, 0, &a, false},
        {"d", json_type_int, 0, &d, false},
        {"e", json_type_int, 0, &e, false},
    };
    kes_test::StderrCapture cap2;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), mandatory_absent), -1);
    const std::string log2 = cap2.stop();
    EXPECT_TRUE(contains(log2, "[WARN  ]") && contains(log2, "unable to retrieve field\n")) << log2;
    EXPECT_EQ(a, 1) << "fields before the failure are written";
    EXPECT_EQ(d, 123);
    EXPECT_EQ(e, 0) << "fields after the failure are untouched";

    // The trace names each field reached.
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    kes_test::StderrCapture cap3;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), mandatory_absent), -1);
    const std::string log3 = cap3.stop();
    EXPECT_TRUE(contains(log3, "reached field: a\n") && contains(log3, "reached field: d\n"));
    EXPECT_FALSE(contains(log3, "reached field: e\n"));
}

TEST_F(JsonTest, UnsupportedReadTypes) {
    for (uint32_t type : {static_cast<uint32_t>(json_type_null), static_cast<uint32_t>(json_type_array), 99u}) {
        int64_t v = 0;
        EXPECT_EQ(read_one("[1]", type, &v), -1) << type;
        EXPECT_TRUE(contains(log, "[ERROR ]") && contains(log, "unknown json field type\n")) << type;
    }
}

TEST_F(JsonTest, NestedObjects) {
    int64_t x = 0;
    char name[8] = "";
    int64_t opt = -5;
    const bridge_json_field inner[] = {
        {"x", json_type_int, 0, &x, false},
        {"name", json_type_string, sizeof(name), name, false},
    };
    const bridge_json_field optional_inner[] = {{"x", json_type_int, 0, &opt, true}};

    bridge_json_ptr obj = parse(R"({"o": {"x": 17, "name": "gw"}, "n": 5, "s": "text", "z": null})");
    const bridge_json_field frame[] = {{"o", json_type_object, 2, const_cast<bridge_json_field *>(inner), false}};
    EXPECT_EQ(bridge_json_deserialize(obj.get(), frame), 0);
    EXPECT_EQ(x, 17);
    EXPECT_STREQ(name, "gw");

    // A number or a string in place of the object: its members count as absent.
    for (const char *key : {"n", "s"}) {
        const bridge_json_field mandatory[] = {{key, json_type_object, 2, const_cast<bridge_json_field *>(inner), false}};
        kes_test::StderrCapture cap;
        EXPECT_EQ(bridge_json_deserialize(obj.get(), mandatory), -1) << key;
        EXPECT_TRUE(contains(cap.stop(), "unable to retrieve field")) << key;
        const bridge_json_field only_optional[] = {
            {key, json_type_object, 1, const_cast<bridge_json_field *>(optional_inner), false}};
        EXPECT_EQ(bridge_json_deserialize(obj.get(), only_optional), 0) << key;
        EXPECT_EQ(opt, -5);
    }

    // A JSON null in place of the object counts as absent, without an assertion.
    const bridge_json_field null_optional[] = {{"z", json_type_object, 2, const_cast<bridge_json_field *>(inner), true}};
    x = 99;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), null_optional), 0);
    EXPECT_EQ(x, 99);
    const bridge_json_field null_mandatory[] = {{"z", json_type_object, 2, const_cast<bridge_json_field *>(inner), false}};
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_json_deserialize(obj.get(), null_mandatory), -1);
    const std::string log_null = cap.stop();
    EXPECT_TRUE(contains(log_null, "[WARN  ]") && contains(log_null, "unable to retrieve field\n")) << log_null;

    // A failure inside the nested frame is the caller's failure.
    bridge_json_ptr bad = parse(R"({"o": {"x": "nope", "name": "gw"}})");
    EXPECT_EQ(bridge_json_deserialize(bad.get(), frame), -1);

    // An object that is not a JSON object has no members at all.
    bridge_json_ptr arr = parse("[1, 2]");
    const bridge_json_field top_optional[] = {{"x", json_type_int, 0, &opt, true}};
    EXPECT_EQ(bridge_json_deserialize(arr.get(), top_optional), 0);
}

// ---- writing ---------------------------------------------------------------

TEST_F(JsonTest, SerializeEveryTypeInFrameOrder) {
    const bool yes = true;
    const double ratio = 1.5;
    const double freq = 1.0; // the printed text is double_str, whatever the value
    const int64_t big = INT64_MIN;
    const char *text = "a/b \"q\"";
    const int64_t inner_v = 3;
    const bridge_json_out_field inner[] = {{"v", json_type_int, 0, &inner_v, nullptr}};
    const bridge_json_out_field frame[] = {
        {"n", json_type_null, 0, nullptr, nullptr},
        {"b", json_type_boolean, 0, &yes, nullptr},
        {"d", json_type_double, 0, &ratio, nullptr},
        {"freq", json_type_double, 0, &freq, "868.100000"},
        {"i", json_type_int, 0, &big, nullptr},
        {"s", json_type_string, static_cast<uint32_t>(strlen(text)), text, nullptr},
        {"o", json_type_object, 1, inner, nullptr},
    };
    bridge_json_ptr obj(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(obj.get(), frame), 0);
    EXPECT_EQ(plain(obj.get()), R"({"n":null,"b":true,"d":1.5,"freq":868.100000,"i":-9223372036854775808,)"
                                R"("s":"a/b \"q\"","o":{"v":3}})");

    // A key already present is replaced in place.
    const int64_t seven = 7;
    const bridge_json_out_field again[] = {{"b", json_type_int, 0, &seven, nullptr}};
    EXPECT_EQ(bridge_json_serialize(obj.get(), again), 0);
    EXPECT_EQ(plain(obj.get()).substr(0, 20), R"({"n":null,"b":7,"d":)");
}

TEST_F(JsonTest, SerializeFailuresKeepEarlierMembers) {
    const int64_t one = 1;
    for (uint32_t type : {static_cast<uint32_t>(json_type_array), 42u}) {
        const bridge_json_out_field frame[] = {
            {"first", json_type_int, 0, &one, nullptr},
            {"second", type, 0, &one, nullptr},
            {"third", json_type_int, 0, &one, nullptr},
        };
        bridge_json_ptr obj(json_object_new_object());
        kes_test::StderrCapture cap;
        EXPECT_EQ(bridge_json_serialize(obj.get(), frame), -1);
        const std::string log_w = cap.stop();
        EXPECT_TRUE(contains(log_w, "[ERROR ]") && contains(log_w, "unknown json field type\n")) << log_w;
        EXPECT_EQ(plain(obj.get()), R"({"first":1})");
    }

    // A failing nested frame adds nothing under its key (the sub-object is released).
    const bridge_json_out_field bad_inner[] = {
        {"ok", json_type_int, 0, &one, nullptr},
        {"bad", json_type_array, 0, &one, nullptr},
    };
    const bridge_json_out_field frame[] = {
        {"first", json_type_int, 0, &one, nullptr},
        {"o", json_type_object, 2, bad_inner, nullptr},
    };
    bridge_json_ptr obj(json_object_new_object());
    EXPECT_EQ(bridge_json_serialize(obj.get(), frame), -1);
    EXPECT_EQ(plain(obj.get()), R"({"first":1})");

    // Only a JSON object can take members.
    bridge_json_ptr arr(json_object_new_array());
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_json_serialize(arr.get(), frame), -1);
    EXPECT_TRUE(contains(cap.stop(), "failed to serialize field\n"));
    EXPECT_EQ(json_object_array_length(arr.get()), 0u);
}

TEST_F(JsonTest, ErrnumStatusText) {
    bridge_json_ptr obj(json_object_new_object());
    EXPECT_EQ(errnum_to_existing_json("status", 0, obj.get()), 0);
    EXPECT_EQ(plain(obj.get()), R"({"status":"ok"})");
    EXPECT_EQ(errnum_to_existing_json("other", -EACCES, obj.get()), 0);
    EXPECT_EQ(errnum_to_existing_json("status", -ENOENT, obj.get()), 0);
    EXPECT_EQ(plain(obj.get()), R"({"status":"No such file or directory","other":"Permission denied"})");
    EXPECT_EQ(errnum_to_existing_json("odd", -100000, obj.get()), 0);
    EXPECT_TRUE(contains(plain(obj.get()), R"("odd":"Unknown error 100000")")) << plain(obj.get());

    bridge_json_ptr arr(json_object_new_array());
    EXPECT_EQ(errnum_to_existing_json("status", 0, arr.get()), -1);
}

// ---- preconditions ---------------------------------------------------------

void expect_assert(void (*call)(), const char *text) {
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            call();
        },
        ::testing::KilledBySignal(SIGABRT), std::string("Assertion failed: \\( ") + text + " \\) in ")
        << text;
}

TEST_F(JsonTest, PreconditionsAbort) {
    expect_assert([] {
        int64_t v;
        const bridge_json_field f[] = {{"v", json_type_int, 0, &v, false}};
        bridge_json_deserialize(nullptr, f);
    }, "obj");
    expect_assert([] {
        bridge_json_ptr o(json_object_new_object());
        bridge_json_deserialize(o.get(), nullptr, 1);
    }, "frame");
    expect_assert([] {
        bridge_json_ptr o(json_object_new_object());
        int64_t v;
        const bridge_json_field f[] = {{"v", json_type_int, 0, &v, false}};
        bridge_json_deserialize(o.get(), f, 0);
    }, "count");
    expect_assert([] {
        bridge_json_ptr o(json_object_new_object());
        int64_t v;
        const bridge_json_field f[] = {{nullptr, json_type_int, 0, &v, false}};
        bridge_json_deserialize(o.get(), f);
    }, "fld->name");
    expect_assert([] {
        const int64_t v = 1;
        const bridge_json_out_field f[] = {{"v", json_type_int, 0, &v, nullptr}};
        bridge_json_serialize(nullptr, f);
    }, "obj");
    expect_assert([] {
        bridge_json_ptr o(json_object_new_object());
        const int64_t v = 1;
        const bridge_json_out_field f[] = {{nullptr, json_type_int, 0, &v, nullptr}};
        bridge_json_serialize(o.get(), f);
    }, "fld->name");
    expect_assert([] {
        bridge_json_ptr o(json_object_new_object());
        errnum_to_existing_json(nullptr, 0, o.get());
    }, "key");
    expect_assert([] { errnum_to_existing_json("k", 0, nullptr); }, "existing");
}

} // namespace
