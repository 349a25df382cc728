// The process-wide recursive lock and the diagnostic log.
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "memm_private.h"

namespace memm_detail {

Registry g_registry;

void loc_lock(const char *reason) {
    int err = pthread_mutex_lock(&g_registry.mutex);
    if (err == 0) {
        g_registry.prev_reason = reason;
        return;
    }
    // The caller goes on without the lock and unlocks all the same.
    loc_log("Could not lock %d (reason = %s, previous reason = %s\r\n", err, reason ? reason : "(null)",
            g_registry.prev_reason);
}

int loc_unlock() { return pthread_mutex_unlock(&g_registry.mutex); }

void loc_log(const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    syslog(LOG_DEBUG, "%s", line);
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

void memm_lock(const char *reason) { loc_lock(reason); }

int memm_unlock(void) { return loc_unlock(); }

} // extern "C"
