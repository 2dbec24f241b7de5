#include "features/settings_file.h"

#include <glib.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "diag/log.h"
#include "modules/tl_info.h"

using pelorin::diag::kError;
using pelorin::diag::kWarn;

namespace pelorin::features {

namespace {

// Windows INI files comment with ';'; GLib key files with '#'.
std::string with_hash_comments(const std::string &text) {
    std::istringstream lines(text);
    std::string converted, line;
    while (std::getline(lines, line)) {
        const size_t first = line.find_first_not_of(" \t");
        if (first != std::string::npos && line[first] == ';') line[first] = '#';
        if (!line.empty() && line.back() == '\r') line.pop_back();
        converted += line;
        converted += '\n';
    }
    return converted;
}

// The leading integer of a value, as INI readers take it ("12 ; note" is 12).
bool parse_integer(const char *text, int64_t &value) {
    errno = 0;
    char *end = nullptr;
    const long long parsed = std::strtoll(text, &end, 0);
    if (end == text || errno == ERANGE) return false;
    value = parsed;
    return true;
}

}  // namespace

std::string settings_file_path() { return std::string(library_directory()) + kSettingsFileName; }

settings_file::settings_file(std::string path)
    : path_(std::move(path)), file_(g_key_file_new()), state_(state::missing) {
    std::ifstream in(path_, std::ios::binary);
    if (!in) return;
    std::ostringstream content;
    content << in.rdbuf();
    const std::string text = with_hash_comments(content.str());
    GError *error = nullptr;
    if (g_key_file_load_from_data(file_, text.data(), text.size(), G_KEY_FILE_KEEP_COMMENTS,
                                  &error)) {
        state_ = state::loaded;
        return;
    }
    LOG_ANY(kWarn, "settings file %s cannot be read (%s); defaults are used\n", path_.c_str(),
            error != nullptr ? error->message : "unknown error");
    g_clear_error(&error);
    state_ = state::malformed;
}

settings_file::~settings_file() { g_key_file_free(file_); }

int64_t settings_file::read_int(const char *section, const char *key, int64_t fallback) const {
    if (state_ != state::loaded) return fallback;
    gchar *text = g_key_file_get_value(file_, section, key, nullptr);
    if (text == nullptr) return fallback;
    int64_t value = fallback;
    if (!parse_integer(text, value)) {
        LOG_ANY(kWarn, "settings file %s: [%s] %s = \"%s\" is not an integer; %" PRId64 " is used\n",
                path_.c_str(), section, key, text, fallback);
        value = fallback;
    }
    g_free(text);
    return value;
}

bool settings_file::write_int(const char *section, const char *key, int64_t value) {
    if (state_ == state::malformed) {
        LOG_ANY(kError, "settings file %s is not overwritten: [%s] %s = %" PRId64 " not saved\n",
                path_.c_str(), section, key, value);
        return false;
    }
    g_key_file_set_int64(file_, section, key, value);
    GError *error = nullptr;
    if (!g_key_file_save_to_file(file_, path_.c_str(), &error)) {
        LOG_ANY(kError, "settings file %s cannot be written: %s\n", path_.c_str(),
                error != nullptr ? error->message : "unknown error");
        g_clear_error(&error);
        return false;
    }
    state_ = state::loaded;
    return true;
}

const char *LinkConfigName(uint32_t code) {
    if (code == 0) return "Default";
    if (code == 1) return "Auto";
    static const char *const kNames[4][5] = {
        {"CXP1_X1", "CXP3_X1", "CXP6_X1", "CXP10_X1", "CXP12_X1"},
        {"CXP1_X2", "CXP3_X2", "CXP6_X2", "CXP10_X2", "CXP12_X2"},
        {"CXP1_X3", "CXP3_X3", "CXP6_X3", "CXP10_X3", "CXP12_X3"},
        {"CXP1_X4", "CXP3_X4", "CXP6_X4", "CXP10_X4", "CXP12_X4"},
    };
    static const uint32_t kRates[5] = {0x28, 0x38, 0x48, 0x50, 0x58};
    const uint32_t links = code >> 16;
    const uint32_t rate = code & 0xFFFF;
    if (links < 1 || links > 4) return "Unknown configuration";
    for (int i = 0; i < 5; ++i)
        if (kRates[i] == rate) return kNames[links - 1][i];
    return "Unknown configuration";
}

}  // namespace pelorin::features
