#include "diag/log.h"

#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "diag/log_writer.h"

namespace pelorin::diag {
namespace {

std::atomic<uint32_t> g_language{kChinese};
std::atomic<uint32_t> g_level{kInfo};
std::atomic<uint32_t> g_debugger_mode{0};

// Name and fixed line under which lines reach the log-file writer.
constexpr const char *kWriterSource = "gentl_base";

const char *level_prefix(uint32_t level) {
    switch (level) {
    case kDebug: return "[DEBUG] ";
    case kInfo: return "[INFO]  ";
    case kWarn: return "[WARN]  ";
    case kError: return "[ERROR] ";
    default: return "[INFO]  ";
    }
}

void hand_to_writer(uint32_t level, const char *line) {
    switch (level) {
    case kDebug: logDebug(line, kWriterSource, 355); break;
    case kInfo: logInfo(line, kWriterSource, 358); break;
    case kWarn: logWarn(line, kWriterSource, 361); break;
    case kError: logError(line, kWriterSource, 364); break;
    default: logInfo(line, kWriterSource, 367); break;
    }
}

bool passes_filters(uint32_t level, uint32_t language) {
    const uint32_t chosen = g_language.load(std::memory_order_relaxed);
    if (language != kAnyLanguage && chosen != kAnyLanguage && language != chosen) return false;
    const uint32_t threshold = g_level.load(std::memory_order_relaxed);
    if (threshold == kAll) return true;
    return level != 0 && level >= threshold;
}

}  // namespace

uint32_t log_language() { return g_language.load(std::memory_order_relaxed); }
uint32_t log_level() { return g_level.load(std::memory_order_relaxed); }
bool debugger_mode() { return g_debugger_mode.load(std::memory_order_relaxed) == 1; }

void set_log_language(uint32_t language) {
    // With "both" every message of a pair passes; its value is the "any" marker.
    const uint32_t stored = (language == kEnglish || language == kChinese) ? language : kAnyLanguage;
    g_language.store(stored, std::memory_order_relaxed);
}
void set_log_level(uint32_t level) { g_level.store(level, std::memory_order_relaxed); }
void set_debugger_mode(bool on) { g_debugger_mode.store(on ? 1 : 0, std::memory_order_relaxed); }

}  // namespace pelorin::diag

void LogMessage(uint32_t level, uint32_t language, const char *file, uint32_t line,
                const char *format, ...) {
    using namespace pelorin::diag;
    if (format == nullptr || !passes_filters(level, language)) return;

    va_list args;
    va_start(args, format);
    va_list sizing;
    va_copy(sizing, args);
    const int needed = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    std::string text = level_prefix(level);
    if (needed > 0) {
        const size_t prefix = text.size();
        text.resize(prefix + static_cast<size_t>(needed) + 1);
        std::vsnprintf(text.data() + prefix, static_cast<size_t>(needed) + 1, format, args);
        text.resize(prefix + static_cast<size_t>(needed));
    }
    va_end(args);

    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    if (file != nullptr && line != 0) {
        text += "\t : ";
        text += file;
        // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) about
        // "(" + std::string at -O3.
        text += '(';
        text += std::to_string(line);
        text += ")\n";
    }
    hand_to_writer(level, text.c_str());
    if (debugger_mode()) syslog(LOG_DEBUG, "%s", text.c_str());
}
