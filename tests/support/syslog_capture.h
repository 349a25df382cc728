// Captures what the library sends to syslog, so tests can check log lines.
// The test binaries define syslog, vsyslog and their fortified twins, which
// take precedence over the C library's for calls made from libmemm.so.
#ifndef MEMM_TEST_SYSLOG_CAPTURE_H
#define MEMM_TEST_SYSLOG_CAPTURE_H

#include <stdarg.h>

#include <string>
#include <vector>

namespace memm_test {

// Keeps one line: what the test binaries' syslog does.
void capture(const char *format, va_list ap);
std::vector<std::string> log_texts();
void clear_logs();
// Number of captured lines equal to `text`.
size_t log_count(const std::string &text);
// Number of captured lines that start with `prefix`.
size_t log_count_prefix(const std::string &prefix);

// printf into a std::string, for building expected lines from their formats.
std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace memm_test

#endif
