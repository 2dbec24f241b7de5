// The producer's settings file "pelorin_cxp_ini.dll": an INI text file beside
// the library (sections "Interface" and "SystemInfo", integer values). Read
// and written with GLib's key files, so writing a key keeps the other keys
// and the comments.
//
// A missing file, section or key gives the caller's default. A file that
// cannot be parsed, or a value that is not an integer, gives the default
// too, with one warning line per file or key; such a file is never
// overwritten. Lines beginning with ';' are comments, as in Windows INI
// files (they are written back with '#').
#pragma once

#include <cstdint>
#include <memory>
#include <string>

typedef struct _GKeyFile GKeyFile;

namespace pelorin::features {

inline constexpr const char *kSettingsFileName = "pelorin_cxp_ini.dll";

// The settings file beside the library (its directory is known once the
// system is open).
std::string settings_file_path();

// One settings file, read once when constructed.
class settings_file {
public:
    explicit settings_file(std::string path);
    ~settings_file();

    settings_file(const settings_file &) = delete;
    settings_file &operator=(const settings_file &) = delete;

    const std::string &path() const { return path_; }
    // True when the file could be opened (well-formed or not).
    bool exists() const { return state_ != state::missing; }
    bool malformed() const { return state_ == state::malformed; }

    // The integer at section/key, or `fallback`.
    int64_t read_int(const char *section, const char *key, int64_t fallback) const;
    // Sets section/key = value and saves the file (created when missing).
    // False, with a log line, when the file could not be parsed (it is left
    // as the user wrote it) or cannot be written.
    bool write_int(const char *section, const char *key, int64_t value);

private:
    enum class state { loaded, missing, malformed };
    std::string path_;
    GKeyFile *file_;
    state state_;
};

// The name of a link configuration code: "Default", "Auto", "CXP6_X2", ...,
// or "Unknown configuration".
const char *LinkConfigName(uint32_t code);

}  // namespace pelorin::features
