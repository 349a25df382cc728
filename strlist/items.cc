// Reading and changing the items of a string list by position, enumerating
// them, and joining the list back into one record.
#include "strlist_private.h"

using dynstr_detail::loc_isdynstring;
using memm_detail::PoolLock;

namespace {

const char kEmptyText[] = "";

// The live record at pos, or null. Lock held.
dynstr *record_at(llist_node *list, int32_t pos) {
    llist_node *node = llist_detail::loc_llist_get_at(list, pos);
    void *obj = node ? llist_detail::node_obj(node) : nullptr;
    return loc_isdynstring(obj) ? static_cast<dynstr *>(obj) : nullptr;
}

} // namespace

extern "C" {

uint32_t strlist_getlength(llist_node *list) { return llist_getlength(list); }

dynstr *strlist_getdynstr_at(llist_node *list, int32_t pos) {
    void *obj = llist_getobject_at(list, pos);
    return dynstr_isdynstring(obj) ? static_cast<dynstr *>(obj) : nullptr;
}

const char *strlist_getstring_at(llist_node *list, int32_t pos) {
    PoolLock lock("strlist_getstring_at");
    dynstr *d = record_at(list, pos);
    return d ? dynstr_getstring_nolock(d) : kEmptyText;
}

uint32_t strlist_getuint32_at(llist_node *list, uint32_t *out, int32_t pos) {
    dynstr *d = strlist_getdynstr_at(list, pos);
    return d ? dynstr_getuint32(d, out) : MEMM_ERR_INVALID_ARG;
}

uint32_t strlist_getulong_at(llist_node *list, uint32_t *out, int32_t pos) {
    return strlist_getuint32_at(list, out, pos);
}

uint32_t strlist_setstring_at(llist_node *list, const char *s, int32_t pos) {
    PoolLock lock("strlist_setstring_at");
    dynstr *d = record_at(list, pos);
    return d ? dynstr_setstring_nolock(d, s) : MEMM_ERR_INVALID_ARG;
}

uint32_t strlist_delete_at(llist_node **plist, int32_t pos) { return llist_delete_at(plist, pos); }

uint32_t strlist_remove_at(llist_node **plist, int32_t pos) { return llist_remove_at(plist, pos); }

uint32_t strlist_remove_byobject(llist_node **plist, dynstr *d) { return llist_remove_byobject(plist, d); }

dynstr *strlist_enum_dynstr(llist_node *list, uint32_t *index, dynstr **last) {
    PoolLock lock("strlist_enum_dynstr");
    return llist_enum_dynstr(list, index, last);
}

dynstr *strlist_todynstr(llist_node *list, const char *sep, uint32_t strpool) {
    return dynstr_fromstrlist(strpool, list, sep);
}

dynstr *strlist_partialtodynstr(llist_node *list, const char *sep, uint32_t strpool, int32_t first, int32_t end) {
    return dynstr_frompartialstrlist(strpool, list, sep, first, end);
}

} // extern "C"
