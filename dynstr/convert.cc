// Typed conversions: numbers, flags, IPv4/IPv6 addresses and MAC addresses
// to and from the text of a record. Hex texts are in hex.cc.
//
// Texts are made with the formatting writer, so a value's text obeys the
// record's maximum size like any other; they are parsed with sscanf and
// inet_pton, whose acceptance rules are therefore the getters' rules.
#include <arpa/inet.h>
#include <stddef.h>
#include <stdio.h>

#include "dynstr_private.h"

namespace dynstr_detail {

uint32_t loc_getipv4addr(const char *text, uint32_t *out) {
    uint8_t bytes[4] = {};
    if (*text && inet_pton(AF_INET, text, bytes) < 1)
        return MEMM_ERR_INVALID_ARG;
    memcpy(out, bytes, sizeof bytes);
    return MEMM_OK;
}

uint32_t loc_getipv6addr(const char *text, uint8_t *out16) {
    if (!*text) {
        memset(out16, 0, 16);
        return MEMM_OK;
    }
    return inet_pton(AF_INET6, text, out16) < 1 ? MEMM_ERR_INVALID_ARG : MEMM_OK;
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

const char kTrueText[] = "1";
const char kFalseText[] = "0";
constexpr size_t kIpv6TextSize = 47; // the longest IPv6 text and its terminator, with room to spare

// The octets of an IPv4 address value in text order: the value holds them
// as inet_pton stores them, first octet in the lowest-addressed byte.
struct Octets {
    unsigned a, b, c, d;
};
Octets octets(uint32_t addr) {
    uint8_t bytes[4];
    memcpy(bytes, &addr, sizeof bytes);
    return {bytes[0], bytes[1], bytes[2], bytes[3]};
}

dynstr *from_ipv4addr(uint32_t pool, uint32_t addr, const char *reason, void *caller) {
    const Octets o = octets(addr);
    PoolLock lock(reason);
    return loc_fromprintf(pool, caller, "%u.%u.%u.%u", o.a, o.b, o.c, o.d);
}

uint32_t set_ipv4addr(dynstr *d, uint32_t addr, const char *reason) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    const Octets o = octets(addr);
    PoolLock lock(reason);
    return loc_sprintf(d, "%u.%u.%u.%u", o.a, o.b, o.c, o.d);
}

// The checks every getter makes before it parses: a null argument or an
// empty record (unless the getter takes one) is refused without the lock,
// a record that is not live under it. Before that check d may be any
// pointer, possibly less aligned than a record, so its text pointer is
// read bytewise.
bool refused_unlocked(const dynstr *d, const void *out, bool takes_empty) {
    if (!d || !out)
        return true;
    // A released slot is no record, and memory checkers may have made its
    // object area inaccessible: its free marker alone refuses it.
    if (memm_detail::hdr_state(reinterpret_cast<const uint8_t *>(d) - memm_detail::kHdrSize) == MEMM_STATE_FREE)
        return true;
    char *str;
    memcpy(&str, reinterpret_cast<const char *>(d) + offsetof(dynstr, str), sizeof str);
    return !takes_empty && !str;
}
bool refused_locked(const dynstr *d, bool takes_empty) { return !loc_isdynstring(d) || (!takes_empty && !d->str); }

// One number and nothing but blanks behind it. The number is stored as soon
// as it is read, so a text with a trailing word leaves it in *out although
// the result is MEMM_ERR_INVALID_ARG.
template <typename T>
uint32_t get_number(dynstr *d, T *out, const char *fmt, const char *reason) {
    if (refused_unlocked(d, out, false))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock(reason);
    if (refused_locked(d, false))
        return MEMM_ERR_INVALID_ARG;
    char trailing[11];
    return sscanf(d->str, fmt, out, trailing) == 1 ? MEMM_OK : MEMM_ERR_INVALID_ARG;
}

uint32_t get_ipv4addr(dynstr *d, uint32_t *out, const char *reason) {
    if (refused_unlocked(d, out, false))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock(reason);
    return refused_locked(d, false) ? MEMM_ERR_INVALID_ARG : loc_getipv4addr(d->str, out);
}

// Six values scanned from the text, each cut to a byte.
uint32_t scan_mac(const char *text, uint32_t len, uint8_t *out6) {
    unsigned v[6];
    char sep[5];
    int want, got;
    if (len == 12) {
        want = 6;
        got = sscanf(text, "%02x%02x%02x%02x%02x%02x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]);
    } else if (len == 17) {
        want = 11;
        got = sscanf(text, "%02x%c%02x%c%02x%c%02x%c%02x%c%02x", &v[0], &sep[0], &v[1], &sep[1], &v[2], &sep[2],
                     &v[3], &sep[3], &v[4], &sep[4], &v[5]);
    } else {
        return MEMM_ERR_INVALID_ARG;
    }
    if (got != want)
        return MEMM_ERR_INVALID_ARG;
    for (int i = 0; i < 6; i++)
        out6[i] = uint8_t(v[i]);
    return MEMM_OK;
}

} // namespace

extern "C" {

// ---- constructors ----------------------------------------------------------

dynstr *dynstr_fromulong(uint32_t pool, unsigned long v) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromulong");
    return loc_fromprintf(pool, caller, "%lu", v);
}

dynstr *dynstr_fromuint32(uint32_t pool, uint32_t v) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromuint32");
    return loc_fromprintf(pool, caller, "%u", v);
}

