#include "syslog_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>

namespace memm_test {

namespace {

std::mutex g_mutex;
std::vector<std::string> g_lines; // every line at LOG_DEBUG: the priority is not checked

std::string vfmt(const char *format, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    const int n = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string s(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        vsnprintf(&s[0], size_t(n) + 1, format, ap);
    return s;
}

size_t count_if(const std::string &text, bool prefix) {
    size_t n = 0;
    for (const std::string &line : log_texts())
        n += prefix ? line.compare(0, text.size(), text) == 0 : line == text;
    return n;
}

} // namespace

void capture(const char *format, va_list ap) {
    std::string text = vfmt(format, ap);
    std::lock_guard<std::mutex> g(g_mutex);
    g_lines.push_back(std::move(text));
}

std::vector<std::string> log_texts() {
    std::lock_guard<std::mutex> g(g_mutex);
    return g_lines;
}

void clear_logs() {
    std::lock_guard<std::mutex> g(g_mutex);
    g_lines.clear();
}

size_t log_count(const std::string &text) { return count_if(text, false); }
size_t log_count_prefix(const std::string &prefix) { return count_if(prefix, true); }

std::string fmt(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vfmt(format, ap);
    va_end(ap);
    return s;
}

} // namespace memm_test

// The plain and the fortified entry points, as the library may be built with either.
#define CAPTURE_VARIADIC(format) \
    va_list ap;                  \
    va_start(ap, format);        \
    memm_test::capture(format, ap); \
    va_end(ap);
extern "C" {
void syslog(int, const char *format, ...) { CAPTURE_VARIADIC(format) }
void __syslog_chk(int, int, const char *format, ...) { CAPTURE_VARIADIC(format) }
void vsyslog(int, const char *format, va_list ap) { memm_test::capture(format, ap); }
void __vsyslog_chk(int, int, const char *format, va_list ap) { memm_test::capture(format, ap); }
}
