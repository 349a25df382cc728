// Failing system allocations: the Nth malloc, calloc, mmap or mprotect made
// by libmemm.so fails, for N = 1, 2, ... until a run completes without
// reaching N. Each run is a forked child going through start-up, pool and
// string-pool creation, table enlargement, extension growth and staged
// string writes. A failure must reach the caller as a null or an error
// code, leave both integrity checks passing and every descriptor accounted
// for, and leak nothing: the child exits normally, so LeakSanitizer checks
// it in the sanitized build.
//
// This binary defines the four functions, so they take precedence over the
// C library's (and over AddressSanitizer's interceptors) for every caller in
// the process; each forwards to the next definition, found with
// dlsym(RTLD_NEXT), which is the C library's in a plain build and the
// sanitizer's in a sanitized one. Only calls whose return address lies in
// libmemm.so (the object dladdr names) are counted, so the C library's, the
// C++ runtime's and the test's own allocations never fail.
#include <dlfcn.h>
#include <errno.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "fixture.h"

namespace {

long g_calls = 0, g_fail_at = 0; // library calls so far; the call to fail (0: none)
const char *g_failed = nullptr;  // name of the function failed

// Whether this call, made from `caller`, is the one to fail.
__attribute__((no_sanitize("address"))) bool fail_call(void *caller, const char *name) {
    Dl_info at;
    if (!g_fail_at || !dladdr(caller, &at) || !strstr(at.dli_fname, "libmemm.so") || ++g_calls != g_fail_at)
        return false;
    g_failed = name;
    errno = ENOMEM;
    return true;
}

enum ExitStatus { kFailureInjected = 0, kCompleted = 3, kCheckFailed = 4 };

// The scenario: start-up (the table's address range and first page, the
// storage index's, "dynstr_pool"), a pool, a string pool that enlarges the
// full table (records, two 32-byte buffers), an extension pool, and a text
// staged in a block until the collector makes the other buffer current.
// Steps run until one fails, which must be the one that met the injected
// failure; returns what went wrong, "" when nothing did.
std::string scenario() {
    const char *text = "twenty characters...";
    uint32_t plain = MEMM_INVALID_POOL, strings = MEMM_INVALID_POOL;
    dynstr *second = nullptr;
    const std::pair<const char *, std::function<bool()>> steps[] = { // each true when it failed
        {"memm_init", [&] { return memm_init(3, 2) != MEMM_OK; }},
        {"memm_initpool", [&] { return (plain = memm_initpool("plain", 2, 24, nullptr)) == MEMM_INVALID_POOL; }},
        {"dynstr_initpool", [&] { return (strings = dynstr_initpool("strings", 4, 64)) == MEMM_INVALID_POOL; }},
        // A chain that cannot grow says why; without the line the failure counts as hidden.
        {"extension growth", [&] {
             return memm_calloc(plain), memm_calloc(plain),
                    !memm_calloc(plain) && memm_test::log_count_prefix("[MEMM] Error: Failed to extend pool [") == 1;
         }},
        {"string write", [&] { return !dynstr_fromstring(strings, text); }},
        {"record allocation", [&] { return !(second = dynstr_calloc(strings)); }},
        {"staged string write",
         [&] { return dynstr_setstring(second, text) != MEMM_OK || strcmp(dynstr_getstring(second), text) != 0; }},
    };
    for (const auto &[what, step] : steps)
        if (const bool failed = step(); failed || g_failed)
            return failed && g_failed ? "" : std::string(what) + (failed ? " failed uninjected" : " hid a failure");
    return "";
}

// The child of one run: the exit status tells the parent what happened.
[[noreturn]] void run_child(long fail_at) {
    g_fail_at = fail_at;
    std::string problem = scenario();
    g_fail_at = 0;
    uint32_t pools = 0; // a pool that could not be made gives its descriptor back
    for (uint32_t id = 0; id < memm_get_number_of_pools(); id++)
        pools += memm_get_pool_nolock(id) && memm_get_pool_nolock(id)->storage;
    if (!memm_test::sound() || (pools && memm_get_pool_nolock(0)->cur_count != pools))
        problem += " an integrity check failed or a descriptor is lost;";
    if (!problem.empty())
        fprintf(stderr, "failing call %ld (%s): %s\n", fail_at, g_failed ? g_failed : "none", problem.c_str());
    // exit, not _exit: LeakSanitizer runs at exit.
    exit(!problem.empty() ? kCheckFailed : g_failed ? kFailureInjected : kCompleted);
}

} // namespace

// Each function resolves the next definition on first use. dlsym may
// allocate: a malloc or calloc made meanwhile (`resolving`) gets null, which
// dlsym copes with. AddressSanitizer's own start-up allocates through them
// before its shadow memory exists, so they (and fail_call) are not
// instrumented.
#define INTERPOSE(ret, name, failed, params, args)                                                             \
    __attribute__((no_sanitize("address"))) ret name params noexcept {                                         \
        static ret(*next) params = nullptr;                                                                    \
        static bool resolving = false;                                                                         \
        if (!next && !resolving)                                                                               \
            resolving = true, next = reinterpret_cast<ret(*) params>(dlsym(RTLD_NEXT, #name)), resolving = false; \
        return !next || fail_call(__builtin_return_address(0), #name) ? failed : next args;                    \
    }
extern "C" {
INTERPOSE(void *, malloc, nullptr, (size_t size), (size))
INTERPOSE(void *, calloc, nullptr, (size_t count, size_t size), (count, size))
INTERPOSE(void *, mmap, MAP_FAILED, (void *addr, size_t len, int prot, int flags, int fd, off_t offset),
          (addr, len, prot, flags, fd, offset))
INTERPOSE(int, mprotect, -1, (void *addr, size_t len, int prot), (addr, len, prot))
}

TEST(FailingAllocation, EveryFailureIsReportedAndLeavesTheLibrarySound) {
    long fail_at = 1;
    for (; fail_at < 100; fail_at++) {
        fflush(nullptr);
        const pid_t child = fork();
        if (child == 0)
            run_child(fail_at);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "call " << fail_at << ": killed by signal " << WTERMSIG(status);
        if (WEXITSTATUS(status) == kCompleted)
            break;
        // Anything else (a check, or LeakSanitizer's status) ends the loop.
        ASSERT_EQ(WEXITSTATUS(status), kFailureInjected) << "call " << fail_at;
    }
    // Start-up 5, "plain" 1, the string pool 4, extension 1, staging 1.
    EXPECT_EQ(fail_at, 13);
}
