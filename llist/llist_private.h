// Internal interface of the list family, shared by the files of llist/.
//
// A node is an object of a node pool:   [ 16-byte header ][ linked_obj | next | caller's extra bytes ]
// A node pool's slot size is a multiple of 4 only, so a node (and its two
// words) may be 4-byte aligned: every node word is read and written through
// memcpy, never through an llist_node lvalue.
//
// A *link* is the address of a word that points at a node: the caller's list
// variable (`plist`) or the `next` word of a node. Walking by links lets one
// loop handle "the first node" and "a later node" alike:
//
//   plist --> [A|next] --> [B|next] --> [C|null]
//   link 0 = plist, link 1 = &A.next, link 2 = &B.next, link 3 = &C.next (end)
//
// Everything here runs with the library lock held (the public entry points
// take it) and logs nothing.
#ifndef LLIST_PRIVATE_H
#define LLIST_PRIVATE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "../memm/memm_private.h"
#include "llist.h"

namespace llist_detail {

// ---- node words -------------------------------------------------------------
constexpr size_t kObjOffset = offsetof(llist_node, linked_obj);
constexpr size_t kNextOffset = offsetof(llist_node, next);
static_assert(kObjOffset == 0 && kNextOffset == sizeof(void *), "llist_node is two pointer words");

inline void *load_ptr(const uint8_t *addr) {
    void *p;
    memcpy(&p, addr, sizeof p);
    return p;
}
inline void store_ptr(uint8_t *addr, void *p) { memcpy(addr, &p, sizeof p); }

inline uint8_t *node_bytes(llist_node *node) { return reinterpret_cast<uint8_t *>(node); }
inline void *node_obj(llist_node *node) { return load_ptr(node_bytes(node) + kObjOffset); }
inline void node_set_obj(llist_node *node, void *obj) { store_ptr(node_bytes(node) + kObjOffset, obj); }
inline llist_node *node_next(llist_node *node) {
    return static_cast<llist_node *>(load_ptr(node_bytes(node) + kNextOffset));
}
inline void node_set_next(llist_node *node, llist_node *next) { store_ptr(node_bytes(node) + kNextOffset, next); }

// ---- links ------------------------------------------------------------------
using Link = uint8_t *;
inline Link list_link(llist_node **plist) { return reinterpret_cast<Link>(plist); }
inline Link next_link(llist_node *node) { return node_bytes(node) + kNextOffset; }
inline llist_node *link_node(Link link) { return static_cast<llist_node *>(load_ptr(link)); }
inline void link_set(Link link, llist_node *node) { store_ptr(link, node); }

// The last node of a non-empty chain.
inline llist_node *chain_last(llist_node *chain) {
    while (llist_node *next = node_next(chain))
        chain = next;
    return chain;
}

// ---- hooks installed by llist_initpool (core.cc, print.cc) --------------------
// The node destructor, installed as every node pool's free_ex hook.
MEMM_INTERNAL uint32_t loc_llist_node_destructor(void *obj);
// The node printer, installed as print2 when the caller gives no print hook.
MEMM_INTERNAL void loc_llist_print_node(void *obj, memm_print_fn print);

// ---- building (core.cc) --------------------------------------------------------
// Allocates a node from `pool` holding obj and records `caller` as its
// allocation site; null when the pool gives none or is not a node pool
// (free_ex other than the node destructor, or objects smaller than a node),
// which every caller reports as "no node".
MEMM_INTERNAL llist_node *loc_llist_new_node(uint32_t pool, void *obj, void *caller);
// Appends a chain (its own next links kept) at the end of *plist.
// MEMM_ERR_INVALID_ARG when plist or chain is null.
MEMM_INTERNAL uint32_t loc_llist_append_chain(llist_node **plist, llist_node *chain);
// The add of llist_addobject(_nolock): see llist.h.
MEMM_INTERNAL uint32_t loc_llist_addobject(llist_node **plist, void *obj, uint32_t pool, void *caller);
// The positional insert of a chain (one node, or a whole list): 0 for a null
// chain; MEMM_ERR_INVALID_ARG for a null plist or a position beyond the end,
// with the list and the chain unchanged.
MEMM_INTERNAL uint32_t loc_llist_insert_chain_at(llist_node **plist, llist_node *chain, int32_t index);

// ---- detaching (detach.cc) -----------------------------------------------------
// What happens to a node after it is unhooked from its list.
enum class DetachMode : int { kDelete = 0, kRemove = 1, kUnlink = 3 };
// Detaches the node at index / the first node holding obj and finishes it in
// `mode`; in kUnlink the node goes to *out when out is given.
MEMM_INTERNAL uint32_t loc_llist_detach_at(llist_node **plist, int32_t index, DetachMode mode, llist_node **out);
MEMM_INTERNAL uint32_t loc_llist_detach_byobject(llist_node **plist, void *obj, DetachMode mode, llist_node **out);

// ---- access (access.cc) -----------------------------------------------------------
MEMM_INTERNAL uint32_t loc_llist_getlength(llist_node *list);
MEMM_INTERNAL llist_node *loc_llist_get_at(llist_node *list, int32_t index);

} // namespace llist_detail

#endif
