// What the pool model cannot express, one row per process: start-up, bad
// pool arguments, depletion of a faulty pool or inside its own report, the
// gc hook, release hooks, reference limits and a second release, each with
// the exact log lines it leaves (a release line up to the address it
// shows). Growth by extensions and of the descriptor table, and plain
// depletion, are the model's (pool_model_test); the reserve flag and the
// base count are exercised by every string pool.
#include <string.h>

#include <functional>
#include <utility>

#include "fixture.h"
#include "report_files.h"

namespace {

using memm_test::fmt;
using Lines = std::vector<std::string>;

struct Row {
    const char *name;
    std::function<void()> run;
    Lines logs;
};
void PrintTo(const Row &row, std::ostream *os) { *os << row.name; } // also names the case

uint8_t *slot_of(void *obj) { return static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE; }
std::string released(const char *what) { return std::string("[MEMM] memm_free: ") + what; }
std::string depleted(const char *name) {
    return fmt("memm__calloc() failed for pool '%s' (pool depleted), POOL DEPLETED !!!!!!!!!!!!!!!", name);
}
std::string failed(const char *name) { return fmt("memm__calloc() failed for pool '%s' (pool depleted)", name); }
const std::string kBroken =
    "[MEMM] integrity check failed: pool 1:broken has bookkeeping error (free[0] + used[1] != alloc[2])\r\n";

// The gc hook: notes each attempt, releases g_to_release at the first one
// and answers "try again" g_give_up_after times.
std::vector<int32_t> g_attempts;
int g_give_up_after;
void *g_to_release;
int gc_hook(void *, int32_t attempt) {
    g_attempts.push_back(attempt);
    memm_free_nolock(std::exchange(g_to_release, nullptr));
    return int(g_attempts.size()) <= g_give_up_after;
}

// A release hook that marks its object's slot free, as a release of the
// object from inside the hook would.
const uint32_t kFreeState = MEMM_STATE_FREE;
uint32_t mark_free(void *obj) { return memcpy(slot_of(obj), &kFreeState, 4), MEMM_OK; }
uint32_t g_hook_calls;
uint32_t counting_free_ex(void *) { return g_hook_calls++, MEMM_OK; }
std::vector<void *> g_children;
uint32_t cascade(void *obj, memm_release_fn release) { // releases what obj owns, obj marked as being released
    uint32_t state;
    memcpy(&state, slot_of(obj), 4);
    g_hook_calls += (state & MEMM_STATE_RELEASING) != 0;
    for (void *child : std::exchange(g_children, {}))
        EXPECT_EQ(release(child), MEMM_OK);
    return MEMM_OK;
}
// Whether the lock was held while the hook ran: only its holder may unlock it.
bool g_held;
uint32_t note_lock(void *, memm_release_fn) {
    if ((g_held = memm_unlock() == 0))
        memm_lock("again");
    return MEMM_OK;
}
uint32_t g_hungry;
void allocating_print2(void *, memm_print_fn) { EXPECT_EQ(memm_calloc(g_hungry), nullptr); }

const Row kRows[] = {
    // A failed start leaves the library not started. Pool names must be
    // unique; the size a failure shows is the slot's once the arguments are
    // valid.
    {"StartUpAndBadPoolArguments",
     [] {
         EXPECT_EQ(memm_init(1, 0), MEMM_ERR_INVALID_ARG);
         EXPECT_EQ(memm_init(16, 6000000), MEMM_ERR_NO_MEMORY); // the string family undoes the start
         EXPECT_EQ(memm_initpool("early", 4, 4, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_init(2, 1), MEMM_OK);
         EXPECT_STREQ(memm_get_poolname2(1), "dynstr_pool");
         EXPECT_STREQ(dynstr_getstring(dynstr_fromstring(dynstr_initpool("s", 4, 64), "text")), "text");
         EXPECT_EQ(memm_init(8, 0), MEMM_ERR_ALREADY_INITIALIZED);
         EXPECT_EQ(memm_initpool("zero", 0, 8, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_initpool("nosize", 4, 0, nullptr), MEMM_INVALID_POOL);
         EXPECT_NE(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_initpool(MEMM_POOLDESC_NAME, 4, 32, nullptr), MEMM_INVALID_POOL);
     },
     {"[MEMM] Error: memm_init() needs room for at least 2 pools (asked for 1)",
      "[MEMM] Failed to allocate dynstr_pool buffer (cnt=6000000, objsize=400)", "dynstring init failed",
      "loc__initpool() called before mem_init()", "[MEMM] Failed to allocate early buffer (cnt=4, objsize=4)",
      fmt("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (5 elements)", MEMM_POOLDESC_NAME),
      "memm_init() may only be called once per process!", "[MEMM] Failed to allocate zero buffer (cnt=0, objsize=8)",
      "[MEMM] Failed to allocate nosize buffer (cnt=4, objsize=0)",
      "[MEMM] Failed to allocate dup buffer (cnt=4, objsize=48)",
      fmt("[MEMM] Failed to allocate %s buffer (cnt=4, objsize=48)", MEMM_POOLDESC_NAME)}},
    // Every allocation from a depleted pool whose bookkeeping is wrong logs
    // the integrity fault; the dump of the first one shows it too. A print
    // hook that allocates from its depleted pool during the report fails
    // without starting the report again.
    {"DepletionOfAFaultyPoolAndDuringItsOwnReport",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool("broken", 2, 8, nullptr);
         memm_disallow_expansion(id);
         memm_test::fill(id, 2);
         memm_get_pool_nolock(id)->cur_count = 1;
         memm_test::clear_logs();
         EXPECT_TRUE(!memm_calloc(id) && !memm_calloc(id));
         memm_get_pool_nolock(id)->cur_count = 2;
         memm_pool_options opts = {};
         opts.print2 = allocating_print2;
         g_hungry = memm_initpool("hungry", 2, 8, &opts);
         memm_disallow_expansion(g_hungry);
         memm_test::fill(g_hungry, 2);
         EXPECT_EQ(memm_calloc(g_hungry), nullptr);
     },
     {kBroken, depleted("broken"), "[MEMM] ERROR: actual object count (2) differs from pool count (1)\r\n",
      failed("broken"), kBroken, failed("broken"), depleted("hungry"), failed("hungry"), failed("hungry"),
      failed("hungry")}},
    // A pool with a gc hook never grows: with fewer than two free slots it
    // calls the hook, and tries again, until the hook gives up or for 64
    // attempts at most. Each try counts as an allocation call: one that
    // found too few slots as a dynamic-pool call, one that took a slot as a
    // first-free call.
    {"TheGcHook",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         memm_pool_options opts = {};
         opts.gc = gc_hook;
         const uint32_t id = memm_initpool("collected", 4, 8, &opts);
         g_to_release = memm_test::fill(id, 3)[0], g_give_up_after = 1;
         EXPECT_NE(memm_calloc(id), nullptr); // attempt 0 frees one: two free now
         const memm_pooldesc *p = memm_get_pool_nolock(id);
         EXPECT_EQ(std::vector<uint64_t>(p->alloc_calls, p->alloc_calls + 3), (std::vector<uint64_t>{5, 4, 1}));
         g_give_up_after = 3;
         EXPECT_EQ(memm_calloc(id), nullptr); // giving up after attempts 0 to 2 fails although one slot is free
         g_give_up_after = 1 << 30;
         EXPECT_EQ(memm_calloc(id), nullptr); // an endless hook is capped at 64 attempts
         memm_lock("test");
         void *last = memm_calloc_nolock_nogc(id); // a nogc allocation takes the last slot without the hook
         memm_unlock();
         EXPECT_TRUE(last && g_attempts.size() == 1 + 3 + 64u && g_attempts[3] == 2 && g_attempts.back() == 63);
     },
     {}},
    // A hook that marks its object free made a recursive release. free2_ex
    // runs without the lock (unless its caller holds it) and may release
    // what its object owns.
    {"ReleaseHooks",
     [] {
         ASSERT_EQ(memm_init(8, 0), MEMM_OK);
         const uint32_t recursive = memm_initpool2("recursive", 4, 8, nullptr, mark_free);
         EXPECT_EQ(memm_free(memm_calloc(recursive)), MEMM_OK);
         EXPECT_EQ(memm_get_pool_nolock(recursive)->cur_count, 1u); // not released a second time
         const uint32_t owner = memm_initpool3("owner", 8, 16, nullptr, cascade);
         void *obj = memm_calloc(owner);
         g_children = {memm_calloc(owner), memm_calloc(owner)};
         EXPECT_EQ(memm_free(obj), MEMM_OK);
         EXPECT_TRUE(g_hook_calls == 3u && memm_get_pool_nolock(owner)->cur_count == 0u); // the owner and each child
         const uint32_t noting = memm_initpool3("noting", 4, 16, nullptr, note_lock);
         memm_free(memm_calloc(noting));
         EXPECT_FALSE(g_held);
         memm_lock("caller");
         memm_free_nolock(memm_calloc_nolock(noting));
         memm_unlock();
         EXPECT_TRUE(g_held);
         obj = memm_calloc(memm_initpool3("failing", 4, 16, nullptr, [](void *, memm_release_fn) { return 5u; }));
         EXPECT_TRUE(memm_free(obj) == MEMM_ERR_HOOK_FAILED && memm_isvalidobj(obj));
     },
     {released("Recursive release detected"), released("free2_ex failed for")}},
    // References past the limit are refused; releases drop them one by one,
    // leaving the tag mark alone, before the last one runs the hook. A second
    // release is logged and ignored, leaving the free list intact.
    {"ReferenceLimitsAndBadReleases",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool2("shared", 4, 8, nullptr, counting_free_ex);
         void *obj = memm_calloc(id);
         const memm_pooldesc *p = memm_get_pool_nolock(id);
         uint32_t tagged = id | MEMM_STATE_TAGGED;
         memcpy(slot_of(obj), &tagged, 4);
         for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
             ASSERT_EQ(memm_refalloc(obj), obj);
         EXPECT_TRUE(memm_refalloc(obj) == nullptr && memm_get_refcount(obj) == MEMM_MAX_REFS);
         EXPECT_TRUE(p->ref_max == int32_t(MEMM_MAX_EXTRA_REFS) && memm_get_pool_nolock(0)->ref_max == p->ref_max);
         for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
             ASSERT_EQ(memm_free(obj), MEMM_OK);
         EXPECT_TRUE(g_hook_calls == 0u && p->ref_cur == 0 && memcmp(slot_of(obj), &tagged, 4) == 0);
         EXPECT_NE(memm_calloc(id), nullptr);
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && p->free_calls == MEMM_MAX_REFS && !memm_refalloc(obj));
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && p->cur_count == 1u && g_hook_calls == 1u);
         EXPECT_TRUE(memm_calloc(id) == obj && memm_calloc(id) != obj); // the free list is intact
     },
     {"memm__refalloc() failed (too many references for this object)",
      "memm__refalloc() failed (invalid object passed)", "memm_free(): double Free",
      released("Attempt to release invalid pointer")}},
};

