// Object listings written to list files on request: "profiling" lists asked
// for by the application, and "pool_depleted" lists written when a pool (or a
// string pool's buffer memory) runs out.
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

// The open list file, null outside loc_handle_list_objects, and the number
// of profiling lists requested so far (only grows). Both are used only under
// the lock, which a list holds from numbering its file to closing it.
FILE *g_list_file = nullptr;
uint32_t g_profiling_count = 0;

// Profiling lists go to files 1 to 255; every later one is appended to 0.
int next_profiling_number() {
    const uint32_t seen = g_profiling_count++;
    return seen < 255 ? int(seen + 1) : 0;
}

} // namespace

// Print function of the lists: writes to the open list file, -1 when none is open.
int loc_listfile_printf(const char *fmt, ...) {
    if (!g_list_file)
        return -1;
    va_list ap;
    va_start(ap, fmt);
    int n = vfprintf(g_list_file, fmt, ap);
    va_end(ap);
    return n;
}

// Appends a listing of the pools that `prefix` selects (untagged objects, or
// tagged ones with `only_tagged`) to /var/memm_list_profiling_<n> or
// /root/memm_list_pool_depleted_<pid> (or into MEMM_REPORT_DIR); a depletion list shows at most the
// last 251 objects of each pool. Other reasons do nothing. A file that cannot
// be opened, or whose name does not fit its buffer, is logged and nothing is
// written. Holds the lock for the whole file: a profiling list and a
// depletion list from two threads each come out whole, in files of their own.
void loc_handle_list_objects(const char *prefix, int only_tagged, int hide_deleted, const char *reason) {
    if (!reason)
        return;
    const bool depleted = strcmp(reason, MEMM_REASON_POOL_DEPLETED) == 0;
    if (!depleted && strcmp(reason, MEMM_REASON_PROFILING) != 0)
        return;
    PoolLock lock("memm_handle_list_objects");
    char path[kReportPathSize];
    const bool fits = depleted ? loc_report_path(path, "/root", "memm_list_%s_%d", reason, int(getpid()))
                               : loc_report_path(path, "/var", "memm_list_%s_%d", reason, next_profiling_number());
    FILE *file = fits ? fopen(path, "a") : nullptr;
    if (!file) {
        loc_log("Could not open %s file", path);
        return;
    }
    g_list_file = file;
    loc_listfile_printf("\r\n\r\nList created with option:OnlyTagged=%s and hideDeletedDynstr=%s\r\n",
                        only_tagged ? "Yes" : "No", hide_deleted ? "Yes" : "No");
    loc_listfile_printf("Creation reason=%s\r\n\n", reason);
    const uint32_t options = MEMM_LIST_OPT_REQUESTED | (only_tagged ? MEMM_LIST_OPT_ONLY_TAGGED : 0u) |
                             (hide_deleted ? MEMM_LIST_OPT_HIDE_DELETED_DYNSTR : 0u);
    memm_print_objects4(prefix, options, loc_listfile_printf, depleted ? 250u : 0u);
    fclose(file);
    g_list_file = nullptr;
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

void memm_handle_list_objects(const char *prefix, int only_tagged, int hide_deleted, const char *reason) {
    loc_handle_list_objects(prefix, only_tagged, hide_deleted, reason);
}

} // extern "C"
