// A C++ program built against memm the way another project builds: it
// checks that the version header agrees with the version the build found,
// then uses a pool and a dynamic string, through the C API and memm.hpp.
#include <cstdio>
#include <cstring>

#include "dynstr.h"
#include "memm.hpp"
#include "memm_version.h"

#define MEMM_STR2(x) #x
#define MEMM_STR(x) MEMM_STR2(x)

namespace {

struct record {
    unsigned id;
    char name[12];
};

int fail(const char *what) {
    std::fprintf(stderr, "consumer (%s): %s\n", MEMM_CONSUMER_KIND, what);
    return 1;
}

} // namespace

int main() {
    const char *parts = MEMM_STR(MEMM_VERSION_MAJOR) "." MEMM_STR(MEMM_VERSION_MINOR) "." MEMM_STR(MEMM_VERSION_PATCH);
    if (std::strcmp(parts, MEMM_EXPECTED_VERSION) != 0 || std::strcmp(MEMM_VERSION_STRING, MEMM_EXPECTED_VERSION) != 0)
        return fail("memm_version.h does not match the package version");
    if (memm_init(8, 1) != MEMM_OK)
        return fail("memm_init");
    const uint32_t pool = memm_initpool("consumer_records", 4, sizeof(record), nullptr);
    const uint32_t strings = dynstr_initpool("consumer_strings", 8, 1024);
    if (pool == MEMM_INVALID_POOL || strings == MEMM_INVALID_POOL)
        return fail("pool creation");
    auto *r = static_cast<record *>(memm_calloc(pool));
    if (!r || r->id != 0)
        return fail("memm_calloc");
    dynstr *text = dynstr_fromprintf(strings, "%s-%ld", "uplink", 42L);
    if (!text || std::strcmp(dynstr_getstring(text), "uplink-42") != 0)
        return fail("dynstr_fromprintf");
    {
        const memm::ref<record> shared = memm::ref<record>::share(r);
        const memm::dynstring peer(strings, "peer");
        if (!shared || memm_get_refcount(r) != 2 || peer.str() != "peer")
            return fail("memm.hpp");
    }
    if (memm_free(text) != MEMM_OK || memm_free(r) != MEMM_OK)
        return fail("memm_free");
    std::printf("consumer (%s): memm %s works\n", MEMM_CONSUMER_KIND, MEMM_VERSION_STRING);
    return 0;
}
