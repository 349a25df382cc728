// Bounded string copy (the C library here has none).
#include "dynstr_private.h"

namespace dynstr_detail {

size_t strlcpy(char *dst, const char *src, size_t size) {
    const size_t len = strlen(src);
    if (size) {
        const size_t n = len < size - 1 ? len : size - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

} // namespace dynstr_detail
