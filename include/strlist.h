/* String lists: lists (llist.h) whose linked objects are dynamic strings
 * (dynstr.h), made from text by splitting, read and changed by position, and
 * joined back into one string.
 *
 * A string list is a pointer to its first llist_node, null for the empty
 * list; each node holds one reference of its record. Functions that may
 * change the first node take `plist`, the address of the caller's list
 * variable. Positions count from 0; a negative position has the list's
 * length added once (-1 = the last item).
 *
 * Two pools: `nodepool` gives the nodes (a pool made with llist_initpool)
 * and `strpool` the records (a string pool from dynstr_initpool).
 *
 * There is no release function of this family: a string list is released
 * with the list operations, llist_free_plist(&list) (or memm_free of its
 * first node), which releases every node and one reference of every record.
 *
 * Every function takes the library's recursive lock for its whole run,
 * except strlist_addstring_nolock, whose caller holds it, and the thin
 * wrappers (strlist_getdynstr_at, strlist_getuint32_at, strlist_getulong_at,
 * delete/remove, the joins), whose called functions lock for themselves.
 *
 * Items made by an add or a building operation (and their nodes) record the
 * caller of that operation as their allocation site, so a listing names the
 * line that built the list. When the node pool gives no node for a new item,
 * the new record is released (nothing leaks): an add returns
 * MEMM_ERR_NO_MEMORY, a building operation leaves the item out. Functions of
 * this family log nothing themselves; the pool and string functions they
 * call log their own failures (memm.h, dynstr.h).
 */
#ifndef STRLIST_H
#define STRLIST_H

#include "dynstr.h"
#include "llist.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A string list is an llist whose linked objects are dynstr records.
 * nodepool: node pool id (llist_initpool); strpool: string pool id (dynstr_initpool). */

/* ================= Building and adding ================= */
/* Appends a new record holding a copy of s.
 * MEMM_ERR_NO_MEMORY: the record could not be made (null s, strpool not a
 * string pool, no record or no room) or no node was left (the record is
 * released); the list is unchanged. MEMM_ERR_INVALID_ARG: plist null,
 * refused before a record is made. The other adds share these results. */
MEMM_API uint32_t strlist_addstring(llist_node **plist, const char *s, uint32_t nodepool, uint32_t strpool);        /* result code */
MEMM_API uint32_t strlist_addstring_nolock(llist_node **plist, const char *s, uint32_t nodepool, uint32_t strpool); /* result code */
/* As strlist_addstring, but the item refers to literal, which must outlive
 * it and never change. */
MEMM_API uint32_t strlist_addliteral(llist_node **plist, const char *literal, uint32_t nodepool, uint32_t strpool); /* result code; item refers to literal */
/* As strlist_addstring with the decimal text of v (record and node made
 * under one hold of the lock). */
MEMM_API uint32_t strlist_adduint32(llist_node **plist, uint32_t v, uint32_t nodepool, uint32_t strpool);          /* result code */
MEMM_API uint32_t strlist_addulong(llist_node **plist, uint32_t v, uint32_t nodepool, uint32_t strpool);           /* result code; 32-bit, same as strlist_adduint32 */
/* llist_addobject and llist_addref for records (see llist.h). */
MEMM_API uint32_t strlist_adddynstr(llist_node **plist, dynstr *d, uint32_t nodepool);  /* result code; list takes over the caller's reference */
MEMM_API uint32_t strlist_addref(llist_node **plist, dynstr *d, uint32_t nodepool);     /* result code; list takes one more reference */
/* Splits s at every occurrence of sep (matched as a whole): n occurrences
 * give n + 1 items; leading, trailing and adjacent separators give empty
 * items, and "" gives one empty item. A null or empty sep gives one item
 * holding the whole text. No white space is removed. Pieces that cannot be
 * stored are left out (no node with a null object is made, which would end
 * the list's length). s must not lie in a buffer of strpool. */
MEMM_API llist_node *strlist_fromstring(const char *s, const char *sep, uint32_t nodepool, uint32_t strpool); /* new list (null for null s) */
/* The same split of d's text, in linear time; the items go into d's own
 * string pool. The text may move while the pieces are made (they may collect
 * its buffer), so pieces are cut by offset. A d that is not a live record
 * gives the empty list. */
