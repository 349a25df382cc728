/* A small daemon's data model on memm pools.
 *
 * The process keeps its configuration values as dynamic strings (a
 * list-valued setting as a string list), its
 * sessions in a pool of fixed-size records instead of on the general heap,
 * and lists of them in a pool of list nodes. It
 * allocates, shares and releases sessions, lets the pool grow into extension
 * pools when traffic exceeds the planned count, tags everything that exists
 * after start-up so it can list what was created since (the way to hunt a
 * leak in a daemon that runs for months), and prints the usage table. */
#include <stdio.h>
#include <string.h>

#include "dynstr.h"
#include "llist.h"
#include "memm.h"
#include "strlist.h"

struct session {
    uint32_t id;
    char peer[24];
};

static uint32_t closed_sessions;

/* Runs when the last holder releases a session. */
static uint32_t on_session_closed(void *obj) {
    struct session *s = obj;
    printf("  closing session %u (%s)\n", s->id, s->peer);
    closed_sessions++;
    return MEMM_OK;
}

/* How listings show a session. */
static void print_session(void *obj, memm_print_fn print) {
    const struct session *s = obj;
    print(" session %u from %s", s->id, s->peer);
}

static void show_chain(uint32_t root) {
    uint32_t id;
    for (id = root; id != 0; id = memm_get_pool_nolock(id)->next_pool) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        printf("  pool %u '%s'%s: %u of %u slots in use (peak %u)\n", id, p->name,
               id == root ? "" : " (extension)", p->cur_count, p->alloc_count, p->max_count);
    }
}

static struct session *open_session(uint32_t pool, uint32_t id) {
    struct session *s = memm_calloc(pool); /* zero-filled */
    if (s) {
        s->id = id;
        snprintf(s->peer, sizeof s->peer, "10.0.0.%u", id);
    }
    return s;
}

/* Configuration values live in a string pool: texts packed into a few
 * buffers that a collector compacts, with maximum sizes where the device
 * has fixed-size fields. */
static int load_configuration(uint32_t cfg) {
    dynstr *ifname = dynstr_fromliteral(cfg, "eth0"); /* a constant: not copied */
    dynstr *mtu = dynstr_fromuint32(cfg, 1500u);
    dynstr *label = dynstr_calloc_maxlen(cfg, 15);     /* a 15-character field */
    dynstr *path = dynstr_fromstring(cfg, "/etc/net");
    dynstr *file;
    uint32_t mtu_bytes = 0;

    dynstr_setstring(label, "uplink-to-core-switch"); /* cut to the field */
    dynstr_addsprintf(path, "/%s.conf", dynstr_getstring(ifname));
    file = dynstr_fromlastsep(path, '/');
    dynstr_setuint32(mtu, 9000u); /* reconfigured: the old text becomes dead space */
    if (dynstr_getuint32(mtu, &mtu_bytes) != MEMM_OK) /* the number back, for code that needs one */
        return 1;
    printf("  %s: mtu %u, label '%s', read from %s (%s)\n", dynstr_getstring(ifname), mtu_bytes,
           dynstr_getstring(label), dynstr_getstring(path), dynstr_getstring(file));
    memm_free(file);
    memm_free(path);
    return ifname && mtu && label ? 0 : 1; /* the rest stays: it is the running configuration */
}

static int32_t by_text(void *a, void *b) { return dynstr_strcmp(a, b); }

/* A comma-separated setting becomes a string list: one record per name,
 * sorted, then joined back into one text for display. */
static int load_server_list(uint32_t cfg, uint32_t nodes) {
    llist_node *servers = strlist_fromstring("ntp2.lan,ntp1.lan,10.0.0.1", ",", nodes, cfg);
    dynstr *joined;

    if (!servers)
        return 1;
    llist_sort(&servers, by_text);
    joined = strlist_todynstr(servers, ", ", cfg);
    if (!joined)
        return 1;
    printf("  %u time servers: %s\n", strlist_getlength(servers), dynstr_getstring(joined));
    memm_free(joined);
    return 0; /* the list stays: it is configuration */
}

int main(void) {
    enum { PLANNED = 8, OPENED = 12 };
    memm_pool_options options;
    uint32_t pool, nodes, cfg, cfg_nodes, i;
    llist_node *active = NULL, *idle = NULL, *n;
    struct session *s;

    /* Once per process: room for 16 pool descriptors and 2 string pools. */
    if (memm_init(16, 2) != MEMM_OK)
        return 1;
    cfg = dynstr_initpool("config", 64, 4096);
    cfg_nodes = llist_initpool("config_nodes", 16, (int32_t)sizeof(llist_node), NULL);
    if (cfg == MEMM_INVALID_POOL || cfg_nodes == MEMM_INVALID_POOL)
        return 1;
    printf("Configuration:\n");
    if (load_configuration(cfg) != 0 || load_server_list(cfg, cfg_nodes) != 0)
        return 1;

    memset(&options, 0, sizeof options);
    options.free_ex = on_session_closed;
    options.print2 = print_session;
    pool = memm_initpool("sessions", PLANNED, (int32_t)sizeof(struct session), &options);
    nodes = llist_initpool("session_nodes", 32, (int32_t)sizeof(llist_node), NULL);
    if (pool == MEMM_INVALID_POOL || nodes == MEMM_INVALID_POOL)
        return 1;

    printf("\nStart-up: two sessions, then everything that exists is tagged.\n");
    for (i = 1; i <= 2; i++)
        llist_addobject(&active, open_session(pool, i), nodes); /* the list takes our reference */
    memm_tag_objects(NULL, 1);

    printf("\nTraffic: %d more sessions, %d more than the pool planned for.\n", OPENED - 2, OPENED - PLANNED);
    for (i = 3; i <= OPENED; i++)
        llist_addobject(&active, open_session(pool, i), nodes);
    show_chain(pool);
    s = llist_getobject_at(active, -1);
    printf("  the newest session, %u, lives in pool %u, an extension of '%s'\n", s->id, memm_get_poolid(s),
           memm_get_poolname(s));

    printf("\nSessions 3 and 4 go idle; a worker shares session 5 while it is closed.\n");
    llist_move_byobject(&active, &idle, llist_getobject_at(active, 2));
    llist_move_byobject(&active, &idle, llist_getobject_at(active, 2));
    s = memm_refalloc(llist_getobject_at(active, 2));
    llist_delete_byobject(&active, s); /* the list's reference goes */
    printf("  session 5 still has %u holder and is valid: %s\n", memm_get_refcount(s),
           memm_isvalidobj(s) ? "yes" : "no");
    memm_free(s); /* the worker's release closes it */
    printf("  active: %u, idle:", llist_getlength(active));
    for (n = llist_get_first(idle); n; n = llist_get_next(n))
        printf(" %u", ((struct session *)llist_getobject_this(n))->id);
    printf("\n");

    printf("\nSessions created since start-up and still alive (untagged objects):\n");
    memm_print_objects2("sessions", 0);

    printf("Pool usage:\n");
    memm_print_stats(NULL);

    printf("Shutting the lists down:\n");
    llist_free_plist(&active); /* each node gives its session reference back */
    llist_free_plist(&idle);
    show_chain(pool);
    printf("\n%u sessions closed; %u pools exist (descriptor pool and extensions included).\n", closed_sessions,
           memm_get_number_of_pools());
    return closed_sessions == OPENED ? 0 : 1;
}
