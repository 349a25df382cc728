// The statistics dump file: the usage table appended to a file, written when
// a pool is depleted for the first time and when tagging asks for it.
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

// The open dump file, null outside loc_memm_dump_stats. Used only under the
// lock, which a dump holds from opening its file to closing it.
FILE *g_dump_file = nullptr;

} // namespace

// Print function of the dump: writes to the open dump file, -1 when none is open.
int loc_dumpfile_printf(const char *fmt, ...) {
    if (!g_dump_file)
        return -1;
    va_list ap;
    va_start(ap, fmt);
    int n = vfprintf(g_dump_file, fmt, ap);
    va_end(ap);
    return n;
}

// Appends "Info: <info>" and the usage table of the pools that `prefix`
// selects to /root/memm_dump_pool_depleted_<pid> (reason "pool_depleted"),
// /var/memm_dump_tagging_<number> (reason "tagging"), or
// /var/memm_dump_<reason>_<pid>; MEMM_REPORT_DIR replaces both folders. A file that cannot be opened, or whose name
// does not fit its buffer, is logged and nothing is written. Holds the lock
// for the whole file, so a dump requested in one thread and a depletion in
// another never write into each other's file or cut it short.
void loc_memm_dump_stats(const char *prefix, uint32_t number, const char *reason, const char *info) {
    PoolLock lock("loc_memm_dump_stats");
    const int file_number = strcmp(reason, MEMM_REASON_TAGGING) == 0 ? int(number) : int(getpid());
    const bool depleted = strcmp(reason, MEMM_REASON_POOL_DEPLETED) == 0;
    char path[kReportPathSize];
    const bool fits = loc_report_path(path, depleted ? "/root" : "/var", "memm_dump_%s_%d", reason, file_number);
    FILE *file = fits ? fopen(path, "a") : nullptr;
    if (!file) {
        loc_log("Could not open %s stats file", path);
        return;
    }
    g_dump_file = file;
    loc_dumpfile_printf("\r\n\rInfo: %s\r\n", info);
    loc_print_stats(prefix, loc_dumpfile_printf);
    fclose(file);
    g_dump_file = nullptr;
}

} // namespace memm_detail
