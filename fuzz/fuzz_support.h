// Helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// ERROR-level logging to standard error (the fuzz driver discards it with -close_fd_mask=2).
void fuzz_quiet_logging();

// A private temporary folder, created once and removed with its files at exit.
const std::string &fuzz_temp_dir();

// Copies the input into a fresh heap buffer of exactly size + 1 bytes, the last one zero,
// so that ASan sees any read past the terminator.
struct fuzz_text {
    fuzz_text(const uint8_t *data, size_t size);
    ~fuzz_text();
    fuzz_text(const fuzz_text &) = delete;
    fuzz_text &operator=(const fuzz_text &) = delete;
    char *str;
    size_t len; // bytes before the first zero byte
};

// Reports a broken invariant of the code under test as a crash.
[[noreturn]] void fuzz_fail(const char *what);
#define FUZZ_CHECK(cond) do { if (!(cond)) fuzz_fail(#cond); } while (0)

// Writes `size` bytes to `path` (replacing it); aborts on failure.
void fuzz_write_file(const std::string &path, const void *data, size_t size);
