// Credential file sets of the CUPS client: the mandatory-file check, the
// chained CRC-32 that the update-info request reports, and the backup copy of
// the CUPS set taken before an update is applied.
#include "bstn/bridge_bstn_cups_internal.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"

namespace {

constexpr int ERR_NOENT = -ENOENT;

// Texts of the TRACE messages that name a skipped file of one set.
struct crc_skip_msgs {
    const char *trust;
    const char *cert;
    const char *key;
};

constexpr crc_skip_msgs cups_skip_msgs = {
    "CUPS trust file is missing, skipping CRC check for it",
    "CUPS cert file is missing, skipping CRC check for it",
    "CUPS key file is missing, skipping CRC check for it",
};
constexpr crc_skip_msgs lns_skip_msgs = {
    "LNS trust file is missing, skipping CRC check for it",
    "cert file is missing, skipping CRC check for it",
    "LNS key file is missing, skipping CRC check for it",
};

// CRC of the present files of one set in the order trust, cert, key, exactly as
// stored; a missing file is skipped, any other failure is returned.
int set_crc(bridge_bstn_cups_ctx *ctx, const bridge_cfg_creds &set, bool use_backup,
            const crc_skip_msgs &msgs, uint32_t *crc_out) {
    const char *trust = use_backup ? set.trust_backup : set.trust;
    const char *cert = use_backup ? set.cert_backup : set.cert;
    const char *key = use_backup ? set.key_backup : set.key;
    uint32_t crc = 0;

    int rc = bridge_bstn_cups_file_crc(ctx, trust, &crc, crc);
    if (rc == ERR_NOENT) {
        LOG_TRACE("%s", msgs.trust);
    } else if (rc != 0) {
        return rc;
    }

    rc = bridge_utils_file_exists(cert);
    if (rc == ERR_NOENT) {
        LOG_TRACE("%s", msgs.cert);
    } else if (rc != 0) {
        return rc;
    } else {
        rc = bridge_bstn_cups_file_crc(ctx, cert, &crc, crc);
        if (rc != 0) return rc;
    }

    rc = bridge_bstn_cups_file_crc(ctx, key, &crc, crc);
    if (rc == ERR_NOENT) {
        LOG_TRACE("%s", msgs.key);
    } else if (rc != 0) {
        return rc;
    }
    *crc_out = crc;
    return 0;
}

} // namespace

int bridge_bstn_cups_check_mandatory_files(bool use_backup) {
    const bridge_cfg_creds &cups = bridge_config_get_root()->cups;
    const char *set_name = use_backup ? "backup" : "main";
    const char *key = use_backup ? cups.key_backup : cups.key;
    const char *trust = use_backup ? cups.trust_backup : cups.trust;

    int rc = bridge_utils_file_exists(key);
    if (rc != 0) {
        LOG_ERROR("missing mandatory key file %s from %s set", key, set_name);
        return rc;
    }
    rc = bridge_utils_file_exists(trust);
    if (rc != 0) {
        LOG_ERROR("missing mandatory trust file %s from %s set", trust, set_name);
        return rc;
    }
    return 0;
}

int bridge_bstn_cups_cups_cred_crc(bridge_bstn_cups_ctx *ctx, uint32_t *crc_out, bool use_backup) {
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(crc_out != NULL);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(cfg != NULL);
    return set_crc(ctx, cfg->cups, use_backup, cups_skip_msgs, crc_out);
}

int bridge_bstn_cups_lns_cred_crc(bridge_bstn_cups_ctx *ctx, uint32_t *crc_out, bool use_backup) {
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(crc_out != NULL);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(cfg != NULL);
    return set_crc(ctx, cfg->lns, use_backup, lns_skip_msgs, crc_out);
}