class PoolCase : public ::testing::TestWithParam<Row> {};

// Log lines up to the address a release line shows, which the expected
// lines leave out.
Lines logs_seen() {
    Lines lines;
    for (const std::string &line : memm_test::log_texts())
        lines.push_back(line.substr(0, line.find(": 0x")));
    return lines;
}

} // namespace

TEST_P(PoolCase, Run) {
    memm_test::clear_logs();
    GetParam().run();
    EXPECT_EQ(logs_seen(), GetParam().logs);
    EXPECT_TRUE(memm_test::sound());
}

INSTANTIATE_TEST_SUITE_P(Rows, PoolCase, ::testing::ValuesIn(kRows), ::testing::PrintToStringParamName());

#if defined(__SANITIZE_ADDRESS__)
#define POOL_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POOL_TEST_ASAN 1
#endif
#endif

// Built with AddressSanitizer only: a released object is poisoned behind
// its free link, so reading it is a use after release that it reports;
// taking the slot again makes it readable. 60-byte slots put every second
// slot 4 bytes off an 8-byte boundary.
#ifdef POOL_TEST_ASAN
TEST(ReleaseDeathTest, ReadingAReleasedObjectIsReported) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const uint32_t id = memm_initpool("watched", 4, 44, nullptr);
    auto *a = static_cast<volatile uint8_t *>(memm_calloc(id)), *b = static_cast<volatile uint8_t *>(memm_calloc(id));
    ASSERT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 4u);
    ASSERT_EQ(memm_free(const_cast<uint8_t *>(a)), MEMM_OK);
    ASSERT_EQ(memm_free(const_cast<uint8_t *>(b)), MEMM_OK);
    EXPECT_DEATH((void)a[20], "use-after-poison");
    EXPECT_DEATH((void)b[8], "use-after-poison"); // shares a granule with the link
    EXPECT_EQ(memm_calloc(id), const_cast<uint8_t *>(b));
    EXPECT_EQ(b[20], 0);
}
#endif
