#include "report_files.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "memm.h"

namespace memm_test {

namespace {

const char *const kRedirected[] = {"/var/", "/root/"};
// A plain array, not a std::string: the exit handler may run after static destructors.
char g_folder[] = "/tmp/memm_reports_XXXXXX";
bool g_unwritable = false;
std::string g_printed;

// The process's folder, made on first use with one subfolder per redirected prefix.
std::string folder() {
    static const bool made = [] {
        if (!mkdtemp(g_folder))
            abort();
        for (const char *prefix : kRedirected)
            std::filesystem::create_directory(g_folder + std::string(prefix));
        return atexit([] {
                   std::error_code ignored;
                   std::filesystem::remove_all(g_folder, ignored);
               }) == 0;
    }();
    return made ? g_folder : "";
}

FILE *open_redirected(const char *real_name, const char *path, const char *mode) {
    auto real = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, real_name));
    for (const char *prefix : kRedirected)
        if (path && strncmp(path, prefix, strlen(prefix)) == 0)
            return g_unwritable ? nullptr : real((folder() + path).c_str(), mode);
    return real(path, mode);
}

} // namespace

std::string read_report_file(const std::string &library_path) {
    std::ostringstream content;
    content << std::ifstream(folder() + library_path).rdbuf();
    return content.str();
}

std::vector<std::string> report_files() {
    std::vector<std::string> out;
    for (const char *prefix : kRedirected)
        for (const auto &entry : std::filesystem::directory_iterator(folder() + prefix))
            out.push_back(prefix + entry.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

void set_report_folders_unwritable(bool unwritable) { g_unwritable = unwritable; }

int print_capture(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    char *text = nullptr;
    const int n = vasprintf(&text, format, ap);
    va_end(ap);
    if (n >= 0) {
        g_printed.append(text, size_t(n));
        free(text);
    }
    return n;
}

std::string take_printed() { return std::exchange(g_printed, std::string()); }

std::string usage_table(const char *prefix) {
    take_printed();
    memm_print_stats2(prefix, print_capture);
    return take_printed();
}

std::string listing(const char *prefix, uint32_t options, uint32_t limit) {
    take_printed();
    memm_print_objects4(prefix, options, print_capture, limit);
    return take_printed();
}

std::vector<void *> fill(uint32_t pool, int n) {
    std::vector<void *> objs(static_cast<size_t>(n));
    for (void *&obj : objs)
        obj = memm_calloc(pool);
    return objs;
}

unsigned long addr(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

} // namespace memm_test

extern "C" {
FILE *fopen(const char *path, const char *mode) { return memm_test::open_redirected("fopen", path, mode); }
FILE *fopen64(const char *path, const char *mode) { return memm_test::open_redirected("fopen64", path, mode); }
}
