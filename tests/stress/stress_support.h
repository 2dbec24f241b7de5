// Shared pieces of the stress tests: how much work a run may do under the
// build's instrumentation, a watchdog that turns a hang into a failure with
// a message, a tally of the answers many threads got, and the process's
// resident memory and open descriptors.
#pragma once

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "pelorin/gentl.h"

namespace pelorin::stress {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#else
inline constexpr bool kThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#else
inline constexpr bool kAddressSanitizer = false;
#endif

// A sanitizer's allocator keeps freed memory back (quarantine, shadow), so
// the resident size says nothing about leaks there: LeakSanitizer does.
inline constexpr bool kSanitized = kThreadSanitizer || kAddressSanitizer;

// How long a timed stress phase runs: a few seconds in a plain build, a
// little less under a sanitizer (the work done per second is smaller there
// anyway; the interleavings are what counts).
inline std::chrono::milliseconds phase_length(int normal_ms, int instrumented_ms) {
    return std::chrono::milliseconds(kSanitized ? instrumented_ms : normal_ms);
}

// `normal` iterations in a plain build, `instrumented` under a sanitizer
// (ThreadSanitizer makes every synchronisation many times dearer).
inline constexpr int iterations(int normal, int instrumented) { return kSanitized ? instrumented : normal; }

// Ends the process with a message when the guarded scope has not finished
// `limit` after it began: a deadlock becomes a failure that names itself
// instead of a test that runs into the harness's time-out. The limit is far
// above any run's length; nothing is concluded from the time taken.
class watchdog {
public:
    watchdog(const char *what, std::chrono::seconds limit) : what_(what) {
        thread_ = std::thread([this, limit] {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!done_cv_.wait_for(lock, limit, [this] { return done_; })) {
                std::fprintf(stderr, "%s has not finished after %lld s: a thread hangs\n", what_,
                             static_cast<long long>(limit.count()));
                std::fflush(stderr);
                std::abort();
            }
        });
    }
    ~watchdog() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        done_cv_.notify_all();
        thread_.join();
    }
    watchdog(const watchdog &) = delete;
    watchdog &operator=(const watchdog &) = delete;

private:
    const char *what_;
    std::mutex mutex_;
    std::condition_variable done_cv_;
    bool done_ = false;
    std::thread thread_;
};

// The answers of calls made from many threads: how many there were, how
// many a call must not give, and the first of those for the report.
class answer_tally {
public:
    // Counts one answer of `call`; `acceptable` says whether it may give it.
    void count(bool acceptable, const std::string &call, GC_ERROR result) {
        calls_.fetch_add(1, std::memory_order_relaxed);
        if (acceptable) return;
        std::lock_guard<std::mutex> lock(mutex_);
        if (unexpected_.size() < 20) unexpected_.push_back(call + " answered " + std::to_string(result));
        ++unexpected_count_;
    }
    long calls() const { return calls_.load(); }
    // The unexpected answers, one a line; empty when there were none.
    std::string unexpected() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string text;
        for (const std::string &line : unexpected_) text += line + "\n";
        if (unexpected_count_ > static_cast<long>(unexpected_.size()))
            text += "... " + std::to_string(unexpected_count_) + " in all\n";
        return text;
    }

private:
    std::atomic<long> calls_{0};
    std::mutex mutex_;
    std::vector<std::string> unexpected_;
    long unexpected_count_ = 0;
};

// The process's resident memory in KiB (VmRSS of /proc/self/status), -1
// when it cannot be read.
inline long resident_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

// The number of open file descriptors (entries of /proc/self/fd, without
// the one that reads the directory), -1 when it cannot be read.
inline int open_descriptors() {
    DIR *directory = opendir("/proc/self/fd");
    if (directory == nullptr) return -1;
    int count = 0;
    while (const dirent *entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count - 1;
}

}  // namespace pelorin::stress
