// Table-driven codec between json-c objects and program variables.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <json-c/json.h>

// Describes one member to read. `type` is a json_type value.
struct bridge_json_field {
    const char *name;
    uint32_t type;
    uint32_t size;   // string: destination capacity incl. terminator; object: nested record count
    void *ptr;       // destination, or nested bridge_json_field frame
    bool optional;   // absent key is skipped; conversion messages drop to TRACE
};

// Describes one member to write. `type` is a json_type value.
struct bridge_json_out_field {
    const char *name;
    uint32_t type;
    uint32_t size;          // object: nested record count; string: length (not read)
    const void *ptr;        // source value, or nested bridge_json_out_field frame
    const char *double_str; // double only: exact printed form, or NULL for json-c's default
};

int bridge_json_deserialize(json_object *obj, const bridge_json_field *frame, uint32_t count);
int bridge_json_serialize(json_object *obj, const bridge_json_out_field *frame, uint32_t count);
int errnum_to_existing_json(const char *key, int errnum, json_object *existing);

// Owner of one json-c reference.
struct bridge_json_put {
    void operator()(json_object *o) const { if (o) json_object_put(o); }
};
using bridge_json_ptr = std::unique_ptr<json_object, bridge_json_put>;

template <size_t N>
int bridge_json_deserialize(json_object *obj, const bridge_json_field (&frame)[N]) {
    return bridge_json_deserialize(obj, frame, static_cast<uint32_t>(N));
}
template <size_t N>
int bridge_json_serialize(json_object *obj, const bridge_json_out_field (&frame)[N]) {
    return bridge_json_serialize(obj, frame, static_cast<uint32_t>(N));
}

// Builders for field-frame records, so that a frame reads as a list of members.
namespace bridge_json_fields {

inline bridge_json_field in_int(const char *name, int64_t *v, bool optional = false) {
    return {name, json_type_int, 0, v, optional};
}
inline bridge_json_field in_double(const char *name, double *v, bool optional = false) {
    return {name, json_type_double, 0, v, optional};
}
template <size_t N>
bridge_json_field in_string(const char *name, char (&buf)[N], bool optional = false) {
    return {name, json_type_string, static_cast<uint32_t>(N), buf, optional};
}

inline bridge_json_out_field out_int(const char *name, const int64_t *v) {
    return {name, json_type_int, 0, v, nullptr};
}
inline bridge_json_out_field out_bool(const char *name, const bool *v) {
    return {name, json_type_boolean, 0, v, nullptr};
}
inline bridge_json_out_field out_string(const char *name, const char *s) {
    return {name, json_type_string, static_cast<uint32_t>(strlen(s)), s, nullptr};
}

} // namespace bridge_json_fields