int bridge_bstn_cups_file_crc(bridge_bstn_cups_ctx *ctx, const char *filepath, uint32_t *out_crc,
                              uint32_t crc_in) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(filepath != NULL);
    BRIDGE_ASSERT(out_crc != NULL);
    LOG_TRACE("getting CRC for credentials file: %s", filepath);

    bridge_unique_file f(fopen(filepath, "rb"));
    if (!f) {
        int err = errno;
        LOG_DEBUG("failed to open a file %s: %m", filepath);
        return -err;
    }
    if (fseek(f.get(), 0, SEEK_END) != 0) {
        int err = errno;
        LOG_ERROR("failed to seek end of a file %s: %m", filepath);
        return -err;
    }
    long size = ftell(f.get());
    if (size < 0) {
        int err = errno;
        LOG_ERROR("ftell on %s failed: %m", filepath);
        return -err;
    }
    if (fseek(f.get(), 0, SEEK_SET) != 0) {
        int err = errno;
        LOG_ERROR("failed to seek set of a file %s: %m", filepath);
        return -err;
    }
    // An empty file leaves the running value unchanged (malloc(0) may give NULL).
    if (size == 0) {
        *out_crc = crc_in;
        return 0;
    }
    std::unique_ptr<uint8_t, bridge_bstn_free> buf(static_cast<uint8_t *>(malloc(static_cast<size_t>(size))));
    if (!buf) {
        LOG_ERROR("failed to allocate buffer for a file data");
        return -ENOMEM;
    }
    size_t got = fread(buf.get(), 1, static_cast<size_t>(size), f.get());
    if (got != static_cast<size_t>(size)) {
        LOG_ERROR("expected bytes in the file: %ld, but actually read: %d", size, static_cast<int>(got));
        return -1;
    }
    *out_crc = bridge_utils_calculate_crc32(crc_in, buf.get(), got);
    return 0;
}

int bridge_bstn_cups_backup_cups_set(bridge_bstn_cups_ctx *ctx) {
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(cfg != NULL);
    const bridge_cfg_creds &cups = cfg->cups;

    int rc = bridge_bstn_cups_copy_file(cups.uri, cups.uri_backup);
    if (rc != 0) return rc;

    rc = bridge_utils_file_exists(cups.cert);
    if (rc == 0) {
        rc = bridge_bstn_cups_copy_file(cups.cert, cups.cert_backup);
        if (rc != 0) return rc;
    } else if (rc == ERR_NOENT) {
        // Token mode: the old cert_backup stays as it was.
        LOG_TRACE("skipping backuping the cert file: it doesn't exist");
    } else {
        return rc;
    }

    rc = bridge_bstn_cups_copy_file(cups.trust, cups.trust_backup);
    if (rc != 0) return rc;
    return bridge_bstn_cups_copy_file(cups.key, cups.key_backup);
}

int bridge_bstn_cups_copy_file(const char *srcpath, const char *destpath) {
    BRIDGE_ASSERT(srcpath != NULL);
    BRIDGE_ASSERT(destpath != NULL);

    struct stat st {};
    if (stat(srcpath, &st) != 0) {
        int err = errno;
        LOG_ERROR("failed to obtain stat info about %s: %m", srcpath);
        return -err;
    }
    bridge_unique_fd src(open(srcpath, O_RDONLY | O_CLOEXEC));
    if (!src) {
        int err = errno;
        LOG_ERROR("failed to open source file %s: %m", srcpath);
        return -err;
    }
    // An existing destination keeps its own mode; a new one gets the source's bits.
    bridge_unique_fd dst(open(destpath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, st.st_mode & 07777));
    if (!dst) {
        int err = errno;
        LOG_ERROR("failed to open destination file %s: %m", destpath);
        return -err;
    }
    off_t size = lseek(src.get(), 0, SEEK_END);
    if (size < 0) {
        int err = errno;
        LOG_ERROR("failed to seek end the source file %s: %m", srcpath);
        return -err;
    }
    if (lseek(src.get(), 0, SEEK_SET) < 0) {
        int err = errno;
        LOG_ERROR("failed to seek set the source file %s: %m", srcpath);
        return -err;
    }

    LOG_TRACE("copying [%lld] bytes from %s to %s ...", static_cast<long long>(size), srcpath, destpath);
    // One sendfile call may copy less than asked: repeat until the whole file is
    // copied. A call that copies nothing before the end means the source shrank.
    off_t left = size;
    while (left > 0) {
        ssize_t n = sendfile(dst.get(), src.get(), nullptr, static_cast<size_t>(left));
        if (n <= 0) {
            if (n == 0) errno = EIO;
            LOG_ERROR("failed to copy file from %s to %s: %m", srcpath, destpath);
            return -1;
        }
        left -= n;
    }
    return 0;
}
