// The public headers compile as C99 with warnings as errors, and a C
// program links and runs against the library: a pool object's life, a
// string and a string list. What each call does is checked elsewhere.
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

int main(void) {
    uint32_t pool, strings, nodes;
    struct record *r;
    llist_node *list;
    int ok = memm_init(8, 1) == MEMM_OK;

    pool = memm_initpool2("c_records", 4, (int32_t)sizeof(struct record), NULL, NULL);
    r = (struct record *)memm_calloc(pool);
    ok = ok && r && r->id == 0 && memm_refalloc(r) == r && memm_free(r) == MEMM_OK && memm_free(r) == MEMM_OK;
    strings = dynstr_initpool("c_strings", 8, 256);
    nodes = llist_initpool("c_nodes", 8, (int32_t)sizeof(llist_node), NULL);
    list = strlist_fromstring("b,a", ",", nodes, strings);
    ok = ok && dynstr_strcmp2(strlist_todynstr(list, "+", strings), "b+a") == 0;
    ok = ok && llist_free_plist(&list) == MEMM_OK && list == NULL;
    puts(ok ? "C API check passed" : "C API check failed");
    return ok ? 0 : 1;
}
