#include "diag/log_writer.h"

#include <sys/stat.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>

namespace {

struct Writer {
    std::mutex mutex;
    std::shared_ptr<spdlog::logger> logger;  // null while no file is open
    EnumLogLevel level = LOG_LEVEL_INFO;
    struct Pending {
        EnumLogLevel level;
        std::string text;
    };
    std::deque<Pending> backlog;
};

Writer &writer() {
    // Never destroyed: lines may still be logged while the process exits.
    static Writer *instance = new Writer;
    return *instance;
}

spdlog::level::level_enum to_spdlog(EnumLogLevel level) {
    switch (level) {
    case LOG_LEVEL_DEBUG: return spdlog::level::debug;
    case LOG_LEVEL_WARN: return spdlog::level::warn;
    case LOG_LEVEL_ERROR: return spdlog::level::err;
    default: return spdlog::level::info;
    }
}

// The line already carries its level prefix and usually its own line feed.
std::string without_trailing_newline(const char *text) {
    std::string line = text ? text : "";
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    return line;
}

void write(EnumLogLevel level, const char *text) {
    Writer &w = writer();
    std::lock_guard<std::mutex> guard(w.mutex);
    if (!w.logger) {
        if (w.backlog.size() == pelorin::diag::kLogBacklogCapacity) w.backlog.pop_front();
        w.backlog.push_back({level, without_trailing_newline(text)});
        return;
    }
    if (level < w.level) return;
    w.logger->log(to_spdlog(level), without_trailing_newline(text));
}

}  // namespace

int log_init(const char *path, EnumLogLevel level, bool /*flag*/) {
    if (path == nullptr || *path == '\0') return -1;
    // The file may be created, its directory must exist: a mistyped path
    // should not leave new directories behind.
    const std::string file_path = path;
    const size_t slash = file_path.find_last_of('/');
    struct stat directory_status {};
    if (slash != std::string::npos &&
        (stat(file_path.substr(0, slash == 0 ? 1 : slash).c_str(), &directory_status) != 0 ||
         !S_ISDIR(directory_status.st_mode)))
        return -1;
    Writer &w = writer();
    std::shared_ptr<spdlog::logger> logger;
    try {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, false);
        // Not registered with spdlog's global registry: a consumer that uses
        // spdlog itself keeps its own loggers untouched.
        logger = std::make_shared<spdlog::logger>("pelorin_cxp", std::move(sink));
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %t %v");
        logger->set_level(spdlog::level::trace);
        logger->flush_on(spdlog::level::trace);
    } catch (const std::exception &) {
        return -1;
    }
    std::lock_guard<std::mutex> guard(w.mutex);
    if (w.logger) w.logger->flush();
    w.logger = std::move(logger);
    // Levels outside debug..error (0, 99: everything) leave the filtering to
    // LogMessage, which has already applied the same setting.
    w.level = (level >= LOG_LEVEL_DEBUG && level <= LOG_LEVEL_ERROR) ? level : LOG_LEVEL_DEBUG;
    for (const auto &pending : w.backlog)
        if (pending.level >= w.level) w.logger->log(to_spdlog(pending.level), pending.text);
    w.backlog.clear();
    return 0;
}

void logDebug(const char *text, const char *, int) { write(LOG_LEVEL_DEBUG, text); }
void logInfo(const char *text, const char *, int) { write(LOG_LEVEL_INFO, text); }
void logWarn(const char *text, const char *, int) { write(LOG_LEVEL_WARN, text); }
void logError(const char *text, const char *, int) { write(LOG_LEVEL_ERROR, text); }

void log_relase() {
    Writer &w = writer();
    std::lock_guard<std::mutex> guard(w.mutex);
    if (w.logger) w.logger->flush();
    w.logger.reset();
}

namespace pelorin::diag {

size_t log_backlog_size() {
    Writer &w = writer();
    std::lock_guard<std::mutex> guard(w.mutex);
    return w.backlog.size();
}

}  // namespace pelorin::diag
