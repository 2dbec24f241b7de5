// CPU time of this process's threads, grouped by name, so that a benchmark
// can tell the emulated card's work (threads named "emu-...") from the
// producer's. Read from /proc/self/task: the scheduler's nanosecond run time
// (schedstat) where the kernel keeps it, else utime + stime in clock ticks.
// Only living threads are counted: take both readings while they run.
#pragma once

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace pelorin_bench {

struct ThreadCpu {
    double emulator = 0;  // seconds of threads whose name starts with "emu-"
    double others = 0;    // seconds of every other thread
    double delivery = 0;  // of these, the producer's delivery threads ("pelorin-deliver")
};

// User and system CPU of the whole process so far, in seconds.
inline double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

inline double task_seconds(const std::string &task) {
    std::ifstream schedstat(task + "/schedstat");
    double nanoseconds = 0;
    if (schedstat >> nanoseconds) return nanoseconds / 1e9;
    std::ifstream stat_file(task + "/stat");
    std::string line;
    std::getline(stat_file, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stod(field);
        if (i == 15) stime = std::stod(field);
    }
    return (utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

inline ThreadCpu thread_cpu() {
    ThreadCpu cpu;
    DIR *tasks = ::opendir("/proc/self/task");
    if (tasks == nullptr) return cpu;
    while (const dirent *entry = ::readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        const std::string task = std::string("/proc/self/task/") + entry->d_name;
        std::string name;
        std::getline(std::ifstream(task + "/comm") >> std::ws, name);
        const double seconds = task_seconds(task);
        (name.rfind("emu-", 0) == 0 ? cpu.emulator : cpu.others) += seconds;
        if (name == "pelorin-deliver") cpu.delivery += seconds;
    }
    ::closedir(tasks);
    return cpu;
}

}  // namespace pelorin_bench
