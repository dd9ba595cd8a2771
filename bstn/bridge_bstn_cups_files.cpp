// Credential file sets of the CUPS client: the mandatory-file check, the
// chained CRC-32 that the update-info request reports, and the backup copy of
// the CUPS set taken before an update is applied, and the atomic replacement
// through which every one of these files is written.
#include "bstn/bridge_bstn_cups_internal.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
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
int set_crc(bridge_bstn_cups_ctx *ctx, const bridge_cfg_creds &creds, bool use_backup,
            const crc_skip_msgs &msgs, uint32_t *crc_out) {
    const bridge_bstn_cred_files set = bridge_bstn_cups_cred_files(creds, use_backup);
    const char *trust = set.trust;
    const char *cert = set.cert;
    const char *key = set.key;
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

constexpr std::array<const char *, 5> write_step_names = {"create", "write", "fsync", "rename", "folder fsync"};

ssize_t sys_write(int fd, const void *buf, size_t n) { return ::write(fd, buf, n); }
int sys_fsync(int fd) { return ::fsync(fd); }
int sys_rename(const char *from, const char *to) { return ::rename(from, to); }

// The folder that holds `path`, for its fsync after the rename.
std::string folder_of(const char *path) {
    const char *slash = strrchr(path, '/');
    if (!slash) return ".";
    if (slash == path) return "/";
    return std::string(path, static_cast<size_t>(slash - path));
}

// Reads the `size` bytes of a small file (a credential) into a heap buffer.
int read_whole(int fd, const char *path, size_t size, std::unique_ptr<uint8_t, bridge_bstn_free> *out) {
    out->reset(static_cast<uint8_t *>(malloc(size + 1)));
    if (!*out) {
        LOG_ERROR("failed to allocate buffer for a file data");
        return -ENOMEM;
    }
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, out->get() + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;   // the file shrank while being read
            int err = errno;
            LOG_ERROR("failed to read source file %s: %m", path);
            return -err;
        }
        got += static_cast<size_t>(n);
    }
    return 0;
}

} // namespace

bridge_bstn_cups_file_syscalls bridge_bstn_cups_file_sys = {sys_write, sys_fsync, sys_rename};

bridge_bstn_cred_files bridge_bstn_cups_cred_files(const bridge_cfg_creds &c, bool use_backup) {
    if (use_backup) return {c.uri_backup, c.trust_backup, c.cert_backup, c.key_backup, "backup"};
    return {c.uri, c.trust, c.cert, c.key, "main"};
}

const char *bridge_bstn_cups_write_step_name(bridge_bstn_cups_write_step step) {
    return write_step_names[step];
}

int bridge_bstn_cups_replace_file(const char *path, const void *buf, size_t len,
                                  bridge_bstn_cups_write_step *failed) {
    std::string tmp = std::string(path) + ".tmp-XXXXXX";
    bridge_unique_fd fd(mkostemp(tmp.data(), O_CLOEXEC));
    // mkostemp's 0600 is narrowed by the umask: set it outright.
    if (!fd || fchmod(fd.get(), 0600) != 0) {
        int err = errno;
        if (fd) unlink(tmp.c_str());
        *failed = CUPS_WRITE_OPEN;
        return -err;
    }
    bridge_bstn_cups_write_step step = CUPS_WRITE_DATA;
    const auto *p = static_cast<const uint8_t *>(buf);
    size_t left = len;
    bool ok = true;
    while (ok && left > 0) {
        ssize_t n = bridge_bstn_cups_file_sys.write(fd.get(), p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            ok = false;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (ok) {
        step = CUPS_WRITE_SYNC;
        ok = bridge_bstn_cups_file_sys.fsync(fd.get()) == 0;
    }
    if (ok) {
        step = CUPS_WRITE_RENAME;
        ok = close(fd.release()) == 0 && bridge_bstn_cups_file_sys.rename(tmp.c_str(), path) == 0;
    }
    if (!ok) {
        int err = errno;
        unlink(tmp.c_str());
        *failed = step;
        return -err;
    }
    // The rename is durable only once the folder entry is on disk.
    bridge_unique_fd dir(open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir || bridge_bstn_cups_file_sys.fsync(dir.get()) != 0) {
        int err = errno;
        *failed = CUPS_WRITE_DIR_SYNC;
        return -err;
    }
    return 0;
}

int bridge_bstn_cups_check_mandatory_files(bool use_backup) {
    const bridge_bstn_cred_files set = bridge_bstn_cups_cred_files(bridge_config_get_root()->cups, use_backup);

    int rc = bridge_utils_file_exists(set.key);
    if (rc != 0) {
        LOG_ERROR("missing mandatory key file %s from %s set: %s", set.key, set.set_name, strerror(-rc));
        return rc;
    }
    rc = bridge_utils_file_exists(set.trust);
    if (rc != 0) {
        LOG_ERROR("missing mandatory trust file %s from %s set: %s", set.trust, set.set_name, strerror(-rc));
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
    const bridge_bstn_cred_files main_set = bridge_bstn_cups_cred_files(cfg->cups, false);
    const bridge_bstn_cred_files backup_set = bridge_bstn_cups_cred_files(cfg->cups, true);

    int rc = bridge_bstn_cups_copy_file(main_set.uri, backup_set.uri);
    if (rc != 0) return rc;

    rc = bridge_utils_file_exists(main_set.cert);
    if (rc == 0) {
        rc = bridge_bstn_cups_copy_file(main_set.cert, backup_set.cert);
        if (rc != 0) return rc;
    } else if (rc == ERR_NOENT) {
        // Token mode: the old cert_backup stays as it was.
        LOG_TRACE("skipping backuping the cert file: it doesn't exist");
    } else {
        return rc;
    }

    rc = bridge_bstn_cups_copy_file(main_set.trust, backup_set.trust);
    if (rc != 0) return rc;
    return bridge_bstn_cups_copy_file(main_set.key, backup_set.key);
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
    const size_t size = static_cast<size_t>(st.st_size);
    std::unique_ptr<uint8_t, bridge_bstn_free> data;
    int rc = read_whole(src.get(), srcpath, size, &data);
    if (rc != 0) return rc;

    LOG_TRACE("copying [%lld] bytes from %s to %s ...", static_cast<long long>(size), srcpath, destpath);
    bridge_bstn_cups_write_step step;
    rc = bridge_bstn_cups_replace_file(destpath, data.get(), size, &step);
    if (rc != 0) {
        errno = -rc;
        if (step == CUPS_WRITE_OPEN) {
            LOG_ERROR("failed to open destination file %s: %m", destpath);
        } else {
            LOG_ERROR("failed to copy file from %s to %s: %m (%s)", srcpath, destpath,
                      bridge_bstn_cups_write_step_name(step));
        }
    }
    return rc;
}
