// Keeps the library's report files out of the machine's /var and /root.
// Every test binary defines fopen and fopen64 (they take precedence over the
// C library's for calls made from libmemm.so): a path beginning with "/var/"
// or "/root/" is opened inside a temporary folder of this process instead,
// which is removed when the process ends. Other paths are left alone.
#ifndef MEMM_TEST_REPORT_FILES_H
#define MEMM_TEST_REPORT_FILES_H

#include <string>
#include <vector>

namespace memm_test {

// Where a library path such as "/var/memm_dump_tagging_7" is really written.
std::string report_file_path(const std::string &library_path);
bool report_file_exists(const std::string &library_path);
// The file's whole content, or "" when it does not exist.
std::string read_report_file(const std::string &library_path);
// Library paths of every report file that exists now, sorted.
std::vector<std::string> report_files();
// While set, every redirected open fails as a folder that cannot be written would.
void set_report_folders_unwritable(bool unwritable);

// A print function for reports and listings that collects what it is given;
// take_printed() returns the text collected so far and starts anew.
int print_capture(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string take_printed();

} // namespace memm_test

#endif
