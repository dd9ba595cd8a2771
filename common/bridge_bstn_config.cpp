// The daemon's TOML configuration, loaded once into one process-wide record.
#include "common/bridge_bstn_config.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <cctype>
#include <exception>
#include <string>
#include <string_view>
#include <toml++/toml.h>

#include "common/bridge_utils.h"

namespace {

bridge_cfg_root cfg_root;

constexpr bridge_cfg_entry text_entry(char *field, const char *key) {
    return {BRIDGE_CFG_TYPE_STR, {.str_ptr = field}, static_cast<uint32_t>(BRIDGE_CFG_STR_SZ), nullptr, key};
}

constexpr std::array<bridge_cfg_entry, 7> general_entries = {{
    text_entry(cfg_root.general.gw_eui, "gw_eui"),
    text_entry(cfg_root.general.name, "name"),
    text_entry(cfg_root.general.model, "model"),
    text_entry(cfg_root.general.package, "package"),
    text_entry(cfg_root.general.fw_version, "fw_version"),
    {BRIDGE_CFG_TYPE_BOOL, {.bool_ptr = &cfg_root.general.skip_cups}, 0, nullptr, "skip_cups"},
    {BRIDGE_CFG_TYPE_INT, {.int_ptr = &cfg_root.general.summary_interval}, 0, nullptr, "summary_interval"},
}};

constexpr std::array<bridge_cfg_entry, 9> creds_entries(bridge_cfg_creds &c, bool *allow_self_signed) {
    return {{
        text_entry(c.uri, "uri"),
        text_entry(c.uri_backup, "uri_backup"),
        text_entry(c.trust, "trust"),
        text_entry(c.trust_backup, "trust_backup"),
        text_entry(c.cert, "cert"),
        text_entry(c.cert_backup, "cert_backup"),
        text_entry(c.key, "key"),
        text_entry(c.key_backup, "key_backup"),
        {BRIDGE_CFG_TYPE_BOOL, {.bool_ptr = allow_self_signed}, 0, nullptr, "allow_self_signed"},
    }};
}

// allow_self_signed is an LNS choice only: the CUPS table stops before it.
constexpr std::array<bridge_cfg_entry, 9> cups_entries = creds_entries(cfg_root.cups, nullptr);
constexpr std::array<bridge_cfg_entry, 9> lns_entries = creds_entries(cfg_root.lns, &cfg_root.lns_opts.allow_self_signed);

constexpr std::array<bridge_cfg_entry, 2> semtech_entries = {{
    {BRIDGE_CFG_TYPE_INT, {.int_ptr = &cfg_root.semtech.bind_port}, 0, nullptr, "bind_port"},
    text_entry(cfg_root.semtech.bind_address, "bind_address"),
}};

constexpr std::array<bridge_cfg_section, 4> cfg_sections = {{
    {"general", general_entries.data(), static_cast<uint32_t>(general_entries.size())},
    {"cups", cups_entries.data(), static_cast<uint32_t>(cups_entries.size() - 1)},
    {"lns", lns_entries.data(), static_cast<uint32_t>(lns_entries.size())},
    {"semtech", semtech_entries.data(), static_cast<uint32_t>(semtech_entries.size())},
}};

// Integers whose range the loader checks, so that a bad value stops the start instead of
// failing later at every restart (a missing key leaves 0).
struct cfg_range {
    const int64_t *value;
    const char *key;
    int64_t min, max;
    const char *expected;
};

constexpr std::array<cfg_range, 2> cfg_ranges = {{
    {&cfg_root.semtech.bind_port, "bind_port", 1, 65535, "1..65535"},
    {&cfg_root.general.summary_interval, "summary_interval", 0, 86400, "0..86400 seconds, 0 for 300"},
}};

constexpr std::string_view GW_EUI_FORMS = "16 hex digits (0016c001ff10a235), dashed pairs (00-16-c0-01-ff-10-a2-35) "
                                          "or ID6 (0016:c001:ff10:a235, 16:c001:ff10:a235, ::1)";

bool all_hex(std::string_view s) {
    for (char c : s)
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
    return true;
}

// Counts the ':'-separated groups of 1..4 hex digits in `part` into `n`; false on a bad group.
bool id6_groups(std::string_view part, int &n) {
    while (!part.empty()) {
        const size_t colon = part.find(':');
        const std::string_view group = part.substr(0, colon);
        if (group.empty() || group.size() > 4 || !all_hex(group))
            return false;
        ++n;
        if (colon == std::string_view::npos)
            return true;
        part.remove_prefix(colon + 1);
        if (part.empty())
            return false; // trailing ':'
    }
    return true;
}

// ID6: four groups of 16 bits, one "::" standing for one or more zero groups.
bool id6_valid(std::string_view s) {
    const size_t gap = s.find("::");
    int n = 0;
    if (gap == std::string_view::npos)
        return !s.empty() && id6_groups(s, n) && n == 4;
    if (s.find("::", gap + 1) != std::string_view::npos)
        return false;
    return id6_groups(s.substr(0, gap), n) && id6_groups(s.substr(gap + 2), n) && n <= 3;
}

bool dashed_valid(std::string_view s) {
    if (s.size() != 23)
        return false;
    for (size_t i = 0; i < s.size(); i++)
        if (i % 3 == 2 ? s[i] != '-' : !isxdigit(static_cast<unsigned char>(s[i])))
            return false;
    return true;
}

// Values are taken only in their own TOML type: no number-to-text, bool-to-int
// or float-to-int conversion.
int parse_cfg_entry(const toml::node *value, const bridge_cfg_entry *e) {
    assert(value);
    assert(e);
    switch (e->type) {
    case BRIDGE_CFG_TYPE_STR:
    case BRIDGE_CFG_TYPE_SECRET_STR: {
        const toml::value<std::string> *text = value->as_string();
        if (!text) {
            LOG_ERROR("failed to allocate TOML string for parameter: %s", e->key);
            return -1;
        }
        strncpy(e->item.str_ptr, text->get().c_str(), e->size - 1);
        e->item.str_ptr[e->size - 1] = '\0';
        return 0;
    }
    case BRIDGE_CFG_TYPE_BOOL:
        if (!value->is_boolean())
            return -1;
        *e->item.bool_ptr = *value->value_exact<bool>();
        return 0;
    case BRIDGE_CFG_TYPE_INT:
        if (!value->is_integer())
            return -1;
        *e->item.int_ptr = *value->value_exact<int64_t>();
        return 0;
    case BRIDGE_CFG_TYPE_DOUBLE:
        if (value->is_floating_point())
            *e->item.dbl_ptr = *value->value_exact<double>();
        else if (value->is_integer())
            *e->item.dbl_ptr = static_cast<double>(*value->value_exact<int64_t>());
        else
            return -1;
        return 0;
    default:
        assert(0);
        return -1;
    }
}

void print_cfg_entry(const bridge_cfg_section *s, const bridge_cfg_entry *entry) {
    switch (entry->type) {
    case BRIDGE_CFG_TYPE_STR:
        BRIDGE_ASSERT(entry->item.str_ptr);
        LOG_TRACE("cfg section: [%-25s] entry: [%-25s] -> %s", s->name, entry->key, entry->item.str_ptr);
        break;
    case BRIDGE_CFG_TYPE_SECRET_STR:
        BRIDGE_ASSERT(entry->item.str_ptr);
        LOG_TRACE("cfg section: [%-25s] entry: [%-25s] -> <hidden>", s->name, entry->key);
        break;
    case BRIDGE_CFG_TYPE_BOOL:
        BRIDGE_ASSERT(entry->item.bool_ptr);
        LOG_TRACE("cfg section: [%-25s] entry: [%-25s] -> %d", s->name, entry->key, *entry->item.bool_ptr ? 1 : 0);
        break;
    case BRIDGE_CFG_TYPE_INT:
        BRIDGE_ASSERT(entry->item.int_ptr);
        LOG_TRACE("cfg section: [%-25s] entry: [%-25s] -> %lld", s->name, entry->key,
                  static_cast<long long>(*entry->item.int_ptr));
        break;
    case BRIDGE_CFG_TYPE_DOUBLE:
        BRIDGE_ASSERT(entry->item.dbl_ptr);
        LOG_TRACE("cfg section: [%-25s] entry: [%-25s] -> %f", s->name, entry->key, *entry->item.dbl_ptr);
        break;
    default:
        BRIDGE_ASSERT(0);
    }
}

// Reads the whole file through one open stream; 0 or the errno of the failed open or read.
int read_cfg_text(const char *path, std::string &text) {
    bridge_unique_file f(fopen(path, "r"));
    if (!f)
        return errno;
    std::array<char, 4096> chunk;
    size_t n;
    while ((n = fread(chunk.data(), 1, chunk.size(), f.get())) > 0)
        text.append(chunk.data(), n);
    return ferror(f.get()) ? errno : 0;
}

const bridge_cfg_section *find_section(std::string_view name, const bridge_cfg_section *sections, uint32_t count) {
    for (uint32_t i = 0; i < count; i++)
        if (name == sections[i].name)
            return &sections[i];
    return nullptr;
}

bool known_key(std::string_view key, const bridge_cfg_section &s) {
    for (uint32_t j = 0; j < s.count; j++)
        if (key == s.entries[j].key)
            return true;
    return false;
}

// A misspelt key would otherwise be dropped silently and its default used.
void warn_unknown(const toml::table &doc, const bridge_cfg_section *sections, uint32_t count) {
    for (auto &&[name, node] : doc) {
        const unsigned line = node.source().begin.line;
        const bridge_cfg_section *s = find_section(name.str(), sections, count);
        if (!s) {
            if (node.is_table())
                LOG_WARN("unknown section [%.*s] in the configuration file (line %u): ignored",
                         static_cast<int>(name.str().size()), name.str().data(), line);
            else
                LOG_WARN("unknown key %.*s outside any section of the configuration file (line %u): ignored",
                         static_cast<int>(name.str().size()), name.str().data(), line);
            continue;
        }
        if (const toml::table *table = node.as_table())
            for (auto &&[key, value] : *table)
                if (!known_key(key.str(), *s))
                    LOG_WARN("unknown key %.*s in section [%s] of the configuration file (line %u): ignored",
                             static_cast<int>(key.str().size()), key.str().data(), s->name,
                             value.source().begin.line);
    }
}

int load_sections(const toml::table &doc, const bridge_cfg_section *sections, uint32_t count) {
    warn_unknown(doc, sections, count);
    for (uint32_t i = 0; i < count; i++) {
        const bridge_cfg_section *s = &sections[i];
        BRIDGE_ASSERT(s->name);
        const toml::table *table = doc.get_as<toml::table>(s->name);
        if (!table) {
            LOG_ERROR("section %s is missing in the configuration file", s->name);
            return -1;
        }
        for (uint32_t j = 0; j < s->count; j++) {
            const bridge_cfg_entry *e = &s->entries[j];
            BRIDGE_ASSERT(e->key);
            const toml::node *value = table->get(e->key);
            if (!value) {
                LOG_DEBUG("parameter %s is missing in the configuration file", e->key);
                if (e->is_set)
                    *e->is_set = false;
                continue;
            }
            if (parse_cfg_entry(value, e) != 0) {
                LOG_ERROR("failed to parse parameter: %s", e->key);
                return -1;
            }
            if (e->is_set)
                *e->is_set = true;
        }
    }
    for (uint32_t i = 0; i < count; i++)
        for (uint32_t j = 0; j < sections[i].count; j++)
            print_cfg_entry(&sections[i], &sections[i].entries[j]);
    return 0;
}

} // namespace

