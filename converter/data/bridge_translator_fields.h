// Field-frame record builders shared by the translators (internal).
#pragma once

#include <cstring>

#include "common/bridge_json_helpers.h"

namespace bridge_translator_fields {

inline bridge_json_field in_int(const char *name, int64_t *v, bool optional = false) {
    return {name, json_type_int, 0, v, optional};
}
inline bridge_json_field in_double(const char *name, double *v) {
    return {name, json_type_double, 0, v, false};
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

} // namespace bridge_translator_fields
