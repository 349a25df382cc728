/* A small daemon's data model on memm pools.
 *
 * The process keeps its sessions in a pool of fixed-size records instead of
 * on the general heap. It allocates, shares and releases them, lets the pool
 * grow into extension pools when traffic exceeds the planned count, and
 * asks the library what each pool holds. */
#include <stdio.h>
#include <string.h>

#include "memm.h"

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

static void show_pool(uint32_t pool) {
    const memm_pooldesc *p = memm_get_pool_nolock(pool);
    printf("  pool %u '%s': %u of %u slots in use (peak %u), %u-byte slots\n", pool, p->name, p->cur_count,
           p->alloc_count, p->max_count, p->slotsize);
}

int main(void) {
    enum { PLANNED_SESSIONS = 8 };
    struct session *sessions[PLANNED_SESSIONS + 4];
    uint32_t pool, id;
    int i;

    /* Once per process: room for 16 pool descriptors, no string pools yet. */
    if (memm_init(16, 0) != MEMM_OK)
        return 1;
    pool = memm_initpool2("sessions", PLANNED_SESSIONS, (int32_t)sizeof(struct session), NULL, on_session_closed);
    if (pool == MEMM_INVALID_POOL)
        return 1;
    printf("Created pool %u for %d sessions:\n", pool, PLANNED_SESSIONS);
    show_pool(pool);

    printf("\nOpening %d sessions (4 more than planned):\n", PLANNED_SESSIONS + 4);
    for (i = 0; i < PLANNED_SESSIONS + 4; i++) {
        struct session *s = memm_calloc(pool); /* zero-filled */
        if (!s)
            return 1;
        s->id = (uint32_t)i + 1;
        snprintf(s->peer, sizeof s->peer, "10.0.0.%d", i + 1);
        sessions[i] = s;
    }
    for (id = pool; id != 0; id = memm_get_pool_nolock(id)->next_pool)
        show_pool(id);
    printf("  session 12 lives in pool %u, an extension of '%s'\n", memm_get_poolid(sessions[11]),
           memm_get_poolname(sessions[11]));

    printf("\nA worker shares session 3; its owner lets go first:\n");
    memm_refalloc(sessions[2]);
    printf("  holders of session 3: %u\n", memm_get_refcount(sessions[2]));
    memm_free(sessions[2]);
    printf("  after the owner's release: %u holder, still valid: %s\n", memm_get_refcount(sessions[2]),
           memm_isvalidobj(sessions[2]) ? "yes" : "no");
    memm_free(sessions[2]); /* the worker's release closes it */

    printf("\nClosing the rest:\n");
    for (i = 0; i < PLANNED_SESSIONS + 4; i++)
        if (i != 2)
            memm_free(sessions[i]);
    for (id = pool; id != 0; id = memm_get_pool_nolock(id)->next_pool)
        show_pool(id);
    printf("\n%u sessions closed; %u pools exist (descriptor pool and extensions included).\n", closed_sessions,
           memm_get_number_of_pools());
    return closed_sessions == PLANNED_SESSIONS + 4 ? 0 : 1;
}
