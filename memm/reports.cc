// Statistics reports and dump files.
#include "memm_private.h"

namespace memm_detail {

// Statistics dump file; written once the reports land.
void loc_memm_dump_stats(const char *, uint32_t, const char *, const char *) {}

} // namespace memm_detail
