// The collector's record map: for every chunk of a string buffer, the record
// whose text last started in it.
//
// The collector follows the records of a buffer along their next links, and
// the records lie scattered over the record pool (slots are reused last
// released first), so a plain walk waits for one record after the other.
// The texts, though, lie in list order in the buffer. So the map, indexed by
// buffer offset, names the records far ahead of the walk, which prefetches
// them while it works on the current one.
//
//   buffer  [ a      ][ b       ][c][ d   ]...
//   chunks  |   0    |   1   |   2   |   3   |
//   map     [   a    ,   b   ,   c   ,   d   ]   (a chunk names the last
//                                                 record whose text started
//                                                 in it)
//
// The map is a hint and nothing more: the walk never reads a record through
// it, only prefetches, so a stale entry (a record released, merged or moved
// since) costs one useless prefetch and never a wrong result. It is kept up
// where texts start: placement, a detached text's new owner, a merge with
// the preceding placeholder, and the collector's own moves. Of texts shorter
// than a chunk, several may start in one, and only the last is named.
//
// Each buffer's map lies behind it, in the same allocation, one entry a
// chunk. Chunks are 32 bytes or larger, and all maps together have no more
// entries than the pool has record slots (plus one a buffer), so they cost
// at most 4 bytes a slot. An entry is the record's distance from the pool's
// anchor record in 16-byte units: records are 48-byte slots of one storage
// block, and the anchor takes its first slot.
#ifndef DYNSTR_RECORD_MAP_H
#define DYNSTR_RECORD_MAP_H

#include <stddef.h>
#include <stdint.h>

#include "dynstr.h"

namespace dynstr_detail {

// Chunks are a power of two of at least 32 bytes, large enough that the
// maps of all buffers together have no more entries than record slots.
inline uint32_t chunk_shift(int32_t buffersize, int32_t buffers, uint32_t capacity) {
    const uint64_t total = uint64_t(uint32_t(buffersize)) * uint32_t(buffers);
    const int excess = (64 - __builtin_clzll(total | 1)) - (32 - __builtin_clz(capacity | 1)) + 1;
    return excess > 5 ? uint32_t(excess) : 5u;
}
inline uint32_t chunk_count(int32_t buffersize, uint32_t shift) { return (uint32_t(buffersize) >> shift) + 1; }

// A buffer's allocation: the buffer, then its map.
inline size_t record_map_offset(int32_t buffersize) { return (size_t(buffersize) + 3) & ~size_t(3); }
inline size_t buffer_bytes(int32_t buffersize, int32_t buffers, uint32_t capacity) {
    return record_map_offset(buffersize) +
           size_t(chunk_count(buffersize, chunk_shift(buffersize, buffers, capacity))) * sizeof(uint32_t);
}

// Buffer k's map, as the functions below use it.
struct RecordMap {
    uint32_t *entry;
    uint32_t shift, count;
    uintptr_t anchor;

    RecordMap(const dynstr_pooldesc *pool, uint32_t k)
        : entry(reinterpret_cast<uint32_t *>(pool->buf_base[k] + record_map_offset(pool->buffersize))),
          shift(chunk_shift(pool->buffersize, pool->buffercount, pool->capacity)),
          count(chunk_count(pool->buffersize, shift)), anchor(reinterpret_cast<uintptr_t>(pool->anchor)) {}

    // Names d in the chunk where its text, at offset, starts.
    void note(const dynstr *d, uint32_t offset) const {
        const uint32_t chunk = offset >> shift;
        if (chunk < count)
            entry[chunk] = uint32_t((reinterpret_cast<uintptr_t>(d) - anchor) / 16);
    }
    // The record that an entry names, as an address to prefetch: never read.
    uintptr_t record_of(uint32_t e) const { return anchor + uintptr_t(e) * 16; }
};

// d's text, which starts in buffer k, as the map should know it.
inline void note_text(const dynstr_pooldesc *pool, uint32_t k, const dynstr *d) {
    const RecordMap map(pool, k);
    map.note(d, uint32_t(reinterpret_cast<uintptr_t>(d->str) - reinterpret_cast<uintptr_t>(pool->buf_base[k])));
}

} // namespace dynstr_detail

#endif
