/* A C program built against memm with the flags of pkg-config: it checks the
 * version header against the version pkg-config reported, then uses a pool,
 * a dynamic string and a string list. */
#include <stdio.h>
#include <string.h>

#include "memm_version.h"
#include "strlist.h"

#define MEMM_STR2(x) #x
#define MEMM_STR(x) MEMM_STR2(x)

static int fail(const char *what) {
    fprintf(stderr, "consumer (pkg-config): %s\n", what);
    return 1;
}

int main(void) {
    const char *parts = MEMM_STR(MEMM_VERSION_MAJOR) "." MEMM_STR(MEMM_VERSION_MINOR) "." MEMM_STR(MEMM_VERSION_PATCH);
    uint32_t nodes, strings;
    dynstr *text;
    llist_node *list;
    if (strcmp(parts, MEMM_EXPECTED_VERSION) != 0 || strcmp(MEMM_VERSION_STRING, MEMM_EXPECTED_VERSION) != 0)
        return fail("memm_version.h does not match the package version");
    if (memm_init(8, 1) != MEMM_OK)
        return fail("memm_init");
    nodes = llist_initpool("consumer_nodes", 8, sizeof(llist_node), NULL);
    strings = dynstr_initpool("consumer_strings", 8, 1024);
    if (nodes == MEMM_INVALID_POOL || strings == MEMM_INVALID_POOL)
        return fail("pool creation");
    text = dynstr_fromprintf(strings, "%s-%lu", "uplink", 42ul);
    if (!text || strcmp(dynstr_getstring(text), "uplink-42") != 0)
        return fail("dynstr_fromprintf");
    if (memm_free(text) != MEMM_OK)
        return fail("memm_free");
    list = strlist_fromstring("a,b,c", ",", nodes, strings);
    if (strlist_getlength(list) != 3 || strcmp(strlist_getstring_at(list, 2), "c") != 0)
        return fail("strlist_fromstring");
    if (llist_free_plist(&list) != MEMM_OK)
        return fail("llist_free_plist");
    printf("consumer (pkg-config): memm %s works\n", MEMM_VERSION_STRING);
    return 0;
}
