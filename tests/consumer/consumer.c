// A C program built against memm with the flags of pkg-config, as C99 with
// warnings as errors: every public header must compile as C. It checks the
// version header against the version pkg-config reported, then runs a pool
// object's life, a formatted string and a string list.
#include <stdio.h>
#include <string.h>

#include "dynstr.h"
#include "llist.h"
#include "memm.h"
#include "memm_version.h"
#include "strlist.h"

#define MEMM_STR2(x) #x
#define MEMM_STR(x) MEMM_STR2(x)

struct record {
    int id;
    char label[12];
};

int main(void) {
    const char *parts = MEMM_STR(MEMM_VERSION_MAJOR) "." MEMM_STR(MEMM_VERSION_MINOR) "." MEMM_STR(MEMM_VERSION_PATCH);
    uint32_t pool, strings, nodes;
    struct record *r;
    dynstr *text;
    llist_node *list;
    int ok = strcmp(parts, MEMM_EXPECTED_VERSION) == 0 && strcmp(MEMM_VERSION_STRING, MEMM_EXPECTED_VERSION) == 0;

    ok = ok && memm_init(8, 1) == MEMM_OK;
    pool = memm_initpool2("c_records", 4, (int32_t)sizeof(struct record), NULL, NULL);
    r = (struct record *)memm_calloc(pool);
    ok = ok && r && r->id == 0 && memm_refalloc(r) == r && memm_free(r) == MEMM_OK && memm_free(r) == MEMM_OK;
    strings = dynstr_initpool("c_strings", 8, 256);
    nodes = llist_initpool("c_nodes", 8, (int32_t)sizeof(llist_node), NULL);
    text = dynstr_fromprintf(strings, "%s-%lu", "uplink", 42ul);
    ok = ok && text && strcmp(dynstr_getstring(text), "uplink-42") == 0 && memm_free(text) == MEMM_OK;
    list = strlist_fromstring("b,a", ",", nodes, strings);
    ok = ok && dynstr_strcmp2(strlist_todynstr(list, "+", strings), "b+a") == 0;
    ok = ok && llist_free_plist(&list) == MEMM_OK && list == NULL;
    if (!ok) {
        fprintf(stderr, "consumer (pkg-config): failed\n");
        return 1;
    }
    printf("consumer (pkg-config): memm %s works\n", MEMM_VERSION_STRING);
    return 0;
}
