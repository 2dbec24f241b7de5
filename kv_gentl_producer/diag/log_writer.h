// The log-file writer behind LogMessage: a file written through spdlog, with
// its own level filter. Lines that arrive before log_init are kept in a small
// in-memory backlog and written at the top of the file once it opens, so the
// start-up messages of the library are not lost.
#pragma once

#include <cstddef>

enum EnumLogLevel { LOG_LEVEL_DEBUG = 1, LOG_LEVEL_INFO = 2, LOG_LEVEL_WARN = 3, LOG_LEVEL_ERROR = 4 };

// Opens (appends to) the log file; 0 on success, -1 when the file cannot be
// opened (the writer then stays closed). `flag` is reserved and ignored.
int log_init(const char *path, EnumLogLevel level, bool flag);

void logDebug(const char *text, const char *file, int line);
void logInfo(const char *text, const char *file, int line);
void logWarn(const char *text, const char *file, int line);
void logError(const char *text, const char *file, int line);

// Flushes and closes the file; later lines go to the backlog again.
void log_relase();

namespace pelorin::diag {

// Number of lines held for a log file not yet opened, and the cap.
size_t log_backlog_size();
constexpr size_t kLogBacklogCapacity = 256;

}  // namespace pelorin::diag
