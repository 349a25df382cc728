// Keeps the library's report files out of the machine's /var and /root, and
// captures what reports print. Before main, every test binary points
// MEMM_REPORT_DIR at a temporary folder of its own process, removed when the
// process ends; memm_init then puts every dump and list file there.
#ifndef MEMM_TEST_REPORT_FILES_H
#define MEMM_TEST_REPORT_FILES_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace memm_test {

// Content of the file that a library path such as "/var/memm_dump_tagging_7"
// names by default, "" when absent.
std::string read_report_file(const std::string &library_path);
// Where the library writes the file that `library_path` names by default.
std::string report_path(const std::string &library_path);
// Default library paths of every report file that exists now, sorted.
std::vector<std::string> report_files();
// While set, the report folder cannot receive files (a plain file takes its place).
void set_report_folders_unwritable(bool unwritable);

// A print function that collects its text; take_printed() returns it and starts anew.
int print_capture(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string take_printed();
// What `run` writes to file descriptor `fd` (1 or 2).
std::string output_to_fd(int fd, const std::function<void()> &run);

// The usage table and the object listing as print_capture collects them.
std::string usage_table(const char *prefix);
std::string listing(const char *prefix, uint32_t options, uint32_t limit = 0);
// n objects taken from the pool, in order.
std::vector<void *> fill(uint32_t pool, int n);
// A pointer as the reports' "0x%08lx" expects it.
unsigned long addr(const void *p);

} // namespace memm_test

#endif
