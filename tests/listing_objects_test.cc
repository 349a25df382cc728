// Object lines and listings: tag options, list filters, the limit, the count
// check and extension pools.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::print_capture;
using memm_test::take_printed;

namespace {

unsigned long addr(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

void *allocfrom(void *obj) {
    void *caller;
    memcpy(&caller, static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE + 8, sizeof caller);
    return caller;
}

std::string object_line(void *obj, const char *name, int index, int refs = 1, bool tagged = false) {
    return fmt("%d.%s.%d.0x%08lx allocfrom=%p", int(memm_get_poolid(obj)), name, index, addr(obj), allocfrom(obj)) +
           (refs > 1 ? fmt(".[%d refs]\n", refs) : "") + (tagged ? ".[tagged]\n" : ".[untagged]\n");
}

std::string entry(void *obj, const char *name, int index, bool tagged = false) {
    return " \r\n" + object_line(obj, name, index, 1, tagged) + "\r\n";
}

std::string pool_section(const char *name, int cur, int max, int avail, const std::string &objects) {
    return fmt("\r\n====== LIST OF STATISTICS OF POOL %s ======\r\n", name) +
           fmt("%s%susage cur/max/avail (max.%%): %d/%d/%d (%d%%)\r\n", name, "..........................", cur, max,
               avail, max * 100 / avail) +
           fmt("\r\n====== LIST OF OBJECTS IN POOL %s ======\r\n", name) + objects;
}

std::string listing(const char *prefix, uint32_t options, uint32_t limit = 0) {
    take_printed();
    memm_print_objects4(prefix, options, print_capture, limit);
    return take_printed();
}

std::string printed_object(void *obj, int details) {
    take_printed();
    EXPECT_EQ(memm_printobject2(obj, details, print_capture), 0);
    return take_printed();
}

std::vector<void *> fill(uint32_t id, int n) {
    std::vector<void *> objs;
    for (int i = 0; i < n; i++)
        objs.push_back(memm_calloc(id));
    return objs;
}

std::string g_hook_calls;
void print_hook(void *) { g_hook_calls += "print;"; }
void print2_hook(void *obj, memm_print_fn print) { print(" - my object %d", *static_cast<int *>(obj)); }

} // namespace

TEST(ListingObjectLine, NullReleasedReferencedAndTaggedObjects) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("lines", 4, 8, nullptr);
    std::vector<void *> objs = fill(id, 3);
    EXPECT_NE(allocfrom(objs[0]), nullptr);

    EXPECT_EQ(printed_object(nullptr, 1), " Obj is 0x0: null !!\n");
    EXPECT_EQ(printed_object(objs[1], 1), object_line(objs[1], "lines", 1));
    memm_refalloc(objs[1]);
    memm_refalloc(objs[1]);
    EXPECT_EQ(printed_object(objs[1], 1), object_line(objs[1], "lines", 1, 3));
    memm_tag_objects("lines", 1);
    EXPECT_EQ(printed_object(objs[2], 1), object_line(objs[2], "lines", 2, 1, true));
    memm_free(objs[2]);
    EXPECT_EQ(printed_object(objs[2], 1), fmt("\n ?.?.?.0x%08lx: invalid object\n", addr(objs[2])));
}

TEST(ListingObjectLine, DetailsPreferPrint2OverPrint) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options both{};
    both.print = print_hook;
    both.print2 = print2_hook;
    uint32_t with_both = memm_initpool("both", 2, 8, &both);
    uint32_t only_print = memm_initpool2("plain", 2, 8, print_hook, nullptr);
    int *a = static_cast<int *>(memm_calloc(with_both));
    *a = 42;
    void *b = memm_calloc(only_print);

    EXPECT_EQ(printed_object(a, 1), object_line(a, "both", 0) + " - my object 42");
    EXPECT_EQ(printed_object(a, 0), object_line(a, "both", 0));
    EXPECT_EQ(printed_object(b, 1), object_line(b, "plain", 0)); // print prints by its own means
    EXPECT_EQ(g_hook_calls, "print;");
}

