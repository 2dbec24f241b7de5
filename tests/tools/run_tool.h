// Runs a command-line tool as a user does: its binary, its arguments, an
// environment of its own; returns its exit code and what it printed.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct ToolRun {
    int exit_code = -1;     // -1: killed by a signal or by the time limit
    int signal = 0;         // the signal that ended it, 0 if none
    std::string out, err;   // what it wrote to stdout and stderr
};

inline std::string read_whole_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// `environment`: NAME=VALUE pairs set on top of the test's own; a pair
// "NAME=" with no value unsets NAME. The tool is killed after `limit`.
inline ToolRun run_tool(const std::string &binary, const std::vector<std::string> &args,
                        const std::vector<std::string> &environment = {},
                        std::chrono::seconds limit = std::chrono::seconds(120)) {
    char out_template[] = "/tmp/tool_out_XXXXXX";
    char err_template[] = "/tmp/tool_err_XXXXXX";
    const int out_fd = ::mkstemp(out_template);
    const int err_fd = ::mkstemp(err_template);
    ToolRun run;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(out_fd, STDOUT_FILENO);
        ::dup2(err_fd, STDERR_FILENO);
        for (const std::string &pair : environment) {
            const size_t equals = pair.find('=');
            const std::string name = pair.substr(0, equals);
            if (equals + 1 == pair.size()) ::unsetenv(name.c_str());
            else ::setenv(name.c_str(), pair.substr(equals + 1).c_str(), 1);
        }
        std::vector<char *> argv{const_cast<char *>(binary.c_str())};
        for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        ::execv(binary.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(status)) run.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
    ::close(out_fd);
    ::close(err_fd);
    run.out = read_whole_file(out_template);
    run.err = read_whole_file(err_template);
    ::unlink(out_template);
    ::unlink(err_template);
    return run;
}
