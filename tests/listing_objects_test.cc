// Object lines, listings (tag options, limit, filters, extension pools, the
// count check) and tagging.
#include <gtest/gtest.h>

#include "dynstr.h"
#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using namespace memm_test;

namespace {

std::string object_line(void *obj, const char *name, int index, int refs = 1, bool tagged = false) {
    const memm_objhdr *hdr = reinterpret_cast<memm_objhdr *>(static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE);
    return fmt("%d.%s.%d.0x%08lx allocfrom=%p", int(memm_get_poolid(obj)), name, index, addr(obj), hdr->allocfrom) +
           (refs > 1 ? fmt(".[%d refs]\n", refs) : "") + (tagged ? ".[tagged]\n" : ".[untagged]\n");
}

std::string entry(void *obj, const char *name, int index, bool tagged = false) {
    return " \r\n" + object_line(obj, name, index, 1, tagged) + "\r\n";
}

std::string section(const char *name, int cur, int max, int avail, const std::string &objects,
                    const char *hook_lines = "") {
    return fmt("\r\n====== LIST OF STATISTICS OF POOL %s ======\r\n", name) +
           fmt("%s%susage cur/max/avail (max.%%): %d/%d/%d (%d%%)\r\n", name, "..........................", cur, max,
               avail, max * 100 / avail) +
           hook_lines + fmt("\r\n====== LIST OF OBJECTS IN POOL %s ======\r\n", name) + objects;
}

std::string printed(void *obj, int details) {
    take_printed();
    EXPECT_EQ(memm_printobject2(obj, details, print_capture), 0);
    return take_printed();
}

bool tagged(void *obj) { return printed(obj, 0).find(".[tagged]") != std::string::npos; }

int g_print_calls;
void print_hook(void *) { g_print_calls++; }
void print2_hook(void *obj, memm_print_fn print) { print(" - my object %d", *static_cast<int *>(obj)); }

// Listings hand the hook scratch totals, never null ones.
const char kPoolLines[] = "    - pool lines\r\n";
void pool_lines(void *, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    *cur += *max + *avail;
    print("%s", kPoolLines);
}

} // namespace

TEST(ListingObjectLine, EveryKindOfObject) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options both{};
    both.print = print_hook;
    both.print2 = print2_hook;
    std::vector<void *> objs = fill(memm_initpool("lines", 4, 8, &both), 3);
    *static_cast<int *>(objs[0]) = 42;
    void *plain = memm_calloc(memm_initpool2("plain", 2, 8, print_hook, nullptr));

    EXPECT_EQ(printed(nullptr, 1), " Obj is 0x0: null !!\n");
    EXPECT_EQ(printed(objs[0], 0), object_line(objs[0], "lines", 0));
    EXPECT_EQ(printed(objs[0], 1), object_line(objs[0], "lines", 0) + " - my object 42"); // print2 before print
    EXPECT_EQ(printed(plain, 1), object_line(plain, "plain", 0)); // print prints by its own means
    EXPECT_EQ(g_print_calls, 1);
    memm_refalloc(objs[1]);
    memm_refalloc(objs[1]);
    memm_tag_objects("lines", 1);
    EXPECT_EQ(printed(objs[1], 0), object_line(objs[1], "lines", 1, 3, true));
    memm_free(objs[2]);
    EXPECT_EQ(printed(objs[2], 1), fmt("\n ?.?.?.0x%08lx: invalid object\n", addr(objs[2])));
}

