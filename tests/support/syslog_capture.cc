#include "syslog_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include <mutex>

namespace memm_test {

namespace {

std::mutex &log_mutex() {
    static std::mutex m;
    return m;
}
std::vector<LogLine> &log_store() {
    static std::vector<LogLine> lines;
    return lines;
}

std::string vfmt(const char *format, va_list ap) {
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string s(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        vsnprintf(&s[0], size_t(n) + 1, format, ap);
    return s;
}

void capture(int priority, const char *format, va_list ap) {
    std::string text = vfmt(format, ap);
    std::lock_guard<std::mutex> g(log_mutex());
    log_store().push_back({priority, text});
}

} // namespace

std::vector<LogLine> logs() {
    std::lock_guard<std::mutex> g(log_mutex());
    return log_store();
}

std::vector<std::string> log_texts() {
    std::vector<std::string> out;
    for (const auto &l : logs())
        out.push_back(l.text);
    return out;
}

void clear_logs() {
    std::lock_guard<std::mutex> g(log_mutex());
    log_store().clear();
}

size_t log_count(const std::string &text) {
    size_t n = 0;
    for (const auto &l : logs())
        n += l.text == text;
    return n;
}

size_t log_count_prefix(const std::string &prefix) {
    size_t n = 0;
    for (const auto &l : logs())
        n += l.text.compare(0, prefix.size(), prefix) == 0;
    return n;
}

std::string fmt(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vfmt(format, ap);
    va_end(ap);
    return s;
}

} // namespace memm_test

extern "C" {

void syslog(int priority, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    memm_test::capture(priority, format, ap);
    va_end(ap);
}

void vsyslog(int priority, const char *format, va_list ap) { memm_test::capture(priority, format, ap); }

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    memm_test::capture(priority, format, ap);
    va_end(ap);
}

void __vsyslog_chk(int priority, int, const char *format, va_list ap) { memm_test::capture(priority, format, ap); }

} // extern "C"
