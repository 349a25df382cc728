#include "report_files.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "memm.h"

namespace memm_test {

namespace {

// Plain arrays, not std::strings: the exit handler may run after static destructors.
char g_folder[] = "/tmp/memm_reports_XXXXXX";
char g_aside[sizeof g_folder + 6];
std::string g_printed;

// Runs before main, so before any memm_init of the process.
const bool g_folder_made = [] {
    if (!mkdtemp(g_folder) || setenv("MEMM_REPORT_DIR", g_folder, 1) != 0)
        abort();
    snprintf(g_aside, sizeof g_aside, "%s.aside", g_folder);
    return atexit([] {
               std::error_code ignored;
               std::filesystem::remove_all(g_aside, ignored);
               std::filesystem::remove_all(g_folder, ignored);
           }) == 0;
}();

} // namespace

std::string report_path(const std::string &library_path) {
    return std::string(g_folder) + "/" + std::filesystem::path(library_path).filename().string();
}

std::string read_report_file(const std::string &library_path) {
    std::ostringstream content;
    content << std::ifstream(report_path(library_path)).rdbuf();
    return content.str();
}

std::vector<std::string> report_files() {
    std::vector<std::string> out;
    for (const auto &entry : std::filesystem::directory_iterator(g_folder))
        // the library's default folder: depletion reports go to /root
        out.push_back((entry.path().filename().string().find("_pool_depleted_") != std::string::npos ? "/root/" : "/var/") +
                      entry.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

// The tests run as root, whom no permission stops: the folder is moved
// aside and a plain file put at its path.
void set_report_folders_unwritable(bool unwritable) {
    if (unwritable) {
        if (rename(g_folder, g_aside) != 0 || close(open(g_folder, O_WRONLY | O_CREAT | O_EXCL, 0600)) != 0)
            abort();
    } else if (unlink(g_folder) != 0 || rename(g_aside, g_folder) != 0) {
        abort();
    }
}

int print_capture(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    char *text = nullptr;
    const int n = vasprintf(&text, format, ap);
    va_end(ap);
    if (n >= 0)
        g_printed.append(text, size_t(n)), free(text);
    return n;
}

std::string take_printed() { return std::exchange(g_printed, std::string()); }

std::string output_to_fd(int fd, const std::function<void()> &run) {
    fflush(nullptr);
    char name[] = "/tmp/memm_fd_XXXXXX";
    const int capture = mkstemp(name);
    const int saved = dup(fd);
    if (capture < 0 || saved < 0 || dup2(capture, fd) < 0)
        abort();
    run();
    fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    close(capture);
    std::ostringstream content;
    content << std::ifstream(name).rdbuf();
    unlink(name);
    return content.str();
}

std::string usage_table(const char *prefix) {
    take_printed();
    return memm_print_stats2(prefix, print_capture), take_printed();
}

std::string listing(const char *prefix, uint32_t options, uint32_t limit) {
    take_printed();
    return memm_print_objects4(prefix, options, print_capture, limit), take_printed();
}

std::vector<void *> fill(uint32_t pool, int n) {
    std::vector<void *> objs(static_cast<size_t>(n));
    for (void *&obj : objs)
        obj = memm_calloc(pool);
    return objs;
}

unsigned long addr(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

} // namespace memm_test
