// Keeps the library's report files out of the machine's /var and /root, and
// captures what reports print. Every test binary defines fopen and fopen64
// (they take precedence over the C library's for calls made from libmemm.so):
// a path beginning with "/var/" or "/root/" is opened inside a temporary
// folder of this process, removed when the process ends.
#ifndef MEMM_TEST_REPORT_FILES_H
#define MEMM_TEST_REPORT_FILES_H

#include <stdint.h>

#include <string>
#include <vector>

namespace memm_test {

// Content of a library path such as "/var/memm_dump_tagging_7", "" when absent.
std::string read_report_file(const std::string &library_path);
// Library paths of every report file that exists now, sorted.
std::vector<std::string> report_files();
// While set, every redirected open fails as an unwritable folder would.
void set_report_folders_unwritable(bool unwritable);

// A print function that collects its text; take_printed() returns it and starts anew.
int print_capture(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string take_printed();

// The usage table and the object listing as print_capture collects them.
std::string usage_table(const char *prefix);
std::string listing(const char *prefix, uint32_t options, uint32_t limit = 0);
// n objects taken from the pool, in order.
std::vector<void *> fill(uint32_t pool, int n);
// A pointer as the reports' "0x%08lx" expects it.
unsigned long addr(const void *p);

} // namespace memm_test

#endif
