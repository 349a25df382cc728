// Failing system allocations: the Nth malloc, calloc, mmap or mprotect made
// by libmemm.so fails, for N = 1, 2, ... until a run completes without
// reaching N. Each run is a forked child going through start-up, pool and
// string-pool creation, table enlargement, extension growth and staged
// string writes. A failure must reach the caller as a null or an error
// code, leave both integrity checks passing, and leak nothing: the child
// exits normally, so LeakSanitizer checks it in the sanitized build.
//
// This binary defines the four functions, so they take precedence over the
// C library's (and over AddressSanitizer's interceptors) for every caller in
// the process; each forwards to the next definition, found with
// dlsym(RTLD_NEXT), which is the C library's in a plain build and the
// sanitizer's in a sanitized one. Only calls whose return address lies in
// libmemm.so are counted, so the C library's, the C++ runtime's and the
// test's own allocations never fail.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "dynstr.h"
#include "memm.h"
#include "syslog_capture.h"

namespace {

struct Interposer {
    void *(*malloc)(size_t) = nullptr;
    void *(*calloc)(size_t, size_t) = nullptr;
    void *(*mmap)(void *, size_t, int, int, int, off_t) = nullptr;
    int (*mprotect)(void *, size_t, int) = nullptr;
    bool resolving = false;
    uintptr_t lib_begin = 0, lib_end = 0; // libmemm.so's mapped range
    long calls = 0;                       // library calls counted so far
    long fail_at = 0;                     // the call to fail; 0 = none
    const char *failed = nullptr;         // name of the function failed
};
Interposer g_next;

// Resolved on first use. dlsym may allocate; a call made meanwhile gets
// null, which dlsym copes with.
bool resolve() {
    if (g_next.mprotect)
        return true;
    if (g_next.resolving)
        return false;
    g_next.resolving = true;
    g_next.malloc = reinterpret_cast<void *(*)(size_t)>(dlsym(RTLD_NEXT, "malloc"));
    g_next.calloc = reinterpret_cast<void *(*)(size_t, size_t)>(dlsym(RTLD_NEXT, "calloc"));
    g_next.mmap = reinterpret_cast<void *(*)(void *, size_t, int, int, int, off_t)>(dlsym(RTLD_NEXT, "mmap"));
    g_next.mprotect = reinterpret_cast<int (*)(void *, size_t, int)>(dlsym(RTLD_NEXT, "mprotect"));
    g_next.resolving = false;
    return g_next.malloc && g_next.calloc && g_next.mmap && g_next.mprotect;
}

bool fail_call(void *caller, const char *name) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(caller);
    if (!g_next.fail_at || at < g_next.lib_begin || at >= g_next.lib_end || ++g_next.calls != g_next.fail_at)
        return false;
    g_next.failed = name;
    errno = ENOMEM;
    return true;
}

int find_library(struct dl_phdr_info *info, size_t, void *) {
    if (!strstr(info->dlpi_name, "libmemm.so"))
        return 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD)
            continue;
        const uintptr_t begin = info->dlpi_addr + ph.p_vaddr, end = begin + ph.p_memsz;
        if (!g_next.lib_begin || begin < g_next.lib_begin)
            g_next.lib_begin = begin;
        if (end > g_next.lib_end)
            g_next.lib_end = end;
    }
    return 1;
}

} // namespace

extern "C" {

void *malloc(size_t size) noexcept {
    if (!resolve())
        return nullptr;
    return fail_call(__builtin_return_address(0), "malloc") ? nullptr : g_next.malloc(size);
}

void *calloc(size_t count, size_t size) noexcept {
    if (!resolve())
        return nullptr;
    return fail_call(__builtin_return_address(0), "calloc") ? nullptr : g_next.calloc(count, size);
}

void *mmap(void *addr, size_t len, int prot, int flags, int fd, off_t offset) noexcept {
    if (!resolve())
        return MAP_FAILED;
    return fail_call(__builtin_return_address(0), "mmap") ? MAP_FAILED
                                                          : g_next.mmap(addr, len, prot, flags, fd, offset);
}

int mprotect(void *addr, size_t len, int prot) noexcept {
    if (!resolve())
        return -1;
    return fail_call(__builtin_return_address(0), "mprotect") ? -1 : g_next.mprotect(addr, len, prot);
}

} // extern "C"

