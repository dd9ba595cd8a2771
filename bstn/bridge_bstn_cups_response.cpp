// Processing of the binary CUPS update: six length-prefixed sections, of which
// the URIs and the two credentials blobs are written into the files that the
// configuration names (certificates and keys as PEM).
#include "bstn/bridge_bstn_cups_internal.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"

namespace {

constexpr size_t CUPS_RESP_MIN_SZ = 14;   // six empty sections
constexpr size_t ABSENCE_MARKER_SZ = 4;
constexpr uint8_t DER_SEQUENCE_TAG = 0x30;

using section_processor = int (*)(bridge_bstn_cups_ctx *ctx, const uint8_t *data, size_t len);

// Replaces a URI, token (raw bytes) or PEM file; each kind keeps its own
// message for a file that cannot be created.
int write_cred_file(const char *path, const void *data, size_t len, bool pem) {
    LOG_TRACE("trying to write [%zu] bytes to %s ...", len, path);
    bridge_bstn_cups_write_step step;
    int rc = bridge_bstn_cups_replace_file(path, data, len, &step);
    if (rc != 0) {
        errno = -rc;
        if (step != CUPS_WRITE_OPEN) {
            LOG_ERROR("failed to write a file %s: %m (%s)", path, bridge_bstn_cups_write_step_name(step));
        } else if (pem) {
            LOG_ERROR("failed to open/create a file %s for writing: %m", path);
        } else {
            LOG_ERROR("can't open a file %s: %m", path);
        }
    }
    return rc;
}
int write_raw(const char *path, const void *data, size_t len) { return write_cred_file(path, data, len, false); }

// A CUPS URI that is not https would send the next request and its credentials
// in clear text: it is never stored.
int process_cups_uri(bridge_bstn_cups_ctx *, const uint8_t *data, size_t len) {
    int rc = bridge_bstn_cups_require_https(reinterpret_cast<const char *>(data), len, "CUPS URI from the CUPS answer");
    if (rc != 0) return rc;
    return write_raw(bridge_config_get_root()->cups.uri, data, len);
}
int process_lns_uri(bridge_bstn_cups_ctx *, const uint8_t *data, size_t len) {
    return write_raw(bridge_config_get_root()->lns.uri, data, len);
}
int process_cups_creds(bridge_bstn_cups_ctx *, const uint8_t *data, size_t len) {
    return bridge_bstn_cups_store_credentials(data, len, true);
}
int process_lns_creds(bridge_bstn_cups_ctx *, const uint8_t *data, size_t len) {
    return bridge_bstn_cups_store_credentials(data, len, false);
}
// The signature is not verified and the update blob is not installed.
int process_ignored(bridge_bstn_cups_ctx *, const uint8_t *, size_t) { return 0; }

struct resp_section {
    std::string_view name;
    size_t len_size;
    section_processor processor;
    bool reported;   // named in the "CUPS answered" line when present
};

constexpr std::array<resp_section, 6> resp_sections = {{
    {"CUPS URI", 1, process_cups_uri, true},
    {"LNS URI", 1, process_lns_uri, true},
    {"CUPS credentials", 2, process_cups_creds, true},
    {"LNS credentials", 2, process_lns_creds, true},
    {"signature over the update blob", 4, process_ignored, false},
    {"generic update blob", 4, process_ignored, false},
}};

enum cred_kind { CRED_X509 = 0, CRED_KEY = 1 };

struct cred_item {
    const char *path;
    const char *label;
    cred_kind kind;
};

size_t read_le(const uint8_t *p, size_t n) {
    size_t v = 0;
    for (size_t i = n; i > 0; --i) v = (v << 8) | p[i - 1];
    return v;
}

struct bio_free {
    void operator()(BIO *b) const { BIO_free(b); }
};

// Replaces a credential file by the PEM text gathered in `pem`.
int write_pem(const char *filepath, BIO *pem) {
    char *text = nullptr;
    const long len = BIO_get_mem_data(pem, &text);
    return write_cred_file(filepath, text, static_cast<size_t>(len), true);
}

struct x509_free {
    void operator()(X509 *x) const { X509_free(x); }
};
struct pkey_free {
    void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};

} // namespace

int bridge_bstn_cups_process_response(bridge_bstn_cups_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    const size_t total = ctx->resp_len;
    const uint8_t *body = ctx->resp_data.get();
    LOG_DEBUG("processing CUPS response with length: %zu", total);
    if (body == nullptr || total < CUPS_RESP_MIN_SZ) {
        LOG_ERROR("response is too small for processing");
        return -1;
    }

    size_t off = 0;
    char updated[96] = "";
    for (size_t i = 0; i < resp_sections.size(); ++i) {
        const resp_section &s = resp_sections[i];
        BRIDGE_ASSERT(resp_sections[i].processor);
        if (total - off < s.len_size) {
            LOG_ERROR("not enough bytes in a packet to decode section length at offset %zu", off);
            return -1;
        }
        size_t len = read_le(body + off, s.len_size);
        off += s.len_size;
        LOG_TRACE("CUPS response - length of %s: %zu", s.name.data(), len);
        if (len > total - off) {
            LOG_ERROR("section surpasses a packet boundary. Initial offset: %zu, next section size: %zu, "
                      "packet size: %zu", off, len, total);
            return -1;
        }
        if (len != 0) {
            int rc = s.processor(ctx, body + off, len);
            if (rc != 0) return rc;
            if (s.reported) {
                const size_t used = strlen(updated);
                snprintf(updated + used, sizeof updated - used, "%s%s", used ? ", " : "", s.name.data());
            }
        }
        off += len;
    }
    if (updated[0] != '\0') {
        LOG_INFO("CUPS answered: updated %s", updated);
    } else {
        LOG_INFO("CUPS answered: nothing to update");
    }
    return 0;
}