MEMM_API llist_node *strlist_fromdynstr(dynstr *d, const char *sep, uint32_t nodepool);  /* new list, items in d's pool (null for null d) */
/* Splits s at every sep that esc does not escape, decoding s in place: an
 * esc before any character stands for that character (also sep or esc), and
 * a trailing esc is dropped. Afterwards s holds the items, separated by
 * terminators. The inverse of dynstr_fromstrlist_escaped with a
 * one-character separator: "a^,b,c^^d" with ',' and '^' gives "a,b" and
 * "c^d". Null for a null s, and null with nothing left behind when any item
 * cannot be stored. */
MEMM_API llist_node *strlist_fromstring_escaped(char *s, char sep, char esc, uint32_t nodepool,
                                                uint32_t strpool);                      /* new list or null; s is decoded in place */
/* One item per entry of the null-terminated array, in order; entries that
 * cannot be stored are left out. A null array gives the empty list. */
MEMM_API llist_node *strlist_fromstringarr(const char *const *arr, uint32_t nodepool, uint32_t strpool); /* new list; arr null-terminated */
/* A new list with a copy of every item's text in new records of strpool (a
 * literal item becomes a buffered copy; an item that is not a live record
 * becomes ""); items that cannot be stored are left out. Shares nothing with
 * list. */
MEMM_API llist_node *strlist_clone(llist_node *list, uint32_t nodepool, uint32_t strpool); /* new list of copied texts */
/* llist_refalloc: new nodes holding the same records, one more reference each. */
MEMM_API llist_node *strlist_refalloc(llist_node *list, uint32_t nodepool);              /* new list sharing the records (one more reference each) */

/* ================= Reading and changing items ================= */
/* llist_getlength. */
MEMM_API uint32_t strlist_getlength(llist_node *list);                                   /* length */
/* The record at pos when it is a live record, else null; no reference taken. */
MEMM_API dynstr  *strlist_getdynstr_at(llist_node *list, int32_t pos);                   /* live record at pos (no reference taken), or null */
/* The text at pos, or "" when no live record is there; never null. Valid
 * until the next write to, or collecting allocation in, its string pool. */
MEMM_API const char *strlist_getstring_at(llist_node *list, int32_t pos);                /* text at pos, or ""; never null */
/* dynstr_getuint32 of the record at pos; MEMM_ERR_INVALID_ARG when no live
 * record is there. */
MEMM_API uint32_t strlist_getuint32_at(llist_node *list, uint32_t *out, int32_t pos);    /* result code */
MEMM_API uint32_t strlist_getulong_at(llist_node *list, uint32_t *out, int32_t pos);     /* result code; 32-bit, same as strlist_getuint32_at */
/* dynstr_setstring of the record at pos; MEMM_ERR_INVALID_ARG when there is
 * no node at pos or its object is not a live record. */
MEMM_API uint32_t strlist_setstring_at(llist_node *list, const char *s, int32_t pos);    /* result code */
/* llist_delete_at: the node and one reference of its record are released. */
MEMM_API uint32_t strlist_delete_at(llist_node **plist, int32_t pos);                    /* result code */
/* llist_remove_at / llist_remove_byobject: the node is released and the
 * caller gets the list's reference of the record (release it later). */
MEMM_API uint32_t strlist_remove_at(llist_node **plist, int32_t pos);                    /* result code; caller gets the list's reference */
MEMM_API uint32_t strlist_remove_byobject(llist_node **plist, dynstr *d);                /* result code; caller gets the list's reference */
/* llist_enum_dynstr: the next live record; start a round with *index = 0. */
MEMM_API dynstr  *strlist_enum_dynstr(llist_node *list, uint32_t *index, dynstr **last); /* next live record, or null */

/* ================= Joining ================= */
/* dynstr_fromstrlist / dynstr_frompartialstrlist with the list first. */
MEMM_API dynstr  *strlist_todynstr(llist_node *list, const char *sep, uint32_t strpool); /* new record or null */
MEMM_API dynstr  *strlist_partialtodynstr(llist_node *list, const char *sep, uint32_t strpool,
                                          int32_t first, int32_t end);                   /* new record (items first..end-1) or null */

#ifdef __cplusplus
}
#endif

#endif /* STRLIST_H */