int bridge_config_load(const char *cfg_file, const bridge_cfg_section *sections, uint32_t count) {
    BRIDGE_ASSERT(cfg_file);
    BRIDGE_ASSERT(sections);
    LOG_DEBUG("processing configuration file: %s", cfg_file);

    std::string text;
    if (const int err = read_cfg_text(cfg_file, text); err != 0) {
        LOG_ERROR("failed to open configuration file: %s: %s", cfg_file, strerror(err));
        return -1;
    }

    // toml++ reports syntax errors and allocation failures by exception; none may leave this module.
    try {
        const toml::table doc = toml::parse(text, std::string_view(cfg_file));
        return load_sections(doc, sections, count);
    } catch (const toml::parse_error &err) {
        std::string where = std::string(err.description()) + " (line " + std::to_string(err.source().begin.line) +
                            ", column " + std::to_string(err.source().begin.column) + ")";
        LOG_ERROR("failed to parse configuration file: %s", where.c_str());
    } catch (const std::exception &err) {
        LOG_ERROR("failed to parse configuration file: %s", err.what());
    }
    return -1;
}

int bridge_config_process(const char *cfg_file) {
    BRIDGE_ASSERT(cfg_file);
    if (bridge_config_load(cfg_file, cfg_sections.data(), static_cast<uint32_t>(cfg_sections.size())) != 0)
        return -1;

    for (const cfg_range &r : cfg_ranges)
        if (*r.value < r.min || *r.value > r.max) {
            LOG_ERROR("invalid %s value: %lld, expected %s", r.key, static_cast<long long>(*r.value), r.expected);
            return -1;
        }
    // Sent as "router" to CUPS and the LNS exactly as written: an empty or garbled identity
    // would only show up as a refusal by the server.
    if (!bridge_config_gw_eui_valid(cfg_root.general.gw_eui)) {
        LOG_ERROR("invalid gw_eui value: \"%s\", expected %.*s", cfg_root.general.gw_eui,
                  static_cast<int>(GW_EUI_FORMS.size()), GW_EUI_FORMS.data());
        return -1;
    }
    return 0;
}

bool bridge_config_gw_eui_valid(const char *text) {
    const std::string_view s = text ? text : "";
    return (s.size() == 16 && all_hex(s)) || dashed_valid(s) || id6_valid(s);
}

bridge_cfg_root *bridge_config_get_root() {
    return &cfg_root;
}