namespace {

constexpr int kFailureInjected = 0;
constexpr int kCompleted = 3;
constexpr int kCheckFailed = 4;

// Runs one step: `failed` says whether its result reports a failure, which
// must happen exactly when the step met the injected failure.
bool step(const char *what, bool failed, std::string *problem) {
    const bool injected = g_next.failed != nullptr;
    if (failed != injected)
        *problem = std::string(what) + (failed ? " failed without an injected failure" : " hid the failure of " +
                                                                                              std::string(g_next.failed));
    return !failed && problem->empty();
}

// The scenario; returns what went wrong, "" when nothing did. Stops at the
// first step that fails.
std::string scenario(uint32_t *strings) {
    std::string problem;
    // Start-up: the table's address range, its first page, "dynstr_pool".
    // Three descriptors: pool 0, "dynstr_pool" and one more.
    if (!step("memm_init", memm_init(3, 2) != MEMM_OK, &problem))
        return problem;
    const uint32_t plain = memm_initpool("plain", 2, 24, nullptr);
    if (!step("memm_initpool", plain == MEMM_INVALID_POOL, &problem))
        return problem;
    // The table is full: the record pool's descriptor enlarges it. Then the
    // record storage and two string buffers of 32 bytes.
    *strings = dynstr_initpool("strings", 4, 64);
    if (!step("dynstr_initpool", *strings == MEMM_INVALID_POOL, &problem))
        return problem;
    // The third object needs an extension pool.
    memm_calloc(plain);
    memm_calloc(plain);
    if (!step("extension growth", !memm_calloc(plain), &problem))
        return problem;
    // 21 bytes fit the first buffer; the next 21 do not fit behind them and
    // are staged in a block until the collector makes the other buffer current.
    const char *text = "twenty characters...";
    dynstr *first = dynstr_fromstring(*strings, text);
    if (!step("string write", !first, &problem))
        return problem;
    dynstr *second = dynstr_calloc(*strings);
    if (!step("record allocation", !second, &problem))
        return problem;
    const uint32_t staged = dynstr_setstring(second, text);
    if (!step("staged string write", staged != MEMM_OK || strcmp(dynstr_getstring(second), text) != 0, &problem))
        return problem;
    return "";
}

// The child of one run: the exit status tells the parent what happened.
[[noreturn]] void run_child(long fail_at) {
    // The depletion reports print to standard output; only problems matter here.
    if (!freopen("/dev/null", "w", stdout))
        exit(kCheckFailed);
    g_next.fail_at = fail_at;
    uint32_t strings = MEMM_INVALID_POOL;
    std::string problem = scenario(&strings);
    g_next.fail_at = 0;
    const bool injected = g_next.failed != nullptr;
    memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr); // runs the pool integrity check
    if (memm_test::log_count_prefix("[MEMM] integrity check failed") != 0)
        problem += " pool integrity check failed;";
    if (strings != MEMM_INVALID_POOL && dynstr_integrity_check(strings, 0) != 1)
        problem += " string pool integrity check failed;";
    if (!problem.empty()) {
        fprintf(stderr, "failing call %ld (%s): %s\n", fail_at, injected ? g_next.failed : "none", problem.c_str());
        exit(kCheckFailed);
    }
    // exit, not _exit: LeakSanitizer runs at exit.
    exit(injected ? kFailureInjected : kCompleted);
}

} // namespace

TEST(FailingAllocation, EveryFailureIsReportedAndLeavesTheLibrarySound) {
    ASSERT_NE(dl_iterate_phdr(find_library, nullptr), 0);
    ASSERT_LT(g_next.lib_begin, g_next.lib_end);
    long fail_at = 1;
    for (; fail_at < 100; fail_at++) {
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
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
    // Start-up 5 (table range and first page, storage index range and first
    // page, "dynstr_pool"), "plain" 1, the string pool 4 (enlargement,
    // records, two buffers), extension 1, staging 1.
    EXPECT_EQ(fail_at, 13);
}