dynstr *dynstr_fromlong(uint32_t pool, long v) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromlong");
    return loc_fromprintf(pool, caller, "%ld", v);
}

dynstr *dynstr_fromint32(uint32_t pool, int32_t v) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromint32");
    return loc_fromprintf(pool, caller, "%i", v);
}

dynstr *dynstr_fromipv4addr(uint32_t pool, uint32_t addr) {
    return from_ipv4addr(pool, addr, "dynstr_fromipv4addr", __builtin_return_address(0));
}

dynstr *dynstr_fromipaddr(uint32_t pool, uint32_t addr) {
    return from_ipv4addr(pool, addr, "dynstr_fromipaddr", __builtin_return_address(0));
}

// ---- setters ---------------------------------------------------------------

uint32_t dynstr_setulong(dynstr *d, unsigned long v) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setulong");
    return loc_sprintf(d, "%lu", v);
}

uint32_t dynstr_setuint32(dynstr *d, uint32_t v) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setuint32");
    return loc_sprintf(d, "%u", v);
}

uint32_t dynstr_setlong(dynstr *d, long v) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setlong");
    return loc_sprintf(d, "%ld", v);
}

uint32_t dynstr_setint32(dynstr *d, int32_t v) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setint32");
    return loc_sprintf(d, "%i", v);
}

uint32_t dynstr_setipv4addr(dynstr *d, uint32_t addr) { return set_ipv4addr(d, addr, "dynstr_setipv4addr"); }

uint32_t dynstr_setipaddr(dynstr *d, uint32_t addr) { return set_ipv4addr(d, addr, "dynstr_setipaddr"); }

uint32_t dynstr_setipv6addr(dynstr *d, const uint8_t *addr16) {
    // Printed before the lock is taken: it needs nothing the lock guards.
    char text[kIpv6TextSize];
    if (!d || !addr16 || !inet_ntop(AF_INET6, addr16, text, sizeof text))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setipv6addr");
    return loc_sprintf(d, "%s", text);
}

uint32_t dynstr_setipaddr_any(dynstr *d, const dynstr_ipaddr *addr) {
    if (!addr)
        return MEMM_ERR_INVALID_ARG;
    if (addr->family == DYNSTR_IPADDR_FAMILY_V4) {
        uint32_t v4;
        memcpy(&v4, addr->addr, sizeof v4);
        return dynstr_setipv4addr(d, v4);
    }
    return addr->family == DYNSTR_IPADDR_FAMILY_V6 ? dynstr_setipv6addr(d, addr->addr) : MEMM_ERR_INVALID_ARG;
}

// The record refers to one of the library's constant texts: no buffer space.
uint32_t dynstr_setbool(dynstr *d, int v) { return dynstr_setliteral(d, v ? kTrueText : kFalseText); }

// ---- getters ---------------------------------------------------------------

uint32_t dynstr_getuint32(dynstr *d, uint32_t *out) { return get_number(d, out, "%u%10s", "dynstr_getuint32"); }

uint32_t dynstr_getulong(dynstr *d, uint32_t *out) { return get_number(d, out, "%u%10s", "dynstr_getulong"); }

uint32_t dynstr_getint32(dynstr *d, int32_t *out) { return get_number(d, out, "%i%10s", "dynstr_getint32"); }

uint32_t dynstr_getlong(dynstr *d, int32_t *out) { return get_number(d, out, "%i%10s", "dynstr_getlong"); }

uint32_t dynstr_getbool(dynstr *d, int *out) {
    if (refused_unlocked(d, out, true))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_getbool");
    if (refused_locked(d, true))
        return MEMM_ERR_INVALID_ARG;
    const char first = d->str ? d->str[0] : '\0';
    *out = first != '\0' && first != '0' && first != 'f';
    return MEMM_OK;
}

uint32_t dynstr_getipv4addr(dynstr *d, uint32_t *out) { return get_ipv4addr(d, out, "dynstr_getipv4addr"); }

uint32_t dynstr_getipaddr(dynstr *d, uint32_t *out) { return get_ipv4addr(d, out, "dynstr_getipaddr"); }

uint32_t dynstr_getipv6addr(dynstr *d, uint8_t *out16) {
    if (refused_unlocked(d, out16, false))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_getipv6addr");
    return refused_locked(d, false) ? MEMM_ERR_INVALID_ARG : loc_getipv6addr(d->str, out16);
}

uint32_t dynstr_getipaddr_any(dynstr *d, dynstr_ipaddr *out) {
    if (refused_unlocked(d, out, false))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_getipaddr_any");
    if (refused_locked(d, false))
        return MEMM_ERR_INVALID_ARG;
    uint32_t v4;
    if (loc_getipv4addr(d->str, &v4) == MEMM_OK) {
        memcpy(out->addr, &v4, sizeof v4);
        out->family = DYNSTR_IPADDR_FAMILY_V4;
        return MEMM_OK;
    }
    const uint32_t result = loc_getipv6addr(d->str, out->addr);
    if (result == MEMM_OK)
        out->family = DYNSTR_IPADDR_FAMILY_V6;
    return result;
}

uint32_t dynstr_getmacaddr(dynstr *d, uint8_t *out6) {
    if (refused_unlocked(d, out6, false))
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_getmacaddr");
    return refused_locked(d, false) ? MEMM_ERR_INVALID_ARG : scan_mac(d->str, dynstr_strlen(d), out6);
}

} // extern "C"