TEST(ListingObjects, OptionsLimitExtensionsAndCountCheck) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = pool_lines;
    const uint32_t id = memm_initpool("many", 10, 8, &opts);
    memm_initpool("other", 2, 8, nullptr);
    std::vector<void *> objs = fill(id, 5);
    memm_tag_objects("many", 1);
    for (void *o : fill(id, 6))
        objs.push_back(o); // objects 0-4 tagged, 5-10 not; 10 in an extension pool, listed on its own turn

    // A limit L passes over all but the last L + 1 objects of each pool,
    // counting before the tag test; from 2^31 on it counts as no limit.
    const uint32_t T = MEMM_LIST_OPT_ONLY_TAGGED;
    const uint32_t cases[][3] = {// options, limit, first index listed
                                 {0, 0, 0},          {0, 2, 7}, {0, 6, 3}, {0, 1u << 31, 0},
                                 {0, UINT32_MAX, 0}, {T, 0, 0}, {T, 6, 3}, {T, 9, 0}};
    for (const auto &c : cases) {
        std::string objects;
        for (uint32_t i = c[2]; i < 10; i++)
            if ((i < 5) == (c[0] == T))
                objects += entry(objs[i], "many", int(i), i < 5);
        const std::string ext = section("many", 1, 1, 3, c[0] == T ? "" : entry(objs[10], "many", 0), kPoolLines);
        EXPECT_EQ(listing("many", c[0], c[1]), section("many", 10, 10, 10, objects, kPoolLines) + ext + "\r\n")
            << c[0] << " " << c[1];
    }
    EXPECT_EQ(listing("nothing", 0), "\r\n");
    // Standard output gets the line that ends each pool's objects and pool
    // 0's descriptor lines; the rest goes to the print function.
    std::string every_pool, expected;
    const std::string out = output_to_fd(1, [&every_pool] { every_pool = listing(nullptr, 0); });
    const char *const kObjects = "LIST OF OBJECTS";
    for (size_t at = every_pool.find(kObjects); at != std::string::npos; at = every_pool.find(kObjects, at + 1))
        expected += "\r\n";
    EXPECT_EQ(out.substr(0, 10), " - 'memm_p");
    EXPECT_EQ(out.substr(out.size() - expected.size() + 2), expected.substr(2));
    EXPECT_EQ(every_pool.find(" - 'other'"), std::string::npos);

    // String pools hide deleted placeholders on request, through their list_filter.
    const uint32_t strings = dynstr_initpool("hiding", 20, 4096);
    dynstr *kept = dynstr_fromstring(strings, "kept"), *gone = dynstr_fromstring(strings, "gone");
    dynstr_fromstring(strings, "after");
    memm_free(gone);
    const std::string all = listing("hiding", 0), shown = listing("hiding", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR);
    auto has = [](const std::string &text, void *obj) {
        return text.find(fmt("0x%08lx", addr(obj))) != std::string::npos;
    };
    EXPECT_TRUE(has(all, gone) && has(shown, kept));
    EXPECT_FALSE(has(shown, gone));
    EXPECT_NE(shown.find(" - bnr="), std::string::npos); // records print through the pool's print2

    memm_get_pool_nolock(id)->cur_count = 11; // logged, and the listing goes on
    EXPECT_NE(listing("many", 0).find(section("many", 1, 1, 3, entry(objs[10], "many", 0), kPoolLines)),
              std::string::npos);
    EXPECT_EQ(log_count(fmt("[MEMM] ERROR: actual object count (%d) differs from pool count (%d)\r\n", 10, 11)), 1u);
}

TEST(ListingTagging, MarksSelectedChainsAndLogsEachPool) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t a = memm_initpool("t_a", 10, 8, nullptr);
    memm_initpool("t_b", 4, 8, nullptr);
    std::vector<void *> objs = fill(a, 12); // 2 of them in an extension pool
    void *other = memm_calloc(memm_initpool("u_c", 4, 8, nullptr));
    memm_refalloc(objs[0]);
    auto line = [](const char *un, int n, const char *pool) {
        return fmt("%stagged %d object(s) in pool %s\r\n", un, n, pool);
    };

    // An extension pool bears its root's name: counted with the root and on its own turn.
    clear_logs();
    EXPECT_EQ(memm_tag_objects("t_", 1), 0);
    EXPECT_EQ(log_texts(), (std::vector<std::string>{line("", 12, "t_a"), line("", 0, "t_b"), line("", 2, "t_a")}));
    EXPECT_TRUE(tagged(objs[0]) && tagged(objs[11]));
    EXPECT_FALSE(tagged(other));

    clear_logs();
    EXPECT_EQ(memm_tag_objects("t_a", 0), 0);
    EXPECT_EQ(log_texts(), (std::vector<std::string>{line("un", 12, "t_a"), line("un", 2, "t_a")}));
    EXPECT_FALSE(tagged(objs[0]) || tagged(objs[11]));
    EXPECT_EQ(memm_get_refcount(objs[0]), 2u); // marks leave the reference count alone

    memm_tag_objects("t_a", 1);
    memm_free(objs[11]);
    EXPECT_FALSE(tagged(memm_calloc(a))); // a released object comes back untagged
}