int32_t bridge_bstn_cups_der_seq_len(const uint8_t *p, size_t left) {
    if (left < 2) return -1;
    if (p[1] < 0x80) return p[1] + 2;
    const size_t n = p[1] & 0x7f;
    if (left < 2 + n) return -1;
    uint32_t len = 0;
    for (size_t i = 0; i < n; ++i) len = (len << 8) | p[2 + i];   // leading bytes shift out
    const auto total = static_cast<int32_t>(len + static_cast<uint32_t>(n) + 2u);
    // A sum that wrapped past 2^32 ends below the item's own header (even at 0,
    // an empty item): as undecodable as a negative one.
    return total < 0 || static_cast<size_t>(total) < n + 2 ? -1 : total;
}

int bridge_bstn_cups_store_credentials(const uint8_t *data, size_t sz, bool cups_set) {
    BRIDGE_ASSERT(data != NULL);
    BRIDGE_ASSERT(sz != 0);
    const bridge_cfg_creds &set = cups_set ? bridge_config_get_root()->cups : bridge_config_get_root()->lns;
    const std::array<cred_item, 3> items = {{
        {set.trust, "trust", CRED_X509},
        {set.cert, "certificate", CRED_X509},
        {set.key, "key", CRED_KEY},
    }};

    const uint8_t *p = data;
    size_t left = sz;
    for (const cred_item &item : items) {
        if (left == 0) return 0;
        const long offset = static_cast<long>(p - data);
        if (p[0] == 0) {
            LOG_TRACE("%s section is not present in the response", item.label);
            if (left < ABSENCE_MARKER_SZ) {
                LOG_ERROR("not enough bytes to proceed with next credentials section");
                return -1;
            }
            p += ABSENCE_MARKER_SZ;
            left -= ABSENCE_MARKER_SZ;
            continue;
        }

        ssize_t seq_len;
        bool token = false;
        if (p[0] == DER_SEQUENCE_TAG) {
            seq_len = bridge_bstn_cups_der_seq_len(p, left);
            if (seq_len < 0) {
                LOG_ERROR("can't decode sequence length at offset [%ld]", offset);
                return -1;
            }
        } else if (item.kind == CRED_KEY) {
            seq_len = static_cast<ssize_t>(left);
            token = true;
        } else {
            LOG_ERROR("failed to parse credential file %s: ASN.1 SEQ expected at offset [%ld]; found: [%#x]",
                      item.label, offset, static_cast<unsigned>(p[0]));
            return -1;
        }
        LOG_TRACE("response contain %s section with length: [%zd] and offset: [%ld]", item.label, seq_len, offset);
        if (static_cast<size_t>(seq_len) > left) {
            LOG_ERROR("not enough bytes to extract the credentials section. length: [%zu], left: [%zd]",
                      static_cast<size_t>(seq_len), static_cast<ssize_t>(left));
            return -1;
        }

        int rc;
        if (token) {
            rc = write_raw(item.path, p, static_cast<size_t>(seq_len));
        } else if (item.kind == CRED_X509) {
            rc = bridge_bstn_cups_write_x509_pem(p, static_cast<size_t>(seq_len), item.path);
        } else {
            rc = bridge_bstn_cups_write_pkey_pem(p, static_cast<size_t>(seq_len), item.path);
        }
        if (rc != 0) return rc;

        BRIDGE_ASSERT(seq_len >= 0 && (size_t)seq_len <= left);
        p += seq_len;
        left -= static_cast<size_t>(seq_len);
        if (left == 0) return 0;
    }
    // Bytes after the key item are ignored.
    return 0;
}

int bridge_bstn_cups_write_x509_pem(const uint8_t *der_data, size_t der_sz, const char *filepath) {
    BRIDGE_ASSERT(der_data != NULL);
    BRIDGE_ASSERT(filepath != NULL);
    LOG_TRACE("trying to write X509/DER as PEM into %s ...", filepath);

    const unsigned char *in = der_data;
    std::unique_ptr<X509, x509_free> cert(d2i_X509(nullptr, &in, static_cast<long>(der_sz)));
    if (!cert) {
        ERR_clear_error();
        LOG_ERROR("can't parse X509/DER");
        return -1;
    }
    std::unique_ptr<BIO, bio_free> pem(BIO_new(BIO_s_mem()));
    if (!pem || PEM_write_bio_X509(pem.get(), cert.get()) != 1) {
        ERR_clear_error();
        LOG_ERROR("failed to write a certificate to a file %s", filepath);
        return -1;
    }
    return write_pem(filepath, pem.get());
}

int bridge_bstn_cups_write_pkey_pem(const uint8_t *der_data, size_t der_sz, const char *filepath) {
    BRIDGE_ASSERT(der_data != NULL);
    BRIDGE_ASSERT(filepath != NULL);
    BRIDGE_ASSERT(der_sz != 0);
    LOG_TRACE("trying to write PKey into %s ...", filepath);

    const unsigned char *in = der_data;
    std::unique_ptr<EVP_PKEY, pkey_free> key(d2i_AutoPrivateKey(nullptr, &in, static_cast<long>(der_sz)));
    if (!key) {
        ERR_clear_error();
        LOG_ERROR("failed to decode key");
        return -1;
    }
    // Unencrypted: the daemon must read it unattended. The file is 0600 from
    // its creation on, so the key is never readable by others.
    std::unique_ptr<BIO, bio_free> pem(BIO_new(BIO_s_mem()));
    int wrc = pem ? PEM_write_bio_PrivateKey(pem.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) : 0;
    if (wrc != 1) {
        ERR_clear_error();
        LOG_ERROR("failed to write a private key: %d", wrc);
        return -1;
    }
    return write_pem(filepath, pem.get());
}
