// The daemon's TOML configuration, loaded once into one process-wide record.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t BRIDGE_CFG_STR_SZ = 256;

struct bridge_cfg_general {
    char gw_eui[BRIDGE_CFG_STR_SZ];
    char name[BRIDGE_CFG_STR_SZ];
    char fw_version[BRIDGE_CFG_STR_SZ];
    char model[BRIDGE_CFG_STR_SZ];
    char package[BRIDGE_CFG_STR_SZ];
    bool skip_cups;
    int64_t summary_interval; // seconds between health summaries, 0 = default (0..86400)
};

// File paths of one endpoint's URI and credential files, each with a backup.
struct bridge_cfg_creds {
    char uri[BRIDGE_CFG_STR_SZ];
    char uri_backup[BRIDGE_CFG_STR_SZ];
    char trust[BRIDGE_CFG_STR_SZ];
    char trust_backup[BRIDGE_CFG_STR_SZ];
    char cert[BRIDGE_CFG_STR_SZ];
    char cert_backup[BRIDGE_CFG_STR_SZ];
    char key[BRIDGE_CFG_STR_SZ];
    char key_backup[BRIDGE_CFG_STR_SZ];
};

struct bridge_cfg_semtech {
    int64_t bind_port;
    char bind_address[BRIDGE_CFG_STR_SZ]; // empty: every IPv4 address
};

// LNS connection choices beside its files.
struct bridge_cfg_lns_opts {
    bool allow_self_signed; // lab set-ups: skip server verification and host name check
};

struct bridge_cfg_root {
    bridge_cfg_general general;
    bridge_cfg_creds lns;
    bridge_cfg_creds cups;
    bridge_cfg_semtech semtech;
    bridge_cfg_lns_opts lns_opts;
};

// 0 on success, -1 on any failure (already logged).
int bridge_config_process(const char *cfg_file);
// Never null. Read-only once start-up is over.
bridge_cfg_root *bridge_config_get_root();
// True for the gateway identity forms servers accept: 16 hex digits, 8 dashed hex pairs, or ID6
// (four ':'-separated groups of up to 4 hex digits, one "::" for zero groups).
bool bridge_config_gw_eui_valid(const char *text);

// ---- the table that drives loading -------------------------------------------

// Value type codes of a configuration entry.
enum bridge_cfg_type : uint32_t {
    BRIDGE_CFG_TYPE_STR = 0,
    BRIDGE_CFG_TYPE_SECRET_STR = 1, // read as text, never printed
    BRIDGE_CFG_TYPE_BOOL = 2,
    BRIDGE_CFG_TYPE_INT = 4,
    BRIDGE_CFG_TYPE_DOUBLE = 5,
};

union bridge_cfg_item {
    char *str_ptr;
    bool *bool_ptr;
    int64_t *int_ptr;
    double *dbl_ptr;
};

struct bridge_cfg_entry {
    uint32_t type;         // bridge_cfg_type
    bridge_cfg_item item;  // destination field
    uint32_t size;         // texts: destination capacity incl. terminator; 0 otherwise
    bool *is_set;          // may be null; records whether the key was present
    const char *key;       // TOML key
};

struct bridge_cfg_section {
    const char *name;      // TOML table
    const bridge_cfg_entry *entries;
    uint32_t count;
};

// Loads `cfg_file` through a table of `count` sections (bridge_config_process
// uses the daemon's own table). Values are checked by type only.
// 0 on success, -1 on any failure (already logged).
int bridge_config_load(const char *cfg_file, const bridge_cfg_section *sections, uint32_t count);
