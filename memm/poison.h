// Free slots made visible to memory checkers. A build with AddressSanitizer,
// or with MEMM_VALGRIND for Memcheck, marks the object area of every free
// slot inaccessible, so a use after release is reported like one after free();
// any other build compiles both functions to nothing.
//
// What stays accessible in a free slot: the 16 header bytes (the walks, the
// integrity check, the listings and every validation read the state word of
// free slots) and the free link, which is the object's first word, or the
// allocfrom word for 1- to 4-byte objects (free_link_offset).
//
// AddressSanitizer tracks 8-byte granules and can only mark a granule's tail
// inaccessible, never its head. Slots are only 4-byte aligned, so it is given
// the exact area and poisons the part of it that it can represent: a granule
// that starts inside the link loses just its tail, and the last granule of an
// object that shares its tail with the next slot's header stays readable. So
// up to 7 bytes at either end of the area may stay readable (an object of 12
// bytes or fewer possibly all of it), but no header or link byte is ever
// poisoned. Memcheck works bytewise and marks the exact area.
#ifndef MEMM_POISON_H
#define MEMM_POISON_H

#include "memm_private.h"

#if defined(__SANITIZE_ADDRESS__)
#define MEMM_POISON_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MEMM_POISON_ASAN 1
#endif
#endif

#ifdef MEMM_POISON_ASAN
#include <sanitizer/asan_interface.h>
#endif
#ifdef MEMM_VALGRIND
#include <valgrind/memcheck.h>
#endif

namespace memm_detail {

// Marks the object area of free `slot` behind its free link inaccessible.
// Called once the slot's state word and link are written.
inline void loc_poison_slot(const memm_pooldesc *p, uint8_t *slot) {
#if defined(MEMM_POISON_ASAN) || defined(MEMM_VALGRIND)
    const size_t from = free_link_offset(p) == kHdrSize ? kHdrSize + sizeof(void *) : kHdrSize;
    if (p->slotsize > from) {
        uint8_t *area = slot + from;
        const size_t bytes = p->slotsize - from;
#ifdef MEMM_POISON_ASAN
        ASAN_POISON_MEMORY_REGION(area, bytes);
#endif
#ifdef MEMM_VALGRIND
        VALGRIND_MAKE_MEM_NOACCESS(area, bytes);
#endif
    }
#else
    (void)p;
    (void)slot;
#endif
}

// Makes the whole object area of `slot`, just taken off the free list,
// accessible again before it is zero-filled.
inline void loc_unpoison_slot(const memm_pooldesc *p, uint8_t *slot) {
#if defined(MEMM_POISON_ASAN) || defined(MEMM_VALGRIND)
    uint8_t *area = slot + kHdrSize;
    const size_t bytes = p->slotsize - kHdrSize;
#ifdef MEMM_POISON_ASAN
    ASAN_UNPOISON_MEMORY_REGION(area, bytes);
#endif
#ifdef MEMM_VALGRIND
    // Undefined, not defined: the zero fill that follows defines it, so
    // Memcheck still sees the bytes as written by the library.
    VALGRIND_MAKE_MEM_UNDEFINED(area, bytes);
#endif
#else
    (void)p;
    (void)slot;
#endif
}

// Makes a whole range of slots accessible before it is initialised: a
// table built again after a failed start reuses slots the first start left
// poisoned.
inline void loc_unpoison_range(uint8_t *first, size_t bytes) {
#ifdef MEMM_POISON_ASAN
    ASAN_UNPOISON_MEMORY_REGION(first, bytes);
#endif
#ifdef MEMM_VALGRIND
    VALGRIND_MAKE_MEM_UNDEFINED(first, bytes);
#endif
    (void)first;
    (void)bytes;
}

} // namespace memm_detail

#endif
