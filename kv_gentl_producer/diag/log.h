// Producer log: one formatting routine for every diagnostic line, filtered by
// level and message language, written to standard output, to the log file
// and, in debugger mode, to the debugger channel (syslog).
#pragma once

#include <cstdint>

namespace pelorin::diag {

enum LogLevel : uint32_t { kDebug = 1, kInfo = 2, kWarn = 3, kError = 4, kAll = 99 };
enum LogLanguage : uint32_t { kEnglish = 0, kChinese = 1, kAnyLanguage = 0x1000 };

// The settings; plain process-wide words (see docs/architecture.md).
uint32_t log_language();
uint32_t log_level();
bool debugger_mode();

void set_log_language(uint32_t language);
void set_log_level(uint32_t level);
void set_debugger_mode(bool on);

}  // namespace pelorin::diag

// Writes one line when the language and level pass the filters.
void LogMessage(uint32_t level, uint32_t language, const char *file, uint32_t line,
                const char *format, ...) __attribute__((format(printf, 5, 6)));

// Convenience for the usual message pair: the Chinese text (GBK bytes) with
// language 1, then the English text with language 0, both at `level`.
#define LOG_PAIR(level, zh_text, en_text, ...)                                          \
    do {                                                                                 \
        LogMessage((level), pelorin::diag::kChinese, nullptr, 0, (zh_text), ##__VA_ARGS__); \
        LogMessage((level), pelorin::diag::kEnglish, nullptr, 0, (en_text), ##__VA_ARGS__); \
    } while (0)

// Single-language lines written whatever the language setting (traces, protocol
// dumps, messages that exist in one language only).
#define LOG_ANY(level, ...) LogMessage((level), pelorin::diag::kAnyLanguage, nullptr, 0, __VA_ARGS__)
