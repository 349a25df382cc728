#ifndef LLIST_H
#define LLIST_H

/* Singly linked lists of pool objects.
 *
 * A list is a pointer to its first node (null = the empty list); each node is
 * an object of a node pool (llist_initpool) and holds ONE reference of its
 * linked object. Functions that may change the first node take `plist`, the
 * address of the caller's list variable.
 *
 * Nodes are pool objects: release with memm_free. memm_free of a node (the
 * first node of a list, or a node detached from its list; never a node that
 * another node still points to) releases it, the nodes behind it and one
 * reference of every object they hold (see the cascade below). It returns
 * MEMM_OK, or MEMM_ERR_HOOK_FAILED when an object's release fails (see
 * llist_free_plist); its log lines are memm_free's (memm.h). llist_free_plist
 * does the same for a whole list and clears the caller's variable. A node
 * pool grows by extension pools like any pool, so nodes are not always
 * 8-byte aligned (see llist_node).
 *
 * Ownership, by the word in a function's name:
 *   add, insert, push   the list takes over the caller's reference (addref takes one first)
 *   delete              node released, one reference of the object released
 *   remove              node released, the object's reference handed back to the caller
 *   unlink              node detached only (not released), object untouched
 *   getandremove, pop   node released, object returned with the list's reference
 *   getandunlink        node detached and returned (it still holds the object)
 *   move                node detached from one list and appended to another
 *
 * Index: a signed position, 0 = first node; a negative index has the list's
 * length added once (-1 = last node).
 * Length: nodes up to, not including, the first node whose linked_obj is null.
 * Walks by position follow `next` whatever linked_obj holds.
 *
 * Releasing a node whose `next` is set releases the nodes behind it too (the
 * node destructor cascade); releasing a list's first node releases the whole
 * list and one reference of every linked object.
 *
 * Every function takes the library's recursive lock for its whole run, except
 * the _nolock variants, whose caller must hold it (memm_lock/memm_unlock), and
 * llist_enumcb_bytype, which holds it only while it reads one node.
 * List functions write nothing to the system log; the pool functions that
 * they call log their own failures.
 */

#include "memm.h"

