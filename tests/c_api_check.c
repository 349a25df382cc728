/* A plain C99 program against the public headers: it compiles as C with
 * warnings as errors, drives the basic object life cycle, converts a
 * value through a dynamic string and splits and joins a string list. */
#include <stdio.h>
#include <string.h>

#include "dynstr.h"
#include "llist.h"
#include "memm.h"
#include "strlist.h"

struct record {
    int id;
    char label[12];
};

static int failures;

#define CHECK(cond)                                                   \
    do {                                                              \
        if (!(cond)) {                                                \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                               \
        }                                                             \
    } while (0)

static uint32_t released;

static uint32_t on_release(void *obj) {
    (void)obj;
    released++;
    return MEMM_OK;
}

int main(void) {
    uint32_t pool, strings, nodes, port = 0;
    struct record *r;
    dynstr *d, *joined;
    llist_node *list;

    CHECK(memm_init(8, 1) == MEMM_OK);
    pool = memm_initpool2("c_records", 4, (int32_t)sizeof(struct record), NULL, on_release);
    CHECK(pool != MEMM_INVALID_POOL);

    r = (struct record *)memm_calloc(pool);
    CHECK(r != NULL);
    if (r) {
        CHECK(r->id == 0 && r->label[0] == '\0');
        CHECK(memm_get_poolid(r) == pool);
        CHECK(memm_isvalidobj(r) == 1);
        CHECK(memm_refalloc(r) == r);
        CHECK(memm_get_refcount(r) == 2);
        CHECK(memm_free(r) == MEMM_OK && released == 0);
        CHECK(memm_free(r) == MEMM_OK && released == 1);
        CHECK(memm_isvalidobj(r) == 0);
    }
    CHECK(strcmp(memm_get_poolname2(MEMM_POOLDESC_POOL), MEMM_POOLDESC_NAME) == 0);

    strings = dynstr_initpool("c_strings", 8, 256);
    d = dynstr_fromuint32(strings, 8080u);
    CHECK(d != NULL && dynstr_strcmp2(d, "8080") == 0);
    CHECK(dynstr_getuint32(d, &port) == MEMM_OK && port == 8080u);

    nodes = llist_initpool("c_nodes", 8, (int32_t)sizeof(llist_node), NULL);
    list = strlist_fromstring("b,a", ",", nodes, strings);
    CHECK(strlist_getlength(list) == 2 && strcmp(strlist_getstring_at(list, -1), "a") == 0);
    joined = strlist_todynstr(list, "+", strings);
    CHECK(joined != NULL && dynstr_strcmp2(joined, "b+a") == 0);
    CHECK(memm_free(joined) == MEMM_OK && llist_free_plist(&list) == MEMM_OK && list == NULL);

    if (failures)
        return 1;
    puts("C API check passed");
    return 0;
}
