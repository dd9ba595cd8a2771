// Table-driven codec between json-c objects and program variables.
#include "common/bridge_json_helpers.h"

#include "common/bridge_health.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/bridge_utils.h"

namespace {

// json-c's integer getter never reports a failed conversion ("12abc" gives 12,
// "abc" gives 0). A value counts as an integer when it is a number, a boolean,
// null (0) or a string that is entirely one in-range decimal integer.
bool int_convertible(json_object *value) {
    switch (json_object_get_type(value)) {
    case json_type_object:
    case json_type_array:
        return false;
    case json_type_string: {
        const char *text = json_object_get_string(value);
        char *end = nullptr;
        errno = 0;
        (void)strtoll(text, &end, 10);
        return end != text && *end == '\0' && errno != ERANGE;
    }
    default:
        return true;
    }
}

// json-c's boolean getter accepts every value; a container holds no truth value.
bool bool_convertible(json_object *value) {
    const json_type t = json_object_get_type(value);
    return t != json_type_object && t != json_type_array;
}

// A bad mandatory field repeats with every bad datagram: WARN through the repeat limiter (one per
// call site), optional ones at TRACE. Both name the field.
#define FIELD_LOG(fld, text)                                                       \
    do {                                                                           \
        if ((fld)->optional)                                                       \
            LOG_TRACE(text ": %s", (fld)->name);                                   \
        else                                                                       \
            LOG_WARN_LIMITED(text ": %s", (fld)->name);                            \
    } while (0)

int read_field(json_object *obj, const bridge_json_field *fld) {
    json_object *value = nullptr;
    const bool found = json_object_object_get_ex(obj, fld->name, &value);
    // A JSON null for a nested object carries no members: treat it as absent.
    if (!found || (fld->type == json_type_object && value == nullptr)) {
        FIELD_LOG(fld, "unable to retrieve field");
        return fld->optional ? 0 : -1;
    }

    switch (fld->type) {
    case json_type_boolean: {
        const bool ok = bool_convertible(value);
        *static_cast<bool *>(fld->ptr) = ok && json_object_get_boolean(value) != 0;
        if (!ok) {
            FIELD_LOG(fld, "unable to fetch integer");
            return -1;
        }
        return 0;
    }
    case json_type_double:
        errno = 0;
        *static_cast<double *>(fld->ptr) = json_object_get_double(value);
        if (errno == EINVAL) {
            FIELD_LOG(fld, "unable to fetch double");
            return -1;
        }
        return 0;
    case json_type_int: {
        const bool ok = int_convertible(value);
        *static_cast<int64_t *>(fld->ptr) = ok ? json_object_get_int64(value) : 0;
        if (!ok) {
            FIELD_LOG(fld, "unable to fetch integer");
            return -1;
        }
        return 0;
    }
    case json_type_object: {
        const int rc = bridge_json_deserialize(value, static_cast<const bridge_json_field *>(fld->ptr), fld->size);
        return rc < 0 ? rc : 0;
    }
    case json_type_string: {
        const char *text = json_object_get_string(value);
        if (!text) {
            FIELD_LOG(fld, "unable to fetch string");
            return -1;
        }
        const size_t len = strlen(text);
        if (len >= fld->size) {
            LOG_WARN_LIMITED("not enough space for incoming string: %s", fld->name);
            return -1;
        }
        memcpy(fld->ptr, text, len);
        static_cast<char *>(fld->ptr)[len] = '\0';
        return 0;
    }
    default:
        LOG_ERROR("unknown json field type");
        return -1;
    }
}

int write_field(json_object *obj, const bridge_json_out_field *fld) {
    json_object *value = nullptr;
    switch (fld->type) {
    case json_type_null:
        break;
    case json_type_boolean:
        value = json_object_new_boolean(*static_cast<const bool *>(fld->ptr));
        break;
    case json_type_double: {
        const double d = *static_cast<const double *>(fld->ptr);
        value = fld->double_str ? json_object_new_double_s(d, fld->double_str) : json_object_new_double(d);
        break;
    }
    case json_type_int:
        value = json_object_new_int64(*static_cast<const int64_t *>(fld->ptr));
        break;
    case json_type_string:
        value = json_object_new_string(static_cast<const char *>(fld->ptr));
        break;
    case json_type_object: {
        value = json_object_new_object();
        if (!value) {
            LOG_ERROR("failed to create sub-object");
            return -1;
        }
        const int rc = bridge_json_serialize(value, static_cast<const bridge_json_out_field *>(fld->ptr), fld->size);
        if (rc < 0) {
            json_object_put(value);
            return rc;
        }
        break;
    }
    default:
        LOG_ERROR("unknown json field type");
        return -1;
    }
    if (!value && fld->type != json_type_null) {
        LOG_ERROR("failed to serialize field");
        return -1;
    }
    // json-c would corrupt memory when adding to anything but an object.
    if (!json_object_is_type(obj, json_type_object) || json_object_object_add(obj, fld->name, value) != 0) {
        json_object_put(value);
        LOG_ERROR("failed to serialize field");
        return -1;
    }
    return 0;
}

// The GNU strerror_r returns the text (maybe not in `buf`), the XSI one an error code.
[[maybe_unused]] const char *strerror_text(const char *gnu_result, const char *) {
    return gnu_result;
}
[[maybe_unused]] const char *strerror_text(int xsi_result, const char *buf) {
    return xsi_result == 0 ? buf : "Unknown error";
}

} // namespace

int bridge_json_deserialize(json_object *obj, const bridge_json_field *frame, uint32_t count) {
    BRIDGE_ASSERT(obj);
    BRIDGE_ASSERT(frame);
    BRIDGE_ASSERT(count);
    for (uint32_t i = 0; i < count; i++) {
        const bridge_json_field *fld = &frame[i];
        BRIDGE_ASSERT(fld->name);
        LOG_TRACE("reached field: %s", fld->name);
        const int rc = read_field(obj, fld);
        if (rc < 0)
            return rc;
    }
    return 0;
}

int bridge_json_serialize(json_object *obj, const bridge_json_out_field *frame, uint32_t count) {
    BRIDGE_ASSERT(obj);
    BRIDGE_ASSERT(frame);
    BRIDGE_ASSERT(count);
    for (uint32_t i = 0; i < count; i++) {
        const bridge_json_out_field *fld = &frame[i];
        BRIDGE_ASSERT(fld->name);
        LOG_TRACE("reached field: %s", fld->name);
        const int rc = write_field(obj, fld);
        if (rc < 0)
            return rc;
    }
    return 0;
}

int errnum_to_existing_json(const char *key, int errnum, json_object *existing) {
    BRIDGE_ASSERT(key);
    BRIDGE_ASSERT(existing);
    char buf[64] = "";
    const char *text = errnum == 0 ? "ok" : strerror_text(strerror_r(-errnum, buf, sizeof(buf)), buf);
    json_object *value = json_object_new_string(text);
    if (!value) {
        LOG_ERROR("failed to allocate JSON string for status string");
        return -1;
    }
    if (!json_object_is_type(existing, json_type_object) || json_object_object_add(existing, key, value) != 0) {
        json_object_put(value);
        LOG_ERROR("failed to allocate JSON string for status string");
        return -1;
    }
    return 0;
}
