// Settings taken from the environment: MEMM_LOG=stderr copies every
// diagnostic line to standard error, MEMM_REPORT_DIR names the folder that
// receives every dump and list file. Both are read once, by memm_init, so a
// report never calls getenv or allocates; a diagnostic logged before
// memm_init looks at MEMM_LOG itself.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

#include "memm_private.h"

namespace memm_detail {

namespace {

enum : uint8_t { kStderrUnknown, kStderrOff, kStderrOn };

struct Environment {
    std::atomic<uint8_t> log_stderr{kStderrUnknown};
    // Guarded by the lock; empty = the default folders.
    char report_dir[kReportPathSize] = "";
    bool report_dir_too_long = false;
};
Environment g_env;

bool stderr_requested() {
    const char *value = getenv("MEMM_LOG");
    return value && strcmp(value, "stderr") == 0;
}

} // namespace

void loc_read_environment() {
    g_env.log_stderr.store(stderr_requested() ? kStderrOn : kStderrOff, std::memory_order_relaxed);
    PoolLock lock("memm_init");
    const char *dir = getenv("MEMM_REPORT_DIR");
    const size_t len = dir ? strlen(dir) : 0;
    // Room is left for "/" and a file name; a folder that leaves none is
    // kept as unusable, so its reports fail like unopenable files.
    g_env.report_dir_too_long = len >= kReportPathSize - 2;
    if (g_env.report_dir_too_long) {
        g_env.report_dir[0] = '\0';
        loc_log("MEMM_REPORT_DIR is too long (%zu characters): no report file can be written", len);
        return;
    }
    memcpy(g_env.report_dir, dir ? dir : "", len + 1);
}

bool loc_log_to_stderr() {
    const uint8_t state = g_env.log_stderr.load(std::memory_order_relaxed);
    return state == kStderrUnknown ? stderr_requested() : state == kStderrOn;
}

bool loc_report_path(char (&path)[kReportPathSize], const char *default_dir, const char *fmt, ...) {
    // With a folder too long the name is still built, for the log line.
    const char *dir = g_env.report_dir_too_long ? "(MEMM_REPORT_DIR too long)"
                      : g_env.report_dir[0]     ? g_env.report_dir
                                                : default_dir;
    const size_t dir_len = strlen(dir);
    const bool slash = dir_len == 0 || dir[dir_len - 1] != '/';
    const int head = snprintf(path, sizeof path, "%s%s", dir, slash ? "/" : "");
    if (head < 0 || size_t(head) >= sizeof path)
        return false;
    va_list ap;
    va_start(ap, fmt);
    const int tail = vsnprintf(path + head, sizeof path - size_t(head), fmt, ap);
    va_end(ap);
    return !g_env.report_dir_too_long && tail >= 0 && size_t(head) + size_t(tail) < sizeof path;
}

} // namespace memm_detail