TEST(ListingObjects, UntaggedByDefaultTaggedOnRequest) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("tg", 6, 8, nullptr);
    memm_initpool("other", 2, 8, nullptr);
    std::vector<void *> objs = fill(id, 2);
    memm_tag_objects("tg", 1);
    for (void *o : fill(id, 2))
        objs.push_back(o);

    EXPECT_EQ(listing("tg", 0), pool_section("tg", 4, 4, 6, entry(objs[2], "tg", 2) + entry(objs[3], "tg", 3)) + "\r\n");
    EXPECT_EQ(listing("tg", MEMM_LIST_OPT_ONLY_TAGGED),
              pool_section("tg", 4, 4, 6, entry(objs[0], "tg", 0, true) + entry(objs[1], "tg", 1, true)) + "\r\n");
    memm_tag_objects("tg", 1);
    EXPECT_EQ(listing("tg", 0), pool_section("tg", 4, 4, 6, "") + "\r\n");
    EXPECT_EQ(listing("nothing", 0), "\r\n");
}

namespace {
std::vector<uint32_t> g_filter_options;
int odd_only(void *obj, uint32_t options) {
    g_filter_options.push_back(options);
    return *static_cast<int *>(obj) % 2;
}
int g_scratch_seen;
void listing_stats(void *, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    g_scratch_seen += cur && max && avail;
    *cur += 1;
    print("    - pool lines\r\n");
}
} // namespace

TEST(ListingObjects, ListFilterAndPrintStatsHooks) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.list_filter = odd_only;
    opts.print_stats = listing_stats;
    uint32_t id = memm_initpool("filtered", 4, 8, &opts);
    std::vector<void *> objs = fill(id, 3);
    for (int i = 0; i < 3; i++)
        *static_cast<int *>(objs[size_t(i)]) = i;
    const uint32_t options = MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_HIDE_DELETED_DYNSTR;
    std::string out = listing("filtered", options);
    std::string expected = pool_section("filtered", 3, 3, 4, entry(objs[1], "filtered", 1)) + "\r\n";
    expected.insert(expected.find("\r\n====== LIST OF OBJECTS"), "    - pool lines\r\n");
    EXPECT_EQ(out, expected);
    EXPECT_EQ(g_filter_options, std::vector<uint32_t>(3, options));
    EXPECT_EQ(g_scratch_seen, 1);
}

TEST(ListingObjects, LimitListsTheLastLPlusOneObjects) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("many", 300, 8, nullptr);
    std::vector<void *> objs = fill(id, 300);
    std::string expected;
    for (int i = 49; i < 300; i++)
        expected += entry(objs[size_t(i)], "many", i);
    EXPECT_EQ(listing("many", 0, 250), pool_section("many", 300, 300, 300, expected) + "\r\n");

    // The limit counts objects before the tag test; the next listing starts anew.
    memm_tag_objects("many", 1);
    EXPECT_EQ(listing("many", MEMM_LIST_OPT_ONLY_TAGGED, 298).find(entry(objs[0], "many", 0, true)), std::string::npos);
    EXPECT_NE(listing("many", MEMM_LIST_OPT_ONLY_TAGGED, 0).find(entry(objs[0], "many", 0, true)), std::string::npos);
    EXPECT_NE(listing("many", MEMM_LIST_OPT_ONLY_TAGGED, 299).find(entry(objs[0], "many", 0, true)), std::string::npos);
}

TEST(ListingObjects, ExtensionPoolsAreListedOnTheirOwnTurn) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("grown", 10, 8, nullptr);
    std::vector<void *> objs = fill(id, 11);
    std::string root_objects;
    for (int i = 0; i < 10; i++)
        root_objects += entry(objs[size_t(i)], "grown", i);
    EXPECT_EQ(listing("grown", 0), pool_section("grown", 10, 10, 10, root_objects) +
                                       pool_section("grown", 1, 1, 3, entry(objs[10], "grown", 0)) + "\r\n");
}

TEST(ListingObjects, CountMismatchIsLoggedAndTheListingGoesOn) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t a = memm_initpool("cnt_a", 4, 8, nullptr);
    uint32_t b = memm_initpool("cnt_b", 4, 8, nullptr);
    fill(a, 2);
    void *last = fill(b, 1)[0];
    memm_get_pool_nolock(a)->cur_count = 3;
    std::string out = listing("cnt_", 0);
    EXPECT_EQ(memm_test::log_count(fmt("[MEMM] ERROR: actual object count (%d) differs from pool count (%d)\r\n", 2, 3)),
              1u);
    EXPECT_NE(out.find(entry(last, "cnt_b", 0)), std::string::npos);
}
