// The process-wide recursive lock (its fast halves are inline in
// memm_private.h) and the diagnostic log: syslog at LOG_DEBUG, and also
// standard error under MEMM_LOG=stderr.
//
// Waiting: a thread that finds the word taken swaps in 2 and sleeps on the
// futex while the word stays 2. A thread that gets the lock this way leaves
// the word at 2, as others may still be asleep, so the unlock after it wakes
// the next one. Every unlock that frees a word of 2 wakes one sleeper, so a
// free lock never sits idle while a thread sleeps on it, and no wait relies
// on a timeout. There is no spinning and no hand-off: a running thread may
// take the lock before the woken one, which then sleeps again (the word is 2
// once more, so it is woken again by the next unlock).
#include <linux/futex.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include "memm_private.h"

namespace memm_detail {

Registry g_registry;

__thread char loc_thread_token;

namespace {

long futex(std::atomic<uint32_t> *word, int op, uint32_t value) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t *>(word), op, value, nullptr, nullptr, 0);
}

} // namespace

void loc_lock_wait() {
    std::atomic<uint32_t> &word = g_registry.lock.word;
    // An early return of the wait (a spurious wake-up, a signal, or a word
    // that changed before the sleep began) just goes round again.
    while (word.exchange(2, std::memory_order_acquire) != 0)
        futex(&word, FUTEX_WAIT_PRIVATE, 2);
}

void loc_lock_wake() { futex(&g_registry.lock.word, FUTEX_WAKE_PRIVATE, 1); }

void loc_lock_refused(int err, const char *reason) {
    // The caller goes on without a further level of the lock and unlocks
    // all the same.
    loc_log("Could not lock %d (reason = %s, previous reason = %s\r\n", err, reason ? reason : "(null)",
            g_registry.prev_reason);
}

void loc_log(const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    const int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    syslog(LOG_DEBUG, "%s", line);
    if (n >= 0 && loc_log_to_stderr()) {
        // One write per line, so lines of two threads never interleave. A
        // text that ends its own line gets no second line end.
        const size_t len = n < int(sizeof line) ? size_t(n) : sizeof line - 1;
        const bool ended = len && line[len - 1] == '\n';
        iovec parts[2] = {{line, len}, {const_cast<char *>("\n"), 1}};
        ssize_t ignored = writev(STDERR_FILENO, parts, ended ? 1 : 2);
        (void)ignored;
    }
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

void memm_lock(const char *reason) { loc_lock(reason); }

int memm_unlock(void) { return loc_unlock(); }

} // extern "C"
