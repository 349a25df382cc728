// The process-wide recursive lock and the diagnostic log.
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "memm_private.h"

namespace memm_detail {

Registry g_registry;

namespace {

#ifndef PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
// C libraries without a static recursive initialiser: set the type once.
void make_mutex_recursive() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&g_registry.mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}
#endif

// The lock is usable from the first call on, even one made by mistake
// before memm_init.
pthread_mutex_t *loc_mutex() {
#ifndef PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, make_mutex_recursive);
#endif
    return &g_registry.mutex;
}

} // namespace

void loc_lock(const char *reason) {
    int err = pthread_mutex_lock(loc_mutex());
    if (err == 0) {
        g_registry.prev_reason = reason;
        return;
    }
    // The caller goes on without the lock and unlocks all the same.
    loc_log("Could not lock %d (reason = %s, previous reason = %s\r\n", err, reason ? reason : "(null)",
            g_registry.prev_reason);
}

int loc_unlock() { return pthread_mutex_unlock(loc_mutex()); }

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
