#include "fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/bridge_utils.h"

void fuzz_quiet_logging() {
    bridge_log_init(0, true);
}

namespace {
std::string temp_dir;

void remove_temp_dir() {
    if (temp_dir.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(temp_dir, ec);
}
} // namespace

const std::string &fuzz_temp_dir() {
    if (temp_dir.empty()) {
        const char *base = getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/kes_fuzz.XXXXXX";
        if (!mkdtemp(tmpl.data())) fuzz_fail("mkdtemp");
        temp_dir = tmpl;
        atexit(remove_temp_dir);
    }
    return temp_dir;
}

fuzz_text::fuzz_text(const uint8_t *data, size_t size) : str(new char[size + 1]) {
    if (size > 0) memcpy(str, data, size);
    str[size] = '\0';
    len = strlen(str);
}

fuzz_text::~fuzz_text() {
    delete[] str;
}

void fuzz_fail(const char *what) {
    fprintf(stderr, "fuzz invariant broken: %s\n", what);
    fflush(stderr);
    abort();
}

void fuzz_write_file(const std::string &path, const void *data, size_t size) {
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) fuzz_fail("fopen for writing");
    if (size > 0 && fwrite(data, 1, size, f) != size) fuzz_fail("fwrite");
    fclose(f);
}
