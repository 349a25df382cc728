#include "report_files.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <ftw.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace memm_test {

namespace {

const char *const kRedirected[] = {"/var/", "/root/"};

std::atomic<bool> g_unwritable{false};

int remove_entry(const char *path, const struct stat *, int, struct FTW *) { return remove(path); }

void remove_folder();

// The process's folder, created on first use with one subfolder per
// redirected prefix ("<folder>/var", "<folder>/root").
const std::string &folder() {
    static std::once_flag once;
    static std::string path;
    std::call_once(once, [] {
        char tmpl[] = "/tmp/memm_reports_XXXXXX";
        if (!mkdtemp(tmpl)) {
            perror("memm test: mkdtemp");
            abort();
        }
        path = tmpl;
        mkdir((path + "/var").c_str(), 0700);
        mkdir((path + "/root").c_str(), 0700);
        atexit(remove_folder);
    });
    return path;
}

void remove_folder() { nftw(folder().c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS); }

bool is_redirected(const char *path) {
    for (const char *prefix : kRedirected)
        if (strncmp(path, prefix, strlen(prefix)) == 0)
            return true;
    return false;
}

using fopen_fn = FILE *(*)(const char *, const char *);

fopen_fn next_fopen() {
    static fopen_fn fn = reinterpret_cast<fopen_fn>(dlsym(RTLD_NEXT, "fopen"));
    return fn;
}
fopen_fn next_fopen64() {
    static fopen_fn fn = reinterpret_cast<fopen_fn>(dlsym(RTLD_NEXT, "fopen64"));
    return fn;
}

FILE *open_redirected(fopen_fn real, const char *path, const char *mode) {
    if (!path || !is_redirected(path))
        return real(path, mode);
    if (g_unwritable) {
        errno = EACCES;
        return nullptr;
    }
    return real((folder() + path).c_str(), mode);
}

} // namespace

std::string report_file_path(const std::string &library_path) { return folder() + library_path; }

bool report_file_exists(const std::string &library_path) {
    struct stat st;
    return stat(report_file_path(library_path).c_str(), &st) == 0;
}

std::string read_report_file(const std::string &library_path) {
    std::string content;
    FILE *f = next_fopen()(report_file_path(library_path).c_str(), "r");
    if (!f)
        return content;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        content.append(buf, n);
    fclose(f);
    return content;
}

std::vector<std::string> report_files() {
    std::vector<std::string> out;
    for (const char *prefix : kRedirected) {
        DIR *dir = opendir((folder() + prefix).c_str());
        if (!dir)
            continue;
        while (struct dirent *e = readdir(dir))
            if (e->d_name[0] != '.')
                out.push_back(std::string(prefix) + e->d_name);
        closedir(dir);
    }
    std::sort(out.begin(), out.end());
    return out;
}

void set_report_folders_unwritable(bool unwritable) { g_unwritable = unwritable; }

namespace {
std::string g_printed;
}

int print_capture(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    va_list copy;
    va_copy(copy, ap);
    const int n = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (n > 0) {
        std::string text(size_t(n), '\0');
        vsnprintf(&text[0], size_t(n) + 1, format, ap);
        g_printed += text;
    }
    va_end(ap);
    return n;
}

std::string take_printed() {
    std::string out;
    out.swap(g_printed);
    return out;
}

} // namespace memm_test

extern "C" {

FILE *fopen(const char *path, const char *mode) {
    return memm_test::open_redirected(memm_test::next_fopen(), path, mode);
}

FILE *fopen64(const char *path, const char *mode) {
    return memm_test::open_redirected(memm_test::next_fopen64(), path, mode);
}

} // extern "C"
