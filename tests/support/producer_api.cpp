#include "producer_api.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

std::string cti_path() { return PELORIN_CTI_PATH; }

ProducerApi &ProducerApi::get() {
    static ProducerApi *api = [] {
        auto *p = new ProducerApi;
        p->library = dlopen(cti_path().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (p->library == nullptr) {
            std::fprintf(stderr, "cannot load %s: %s\n", cti_path().c_str(), dlerror());
            std::abort();
        }
#define PELORIN_API_ENTRY(name)                                                  \
    p->name = reinterpret_cast<decltype(p->name)>(dlsym(p->library, #name));     \
    if (p->name == nullptr) {                                                    \
        std::fprintf(stderr, "export %s missing\n", #name);                      \
        std::abort();                                                            \
    }
#include "producer_api_entries.inc"
#undef PELORIN_API_ENTRY
        return p;
    }();
    return *api;
}

std::string run_child(const std::string &mode, const std::string &cwd, int *status) {
    int out[2];
    if (pipe(out) != 0) return {};
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(90);
        const std::string arg = "--pelorin-child=" + mode;
        execl("/proc/self/exe", "api_tests", arg.c_str(), static_cast<char *>(nullptr));
        _exit(91);
    }
    close(out[1]);
    std::string output;
    char chunk[4096];
    ssize_t n;
    while ((n = read(out[0], chunk, sizeof chunk)) > 0) output.append(chunk, static_cast<size_t>(n));
    close(out[0]);
    waitpid(pid, status, 0);
    return output;
}

pid_t spawn_child(const std::string &mode, std::string *first_line) {
    int out[2];
    if (pipe(out) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        const std::string arg = "--pelorin-child=" + mode;
        execl("/proc/self/exe", "api_tests", arg.c_str(), static_cast<char *>(nullptr));
        _exit(91);
    }
    close(out[1]);
    // The first line that reports the child's GCInitLib (log lines come first).
    std::string line;
    char c;
    while (read(out[0], &c, 1) == 1) {
        if (c != '\n') {
            line += c;
            continue;
        }
        if (line.rfind("GCInitLib=", 0) == 0) break;
        line.clear();
    }
    close(out[0]);
    if (first_line) *first_line = line;
    return pid;
}
