// Internal interface of the string-list family, shared by the files of
// strlist/. A string list is a list (llist/) whose linked objects are
// records (dynstr/); everything here runs with the library lock held.
#ifndef STRLIST_PRIVATE_H
#define STRLIST_PRIVATE_H

#include "../dynstr/dynstr_private.h"
#include "../llist/llist_private.h"
#include "strlist.h"

namespace strlist_detail {

// Hands a new record to a list: the record and its node record `caller` as
// their allocation site. When no node can be had the record is released, so
// the caller's item leaves nothing behind. MEMM_ERR_INVALID_ARG for a null
// plist, MEMM_ERR_NO_MEMORY for a null record or no node.
MEMM_INTERNAL uint32_t loc_strlist_append(llist_node **plist, dynstr *d, uint32_t nodepool, void *caller);

// A list under construction, appended to at its tail, so building n items
// costs n steps rather than a walk to the end for each.
class ListBuilder {
  public:
    ListBuilder(uint32_t nodepool, void *caller) : nodepool_(nodepool), caller_(caller) {}
    // Appends a new record (null: nothing happens); false when it could not
    // be linked, in which case the record has been released.
    bool append(dynstr *d);
    // Releases everything built so far (nodes and one reference of each record).
    void discard();
    llist_node *list() const { return head_; }
    void *caller() const { return caller_; }

  private:
    uint32_t nodepool_;
    void *caller_;
    llist_node *head_ = nullptr;
    llist_node *tail_ = nullptr;
};

} // namespace strlist_detail

#endif