#ifdef __cplusplus
extern "C" {
#endif

struct dynstr; /* defined in dynstr.h; used by llist_enum_dynstr only */

#define LLIST_TYPE_ANY   0xFFFFFFFFu /* type argument: every object (get_bytype, enum_bytype; llist_enumcb_bytype delivers nothing for it) */
#define LLIST_TYPE_NONE  0u          /* type argument: no object */

/* A list node: an object of a node pool. A list is a pointer to its first node (null = empty).
 * Nodes may be only 4-byte aligned: slots are a multiple of 4 bytes, and the
 * extension pools of a full pool have slots 12 bytes longer than their root's
 * even when the object size is a multiple of 8. Read a node's two fields
 * through llist_getobject_this / llist_get_next (or memcpy), not through
 * node->linked_obj / node->next. */
typedef struct llist_node {
    void              *linked_obj; /* pool object this node holds one reference of, or null */
    struct llist_node *next;       /* next node, null in the last */
} llist_node;

typedef int     (*llist_match_fn)(void *obj, void *key);              /* non-zero: match */
typedef int32_t (*llist_compare_fn)(void *a, void *b);                /* negative: a goes before b */
typedef int32_t (*llist_compare_ex_fn)(void *ctx, void *a, void *b);  /* negative: a goes before b */
typedef int     (*llist_enum_fn)(void *obj, void *ctx);               /* non-zero: go on; 0: stop */

/* ================= Node pools, adding, inserting ================= */
/* Node pool arguments. Every function that allocates nodes (add, addref,
 * insert, push, refalloc, and every other list function that makes nodes)
 * takes nodes only from a node pool made by llist_initpool (or from one of
 * its extension pools). Any other id (no pool, a plain pool, a string pool)
 * gives no node, exactly as a node pool that is exhausted:
 * MEMM_ERR_NO_MEMORY, or a skipped node for llist_refalloc; nothing is
 * allocated, the lists and every reference count end as they were, and the
 * list functions log nothing. */

/* Creates a node pool through the pool layer (lock reason "memm_initpool").
 * The options record is copied; its free_ex is always replaced by the node
 * destructor, and when it sets neither print nor print2 the internal node
 * printer becomes print2. Give node pools no free2_ex: it would take
 * precedence over the destructor and break the ownership rules.
 * An objsize below two pointers (sizeof(llist_node)) is refused with
 * MEMM_INVALID_POOL, without a log line and without creating anything. All
 * other failures are memm_initpool's (which logs them). The name is kept by
 * pointer, as memm_initpool keeps it. */
MEMM_API uint32_t llist_initpool(const char *name, int32_t count, int32_t objsize,
                                 const memm_pool_options *options);                    /* node pool id or MEMM_INVALID_POOL; options may be null */

/* Appends obj at the end of *plist in a new node of `pool`; the list takes
 * over the caller's reference of obj (obj may be null: such a node ends the
 * list's length).
 * MEMM_ERR_NO_MEMORY: no node; obj untouched.
 * MEMM_ERR_INVALID_ARG: plist null; the node allocated for it is released and
 * with it ONE REFERENCE OF obj (the reference was handed over). */
MEMM_API uint32_t llist_addobject(llist_node **plist, void *obj, uint32_t pool);        /* result code */
MEMM_API uint32_t llist_addobject_nolock(llist_node **plist, void *obj, uint32_t pool); /* result code */

/* As llist_addobject, but takes one more reference of obj first, so the
 * caller keeps its own. When obj cannot take another reference (null, of no
 * pool, or already at MEMM_MAX_REFS holders) a node with a null linked_obj is
 * appended and MEMM_OK returned. When no node can be allocated
 * (MEMM_ERR_NO_MEMORY) the reference just taken is given back, so obj's
 * count is as before the call. */
MEMM_API uint32_t llist_addref(llist_node **plist, void *obj, uint32_t pool);           /* result code */

/* Builds a new list from `pool` that holds one more reference of each linked
 * object of `list`, node for node and in order (a null linked_obj gives a
 * node with a null linked_obj). A node that cannot be allocated is skipped,
 * and the reference taken for it given back. `list` is not changed. */
MEMM_API llist_node *llist_refalloc(llist_node *list, uint32_t pool);                   /* first node of a new list (null if empty) */

/* Inserts obj in a new node of `pool` so that it stands at `index`: 0 = front,
 * length = append, -1 = before the last node; an index still negative after
 * adding the length inserts at the front of a non-empty list. The list takes
 * over the caller's reference of obj.
 * MEMM_ERR_NO_MEMORY: no node; obj untouched.
 * MEMM_ERR_INVALID_ARG: plist null (nothing allocated), or the position lies
 * beyond the end (an empty list accepts only index 0); then the list is
 * unchanged, no node leaks, and obj's reference stays with the caller,
 * untouched. */
MEMM_API uint32_t llist_insert_at(llist_node **plist, void *obj, int32_t index, uint32_t pool); /* result code */
/* llist_insert_at with index 0 (lock reason "llist_insert_at"). */
MEMM_API uint32_t llist_pushobject(llist_node **plist, void *obj, uint32_t pool);       /* result code */

/* ================= Delete / remove / unlink / move ================= */

/* Detaching, common rules. MEMM_ERR_INVALID_ARG, with the list unchanged,
 * when plist is null, when the list is not empty and its first node fails
 * memm_isvalidobj_nolock, when the index is still negative after adding the
 * length or lies at or beyond the end, or (_byobject) when no node holds obj
 * (pointer equality, so a null obj finds the first node whose linked_obj is
 * null; only the first such node is affected).
 * The detached node's `next` is cleared, so releasing it releases that node
 * and its object only. */

/* Releases the node and one reference of its object; returns the release's
 * result (MEMM_ERR_HOOK_FAILED from a failing object release: the node has
 * left the list all the same and stays allocated). */
MEMM_API uint32_t llist_delete_at(llist_node **plist, int32_t index);       /* result code */
MEMM_API uint32_t llist_delete_byobject(llist_node **plist, void *obj);     /* result code */
/* Releases the node; the list's reference of the object goes to the caller. */
MEMM_API uint32_t llist_remove_at(llist_node **plist, int32_t index);       /* result code */
MEMM_API uint32_t llist_remove_byobject(llist_node **plist, void *obj);     /* result code */
/* Detaches the node and leaves it allocated, still holding its object: meant
 * for a caller that already has the node (llist_get_at, llist_search_byobject)
 * and releases it with memm_free afterwards. */
MEMM_API uint32_t llist_unlink_at(llist_node **plist, int32_t index);       /* result code */
MEMM_API uint32_t llist_unlink_byobject(llist_node **plist, void *obj);     /* result code */
/* Moves the first node holding obj from *psrc to the end of *pdst; no
 * reference changes. psrc == pdst moves the node to the end of that list.
 * A null pdst returns MEMM_ERR_INVALID_ARG with the source list unchanged
 * (checked before anything is detached). */
MEMM_API uint32_t llist_move_byobject(llist_node **psrc, llist_node **pdst, void *obj); /* result code */
/* Releases the node at index and returns its object with the list's
 * reference (lock reason "llist_cut_at"); null on any failure, and for a node
 * whose linked_obj is null (that node is still released). */
MEMM_API void    *llist_getandremove_at(llist_node **plist, int32_t index);              /* linked object (with the list's reference) or null */
/* llist_getandremove_at with index 0: null for an empty list. */
MEMM_API void    *llist_popobject(llist_node **plist);                                   /* first linked object (with the list's reference) or null */
/* Detaches and returns the node (next = null, still holding its object); the
 * caller releases it with memm_free, which releases the object's reference too.
 * Lock reasons "llist_cut_at" / "llist_cut_byobject". */
MEMM_API llist_node *llist_getandunlink_at(llist_node **plist, int32_t index);           /* detached node or null */
MEMM_API llist_node *llist_getandunlink_byobject(llist_node **plist, void *obj);         /* detached node or null */

/* ================= Access and search ================= */

/* "Valid" below: passes memm_isvalidobj_nolock (the header check). The list
 * functions read the header directly, without the storage search that makes
 * memm_isvalidobj_nolock safe for any pointer: a pointer given as a node must
 * have 16 readable bytes in front of it. */
MEMM_API llist_node *llist_get_first(llist_node *list);                  /* list if it is a valid pool object, else null */
MEMM_API llist_node *llist_get_next(llist_node *node);                   /* node->next if node is valid, else null */
/* Null unless the first node is valid; a negative index has the length added
 * once (null if still negative); then `next` is followed index times, past
 * nodes with a null linked_obj too; null past the end. */
MEMM_API llist_node *llist_get_at(llist_node *list, int32_t index);      /* node at index or null */
MEMM_API llist_node *llist_get_at_nolock(llist_node *list, int32_t index); /* node at index or null */
MEMM_API void    *llist_getobject_at(llist_node *list, int32_t index);   /* linked object at index or null */
MEMM_API void    *llist_getobject_this(llist_node *node);                /* node's linked object if node is valid, else null */
/* Replaces the object of the node at index (found as llist_get_at does):
 * releases one reference of the old object (a failure of that release is
 * logged by the pool layer and not reported here) and stores obj, whose
 * reference the list takes over. MEMM_ERR_INVALID_ARG when there is no node
 * at index; nothing changes then. */
MEMM_API uint32_t llist_setobject_at(llist_node *list, void *obj, int32_t index);         /* result code */
/* The searches walk every node (nodes with a null linked_obj included) and do
 * not check that nodes are valid pool objects. llist_searchobject calls
 * match(linked_obj, key); a null match matches nothing. */
MEMM_API void    *llist_searchobject(llist_node *list, void *key, llist_match_fn match);  /* linked object of the first match, or null */
MEMM_API llist_node *llist_search_byobject(llist_node *list, void *obj);  /* first node holding obj, or null */
MEMM_API uint32_t llist_getindex_byobject(llist_node *list, void *obj);   /* index of the first node holding obj, or 0xFFFFFFFF */
/* Pointer-equality llist_searchobject (lock reason "llist_searchobject"): 0 for a null obj. */
MEMM_API int      llist_inlist(llist_node *list, void *obj);              /* 1 if a node holds obj, else 0 */
MEMM_API uint32_t llist_getlength(llist_node *list);                      /* length (up to the first null linked_obj) */
MEMM_API uint32_t llist_getlength_nolock(llist_node *list);               /* length (up to the first null linked_obj) */
/* Lock reason "llist_realgetlength". */
MEMM_API uint32_t llist_getreallength(llist_node *list);                  /* nodes up to the first invalid pool object */
/* Releases the first node (and through the destructor the whole list and one
 * reference of every linked object), sets *plist to null in any case and
 * returns the release's result. The cascade stops at the first object whose
 * release fails (MEMM_ERR_HOOK_FAILED): the nodes before it are released, the
 * failing node and those behind it stay allocated and unreachable, and so does
 * the first node, with its object and a null next. A null plist returns
 * MEMM_ERR_INVALID_ARG. */
MEMM_API uint32_t llist_free_plist(llist_node **plist);                   /* result code of the release; *plist set to null */

/* ================= Sorting, splitting, cloning, joining ================= */

/* Sorting: a stable insertion sort of the whole chain that relinks the nodes
 * and allocates nothing (quadratic in comparisons). cmp gets the linked
 * objects, never the nodes: cmp(a, b) < 0 puts a before b, and objects that
 * compare equal keep their order. A list whose length is 0 or 1 is left as it
 * is; otherwise nodes beyond the length take part too, with a null object.
 * cmp runs under the library lock and may call the library, but must not wait
 * for another thread that needs the lock.
 * MEMM_ERR_INVALID_ARG: plist or cmp null; nothing changes.
 * llist_sort_ex passes ctx as cmp's first argument. Both lock as "llist_sort". */
MEMM_API uint32_t llist_sort(llist_node **plist, llist_compare_fn cmp);                   /* MEMM_OK or MEMM_ERR_INVALID_ARG */
MEMM_API uint32_t llist_sort_ex(llist_node **plist, void *ctx, llist_compare_ex_fn cmp);  /* MEMM_OK or MEMM_ERR_INVALID_ARG */
/* Inserts obj in a new node of `pool` before the first node whose object it
 * compares below (cmp(obj, that object) < 0), so after every node it is equal
 * to; in a list sorted by cmp the list stays sorted. The list takes over the
 * caller's reference of obj.
 * Always MEMM_OK: when no node can be allocated nothing is added and obj is
 * untouched (the caller keeps its reference); so does a null plist or cmp
 * (checked before any node is allocated). */
MEMM_API uint32_t llist_insert_sorted(llist_node **plist, void *obj, uint32_t pool,
                                      llist_compare_fn cmp);                               /* always MEMM_OK */
/* Reverses the whole chain in one pass by relinking; nothing is allocated.
 * MEMM_ERR_INVALID_ARG: plist null. */
MEMM_API uint32_t llist_reverse(llist_node **plist);                                      /* MEMM_OK or MEMM_ERR_INVALID_ARG */
/* The list keeps its first `index` nodes; the rest is cut off and returned as
 * a list of its own, which the caller then owns. No node is allocated or
 * released and no reference changes.
 *   index 0, or index == -length: the whole list moves to the result and
 *     *plist becomes null, whatever its first node is;
 *   -k (k < length): the last k nodes are cut off;
 *   index == length: null, the list is whole;
 *   otherwise an index beyond the end or still negative after adding the
 *     length, or a first node that is not a valid pool object: null, the
 *     list unchanged;
 *   a null plist: null. */
MEMM_API llist_node *llist_split_at(llist_node **plist, int32_t index);                   /* first node of the cut-off tail, or null */
/* Appends to *pdst a copy by reference of `src` up to its length (the first
 * node with a null linked_obj ends the copy): one new node of `pool` per
 * object, each holding one more reference of it. An object that cannot take
 * another reference (at MEMM_MAX_REFS holders) is copied as a node with a null
 * linked_obj, as llist_addref does. `src` is not changed; it may be *pdst
 * itself, which then gets a copy of itself as it was appended. Lock reason
 * "llist_refalloc".
 * MEMM_ERR_NO_MEMORY: the node pool gave no node; then the WHOLE destination
 * list is released (the nodes it held before the call included, with one
 * reference of each of their objects) and *pdst is set to null; the
 * reference taken for the object whose node could not be had is given back.
 * A null pdst returns MEMM_ERR_INVALID_ARG and takes nothing. */
MEMM_API uint32_t llist_clone(llist_node **pdst, llist_node *src, uint32_t pool);         /* MEMM_OK or MEMM_ERR_NO_MEMORY */
/* Joining: the nodes of `list` move into *plist as they are (nothing copied,
 * no reference changes); afterwards they belong to *plist and must not be
 * released separately. `list` must not already be part of *plist.
 * llist_addlist appends the chain at the end (lock reason "llist_add");
 * MEMM_ERR_INVALID_ARG when plist or list is null.
 * llist_insert_list_at places the chain so that its first node stands at
 * `index` (as llist_insert_at places one node) and the node that stood there
 * follows the chain's last node. A null list returns MEMM_OK and changes
 * nothing; MEMM_ERR_INVALID_ARG for a null plist or a position beyond the
 * end, with both lists unchanged. */
MEMM_API uint32_t llist_addlist(llist_node **plist, llist_node *list);                    /* MEMM_OK or MEMM_ERR_INVALID_ARG */
MEMM_API uint32_t llist_insert_list_at(llist_node **plist, llist_node *list, int32_t index); /* result code */

/* ================= Typed enumeration ================= */

/* A type is a pool id: an object is of that type when its root pool is that
 * id (memm_instanceof), so objects of extension pools count as their root's.
 * LLIST_TYPE_ANY matches every object, LLIST_TYPE_NONE none. A node with a
 * null linked_obj never matches and is passed over (the walks go to the real
 * end, not only to the length). */

/* The first object of the type, or with skip != 0 the second one (any
 * non-zero value skips exactly one); null when there is none. */
MEMM_API void    *llist_get_bytype(llist_node *list, uint32_t type, int skip);            /* first (skip != 0: second) object of the type, or null */
/* Cursor enumeration. The caller keeps *index (the number of objects
 * delivered, 0 to start a round) and *last (the last object delivered)
 * between calls; each call returns the next object of the type, stores it in
 * *last and, when it is not null, adds 1 to *index. The cursor holds no node,
 * so the list may change between calls:
 *   - while *last is still in the list, the next match after its first node
 *     is returned;
 *   - once *last has left the list (or is null), the match at 0-based
 *     position *index among the current matches is returned: the first one
 *     not yet delivered if the earlier ones are all still there.
 * At the end *last becomes null, *index keeps the number delivered and
 * further calls return null. Null list, index or last: null, nothing changed.
 * Each step walks from the first node. */
MEMM_API void    *llist_enum_bytype(llist_node *list, uint32_t type, uint32_t *index,
                                    void **last);                                          /* next object of the type, or null */
MEMM_API void    *llist_enum_bytype_nolock(llist_node *list, uint32_t type, uint32_t *index,
                                           void **last);                                   /* next object of the type, or null */
/* llist_enum_bytype over live dynamic strings only (dynstr_isdynstring),
 * whatever their string pool. */
MEMM_API struct dynstr *llist_enum_dynstr(llist_node *list, uint32_t *index,
                                          struct dynstr **last);                           /* next live dynamic string, or null */
/* Calls cb(obj, ctx) for each object of the type (memm_instanceof, so
 * LLIST_TYPE_ANY delivers nothing here) from the first node up to the
 * list's length, until cb returns 0; returns how many calls returned
 * non-zero. 0 for a null cb.
 * The lock is taken only while one node is read (reason
 * "llist_enumcb_bytype") and is NOT held during cb, unless the caller holds
 * it: cb may call any library function, including one that deletes or
 * removes the current object's node. The next node is read before cb runs;
 * if cb releases that next node, the walk ends there (a released node is no
 * longer a valid pool object, unless its slot has been allocated again). */
MEMM_API uint32_t llist_enumcb_bytype(llist_node *list, uint32_t type, llist_enum_fn cb,
                                      void *ctx);                                          /* number of objects the callback accepted; lock taken per node, not held during cb */

#ifdef __cplusplus
}
#endif

#endif /* LLIST_H */
