#include "features/settings_persistence.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "diag/log.h"
#include "features/feature_access.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

namespace pelorin::features {
namespace {

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kInfo;
using pelorin::diag::kWarn;
using pelorin::nodemap::node_kind;
using pelorin::nodemap::node_visibility;

// ---------------------------------------------------------------------------
// node_map_features helpers

// A node-map call refused before or instead of reaching the node map.
struct refusal {
    int code;
    const char *why;
};

int logged_failure(const CNodeMapRef &map, const char *operation, const std::string &name,
                   int code, const char *why) {
    LOG_ANY(kWarn, "%s node map: %s '%s' failed (%d): %s\n", map.device_name().c_str(),
            operation, name.c_str(), code, why);
    return code;
}

// Runs `body` on the node `name` of `map`: a missing map or node, a refusal
// and every exception become a code, logged once.
template <class Body>
int node_call(CNodeMapRef &map, const char *operation, const std::string &name, Body &&body) {
    try {
        if (!map.loaded())
            return logged_failure(map, operation, name, GC_ERR_ERROR, "no node map loaded");
        if (!map.has_node(name))
            return logged_failure(map, operation, name, KV_ERR_NODE_NOT_FOUND, "no such node");
        body();
        return GC_ERR_SUCCESS;
    } catch (const refusal &refused) {
        return logged_failure(map, operation, name, refused.code, refused.why);
    } catch (const std::bad_alloc &) {
        return logged_failure(map, operation, name, GC_ERR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception &error) {
        return logged_failure(map, operation, name, GC_ERR_ERROR, error.what());
    }
}

void need_readable(const CNodeMapRef &map, const std::string &name) {
    const EAccessMode mode = map.access_mode(name);
    if (mode != RO && mode != RW) throw refusal{KV_ERR_NOT_READABLE, "not readable"};
}

void need_writable(const CNodeMapRef &map, const std::string &name) {
    const EAccessMode mode = map.access_mode(name);
    if (mode != WO && mode != RW) throw refusal{KV_ERR_NOT_WRITABLE, "not writable"};
}

// ---------------------------------------------------------------------------
// Values as text

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

std::string key_of(const settings_record &record) {
    return std::string(record.key, strnlen(record.key, sizeof record.key));
}

std::string text_of(const settings_record &record) {
    return std::string(record.value.s, strnlen(record.value.s, sizeof record.value.s));
}

// A text value as the exports hand it out: at most kSettingsTextMax
// characters.
int read_text(feature_access &features, const std::string &name, std::string &value) {
    const int result = features.get_string(name, value);
    if (result != GC_ERR_SUCCESS) return result;
    if (value.size() > kSettingsTextMax) {
        LOG_ANY(kWarn, "settings: the value of '%s' is %zu characters long, more than %zu\n",
                name.c_str(), value.size(), kSettingsTextMax);
        return GC_ERR_BUFFER_TOO_SMALL;
    }
    return GC_ERR_SUCCESS;
}

// "%f" without the locale: six decimals, '.' as the decimal point.
std::string fixed_six(double value) {
    std::array<char, 400> text{};  // DBL_MAX needs 309 digits and 7 more
    const auto written =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, 6);
    return std::string(text.data(), written.ptr);
}

// ---------------------------------------------------------------------------
// Saving

// Appends the members of every writable node under the top-level entries;
// the first failure ends the walk.
int append_members(feature_access &features, const std::vector<feature_entry> &top,
                   std::string &text) {
    for (const feature_entry &entry : top) {
        if (entry.access <= KV_ACCESS_NA) continue;
        std::vector<std::string> nodes;
        int result = features.category_nodes(entry.name, nodes);
        if (result != GC_ERR_SUCCESS) return result;
        if (nodes.size() > kSettingsCategoryMaxNodes) {
            LOG_ANY(kError, "settings: category '%s' holds %zu nodes, more than %zu\n",
                    entry.name.c_str(), nodes.size(), kSettingsCategoryMaxNodes);
            return GC_ERR_BUFFER_TOO_SMALL;
        }
        for (const std::string &name : nodes) {
            uint32_t access = KV_ACCESS_NI;
            if ((result = features.access_mode(name, access)) != GC_ERR_SUCCESS) return result;
            if (access != KV_ACCESS_RW) continue;
            uint32_t type = kInterfaceValue;
            if ((result = features.interface_type(name, type)) != GC_ERR_SUCCESS) return result;
            std::string value;
            switch (type) {
                case KV_IINTEGER:
                case KV_IBOOLEAN: {
                    int64_t number = 0;
                    if ((result = features.get_integer(name, number)) != GC_ERR_SUCCESS)
                        return result;
                    value = std::to_string(number);
                    break;
                }
                case KV_IFLOAT: {
                    double number = 0;
                    if ((result = features.get_float(name, number)) != GC_ERR_SUCCESS)
                        return result;
                    if (!std::isfinite(number))
                        LOG_ANY(kWarn, "settings: '%s' is %f, which will not load back\n",
                                name.c_str(), number);
                    value = fixed_six(number);
                    break;
                }
                case KV_ISTRING:
                case KV_IENUMERATION: {
                    std::string stored;
                    if ((result = read_text(features, name, stored)) != GC_ERR_SUCCESS)
                        return result;
                    if (stored.find('"') != std::string::npos)
                        LOG_ANY(kWarn,
                                "settings: the value of '%s' holds a double quote; "
                                "the file will not load back\n",
                                name.c_str());
                    value = '"' + stored + '"';
                    break;
                }
                default:
                    continue;
            }
            text += ",\"" + name + "\":" + value;
        }
    }
    return GC_ERR_SUCCESS;
}

// ---------------------------------------------------------------------------
// Loading

struct file_closer {
    void operator()(FILE *file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Applies one record: 1 when the feature holds the file's value afterwards,
// 0 when it does not or the record is skipped, -1 when a feature call
// failed. Each call's result is kept in the record.
int apply_record(feature_access &features, settings_record &record) {
    const std::string key = key_of(record);
    switch (record.type) {
        case kRecordString: {
            const std::string wanted = text_of(record);
            if (wanted == kCommandValue || wanted == kCommandValueAlternate) {
                record.result = features.execute(key);
                return 1;
            }
            if (key == kConnectionConfig) return 0;
            std::string now;
            if ((record.result = read_text(features, key, now)) != GC_ERR_SUCCESS) return -1;
            if (now == wanted) return 1;
            if ((record.result = features.set_string(key, wanted)) != GC_ERR_SUCCESS) return -1;
            if ((record.result = read_text(features, key, now)) != GC_ERR_SUCCESS) return -1;
            return now == wanted ? 1 : 0;
        }
        case kRecordFloat: {
            const double wanted = record.value.f;
            double now = 0;
            if ((record.result = features.get_float(key, now)) != GC_ERR_SUCCESS) return -1;
            if (std::fabs(now - wanted) < 0.00001) return 1;
            if ((record.result = features.set_float(key, wanted)) != GC_ERR_SUCCESS) return -1;
            if ((record.result = features.get_float(key, now)) != GC_ERR_SUCCESS) return -1;
            return std::fabs(now - wanted) < 0.00001 ? 1 : 0;
        }
        case kRecordInteger: {
            if (key == kConnectionConfig) return 0;
            const int64_t wanted = record.value.i;
            int64_t now = 0;
            if ((record.result = features.get_integer(key, now)) != GC_ERR_SUCCESS) return -1;
            if (now == wanted) return 1;
            if ((record.result = features.set_integer(key, wanted)) != GC_ERR_SUCCESS) return -1;
            if ((record.result = features.get_integer(key, now)) != GC_ERR_SUCCESS) return -1;
            return now == wanted ? 1 : 0;
        }
        default:
            return 0;
    }
}

int not_card_file(const std::string &path, const char *why) {
    LOG_ANY(kError, "settings file %s: this is not card's file (%s)\n", path.c_str(), why);
    return KV_ERR_NOT_CARD_FILE;
}

bool is_saver(const settings_record &first) {
    if (first.type != kRecordString || key_of(first) != "saver") return false;
    const std::string value = text_of(first);
    return value == kSaverValue || value == kSaverValueAlternate;
}

int load(feature_access &features, const std::string &path,
         std::vector<settings_record> *records) {
    file_ptr file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        LOG_ANY(kError, "settings file %s cannot be opened: %s\n", path.c_str(),
                std::strerror(errno));
        return GC_ERR_IO;
    }

    std::vector<settings_record> parsed;
    parsed.reserve(kSettingsRecordsPerLoad);
    bool all_confirmed = true;
    bool saver_seen = false;
    bool closed = false;  // the closing brace was read

    std::array<char, kSettingsChunkSize> chunk;
    size_t filled = 0;   // bytes in the chunk
    size_t next = 0;     // first byte not parsed yet
    size_t offset = 0;   // of chunk[0] in the file
    bool end_of_file = false;
    while (!closed && parsed.size() < kSettingsRecordsPerLoad) {
        settings_record record{};
        const int used = parse_settings_member(chunk.data() + next, filled - next, record);
        if (used < 0) {
            const std::string why = "syntax error in the member at byte " +
                                    std::to_string(offset + next);
            return not_card_file(path, why.c_str());
        }
        if (used == 0) {
            if (end_of_file) {
                if (std::memchr(chunk.data() + next, '"', filled - next) != nullptr)
                    return not_card_file(path, "a member is cut off by the end of the file");
                break;
            }
            // Keep the unread tail, fill up behind it.
            std::memmove(chunk.data(), chunk.data() + next, filled - next);
            offset += next;
            filled -= next;
            next = 0;
            if (filled == chunk.size())
                return not_card_file(path, "a member longer than the read buffer");
            const size_t got = std::fread(chunk.data() + filled, 1, chunk.size() - filled, file.get());
            if (got == 0) {
                if (std::ferror(file.get())) {
                    LOG_ANY(kError, "settings file %s cannot be read: %s\n", path.c_str(),
                            std::strerror(errno));
                    return GC_ERR_IO;
                }
                end_of_file = true;
            }
            filled += got;
            continue;
        }
        next += static_cast<size_t>(used);
        closed = chunk[next - 1] == '}';
        if (!saver_seen) {
            if (!is_saver(record)) return not_card_file(path, "the first member is not the saver");
            saver_seen = true;
            continue;
        }
        if (apply_record(features, record) != 1) all_confirmed = false;
        parsed.push_back(record);
    }
    if (!saver_seen) return not_card_file(path, "no member");
    if (parsed.size() == kSettingsRecordsPerLoad && !closed)
        LOG_ANY(kInfo, "settings file %s: the first %zu members are applied\n", path.c_str(),
                kSettingsRecordsPerLoad);

    // Features that can take their value only once another one is set.
    if (!all_confirmed)
        for (settings_record &record : parsed) apply_record(features, record);

    LOG_ANY(kDebug, "settings file %s: %zu members applied%s\n", path.c_str(), parsed.size(),
            all_confirmed ? "" : " in two passes");
    if (records != nullptr) *records = std::move(parsed);
    return GC_ERR_SUCCESS;
}

bool usable_path(const std::string &path) {
    if (!path.empty() && path.find('\0') == std::string::npos) return true;
    LOG_ANY(kError, "settings: no usable file path given\n");
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// node_map_features

int node_map_features::top_level_features(std::vector<feature_entry> &out) {
    out.clear();
    static const std::string root = "Root";
    try {
        if (!map_.loaded())
            return logged_failure(map_, "feature list", root, GC_ERR_NOT_AVAILABLE,
                                  "no node map loaded");
        if (!map_.has_node(root) || map_.kind(root) != node_kind::category) {
            LOG_ANY(kDebug, "%s node map has no Root category: no features\n",
                    map_.device_name().c_str());
            return GC_ERR_SUCCESS;
        }
        for (const std::string &name : map_.category_features(root)) {
            if (!map_.has_node(name) || map_.visibility(name) == node_visibility::invisible)
                continue;
            out.push_back({name, static_cast<uint32_t>(map_.access_mode(name))});
        }
        return GC_ERR_SUCCESS;
    } catch (const std::bad_alloc &) {
        out.clear();
        return logged_failure(map_, "feature list", root, GC_ERR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception &error) {
        out.clear();
        return logged_failure(map_, "feature list", root, GC_ERR_ERROR, error.what());
    }
}

int node_map_features::category_nodes(const std::string &category,
                                      std::vector<std::string> &out) {
    out.clear();
    try {
        if (!map_.loaded())
            return logged_failure(map_, "nodes of", category, GC_ERR_ERROR, "no node map loaded");
        if (!map_.has_node(category) || map_.kind(category) != node_kind::category)
            return logged_failure(map_, "nodes of", category, KV_ERR_FEATURE_NOT_FOUND,
                                  "not a category");
        out = visible_nodes_under(map_, category);
        return GC_ERR_SUCCESS;
    } catch (const std::bad_alloc &) {
        out.clear();
        return logged_failure(map_, "nodes of", category, GC_ERR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception &error) {
        out.clear();
        return logged_failure(map_, "nodes of", category, GC_ERR_ERROR, error.what());
    }
}

int node_map_features::access_mode(const std::string &name, uint32_t &mode) {
    return node_call(map_, "access of", name,
                     [&] { mode = static_cast<uint32_t>(map_.access_mode(name)); });
}

int node_map_features::interface_type(const std::string &name, uint32_t &type) {
    return node_call(map_, "kind of", name, [&] { type = interface_type_of(map_.kind(name)); });
}

int node_map_features::get_integer(const std::string &name, int64_t &value) {
    return node_call(map_, "get integer", name, [&] {
        need_readable(map_, name);
        switch (map_.kind(name)) {
            case node_kind::integer:
                value = map_.get_integer(name);
                return;
            case node_kind::boolean:
                value = map_.get_boolean(name) ? 1 : 0;
                return;
            case node_kind::enumeration:
                value = map_.get_enum_value(name);
                return;
            default:
                throw refusal{KV_ERR_NOT_INTEGER, "not an integer node"};
        }
    });
}

int node_map_features::set_integer(const std::string &name, int64_t value) {
    return node_call(map_, "set integer", name, [&] {
        need_writable(map_, name);
        switch (map_.kind(name)) {
            case node_kind::integer:
                map_.set_integer(name, value);
                return;
            case node_kind::boolean:
                map_.set_boolean(name, value != 0);
                return;
            default:
                throw refusal{KV_ERR_NOT_INTEGER, "not an integer node"};
        }
    });
}

int node_map_features::get_float(const std::string &name, double &value) {
    return node_call(map_, "get float", name, [&] {
        need_readable(map_, name);
        if (map_.kind(name) != node_kind::float_number)
            throw refusal{KV_ERR_NOT_FLOAT, "not a float node"};
        value = map_.get_float(name);
    });
}

int node_map_features::set_float(const std::string &name, double value) {
    return node_call(map_, "set float", name, [&] {
        need_writable(map_, name);
        if (map_.kind(name) != node_kind::float_number)
            throw refusal{KV_ERR_NOT_FLOAT, "not a float node"};
        map_.set_float(name, value);
    });
}

int node_map_features::get_string(const std::string &name, std::string &value) {
    return node_call(map_, "get string", name, [&] {
        need_readable(map_, name);
        switch (map_.kind(name)) {
            case node_kind::string:
                value = map_.get_string(name);
                return;
            case node_kind::enumeration:
                value = map_.get_enum(name);
                return;
            default:
                throw refusal{KV_ERR_NOT_STRING, "not a string or enumeration node"};
        }
    });
}

int node_map_features::set_string(const std::string &name, const std::string &value) {
    return node_call(map_, "set string", name, [&] {
        need_writable(map_, name);
        switch (map_.kind(name)) {
            case node_kind::string:
                map_.set_string(name, value);
                return;
            case node_kind::enumeration:
                map_.set_enum(name, value);
                return;
            default:
                throw refusal{KV_ERR_NOT_STRING, "not a string or enumeration node"};
        }
    });
}

int node_map_features::execute(const std::string &name) {
    return node_call(map_, "execute", name, [&] {
        need_writable(map_, name);
        if (map_.kind(name) != node_kind::command)
            throw refusal{KV_ERR_NOT_COMMAND, "not a command node"};
        map_.execute(name);
    });
}

// ---------------------------------------------------------------------------
// Files

int save_settings(feature_access &features, const std::string &path) {
    if (!usable_path(path)) return GC_ERR_INVALID_PARAMETER;
    try {
        // The feature list first: a module without a node map leaves no file.
        std::vector<feature_entry> top;
        const int listed = features.top_level_features(top);
        if (listed != GC_ERR_SUCCESS) return listed;

        file_ptr file(std::fopen(path.c_str(), "wb"));
        if (!file) {
            LOG_ANY(kError, "settings file %s cannot be created: %s\n", path.c_str(),
                    std::strerror(errno));
            return GC_ERR_IO;
        }
        std::string text = std::string("{\"saver\":\"") + kSaverValue + '"';
        const int walked = append_members(features, top, text);
        text += '}';
        const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size();
        const bool closed = std::fclose(file.release()) == 0;
        if (!written || !closed) {
            LOG_ANY(kError, "settings file %s cannot be written: %s\n", path.c_str(),
                    std::strerror(errno));
            return walked != GC_ERR_SUCCESS ? walked : GC_ERR_IO;
        }
        if (walked != GC_ERR_SUCCESS)
            LOG_ANY(kWarn, "settings file %s: saving stopped early (%d)\n", path.c_str(), walked);
        return walked;
    } catch (const std::bad_alloc &) {
        LOG_ANY(kError, "settings file %s: out of memory\n", path.c_str());
        return GC_ERR_OUT_OF_MEMORY;
    }
}

int load_settings(feature_access &features, const std::string &path,
                  std::vector<settings_record> *records) {
    if (records != nullptr) records->clear();
    if (!usable_path(path)) return GC_ERR_INVALID_PARAMETER;
    try {
        return load(features, path, records);
    } catch (const std::exception &error) {
        LOG_ANY(kError, "settings file %s: %s\n", path.c_str(), error.what());
        return GC_ERR_OUT_OF_MEMORY;
    }
}

int parse_settings_member(const char *data, size_t size, settings_record &out) {
    if (data == nullptr) return size == 0 ? 0 : -1;
    // The count of bytes consumed has to fit the result.
    if (size > static_cast<size_t>(INT_MAX)) size = static_cast<size_t>(INT_MAX);

    size_t at = 0;
    const auto skip_blanks = [&] {
        while (at < size && is_blank(data[at])) ++at;
    };
    // A quoted text starting after the opening quote at `at`: its length,
    // 0 with `at == size` when the range ends inside it, -1 when too long or
    // holding a NUL.
    const auto quoted = [&](size_t &begin) -> long {
        begin = at;
        while (at < size && data[at] != '"') {
            if (data[at] == '\0' || at - begin >= kSettingsTextMax) return -1;
            ++at;
        }
        return static_cast<long>(at - begin);
    };

    while (at < size && data[at] != '"') ++at;
    if (at == size) return 0;
    ++at;
    size_t key_begin = 0;
    const long key_length = quoted(key_begin);
    if (key_length < 0) return -1;
    if (at == size) return 0;
    ++at;

    skip_blanks();
    if (at == size) return 0;
    if (data[at] != ':') return -1;
    ++at;
    skip_blanks();
    if (at == size) return 0;

    settings_record parsed{};
    std::memcpy(parsed.key, data + key_begin, static_cast<size_t>(key_length));
    if (data[at] == '"') {
        ++at;
        size_t text_begin = 0;
        const long text_length = quoted(text_begin);
        if (text_length < 0) return -1;
        if (at == size) return 0;
        ++at;
        parsed.type = kRecordString;
        std::memcpy(parsed.value.s, data + text_begin, static_cast<size_t>(text_length));
    } else if (is_digit(data[at]) || data[at] == '-') {
        const size_t number_begin = at;
        if (data[at] == '-') ++at;
        size_t digits = 0;
        bool point = false;
        for (; at < size; ++at) {
            if (is_digit(data[at])) {
                ++digits;
            } else if (data[at] == '.') {
                if (point) return -1;
                point = true;
            } else {
                break;
            }
        }
        if (at == size) return 0;
        if (!is_blank(data[at]) && data[at] != ',' && data[at] != '}') return -1;
        if (digits == 0) return -1;
        const char *first = data + number_begin;
        const char *last = data + at;
        if (point) {
            double value = 0;
            const auto read = std::from_chars(first, last, value, std::chars_format::fixed);
            if (read.ec == std::errc::result_out_of_range) {
                // As atof: a magnitude too large is infinite, one too small
                // (only possible with nothing but zeros before the point)
                // is zero.
                const char *whole = *first == '-' ? first + 1 : first;
                const char *point_at = std::find(whole, last, '.');
                const bool large =
                    std::find_if(whole, point_at, [](char c) { return c != '0'; }) != point_at;
                value = large ? HUGE_VAL : 0.0;
                if (*first == '-') value = -value;
            } else if (read.ec != std::errc() || read.ptr != last)
                return -1;
            parsed.type = kRecordFloat;
            parsed.value.f = value;
        } else {
            // As atoi: saturated to 64 bits, then the low 32 bits, signed.
            int64_t value = 0;
            const auto read = std::from_chars(first, last, value);
            if (read.ec == std::errc::result_out_of_range)
                value = *first == '-' ? INT64_MIN : INT64_MAX;
            else if (read.ec != std::errc() || read.ptr != last)
                return -1;
            parsed.type = kRecordInteger;
            parsed.value.i = static_cast<int32_t>(value);
        }
    } else {
        return -1;
    }

    skip_blanks();
    if (at == size) return 0;
    if (data[at] != ',' && data[at] != '}') return -1;
    ++at;
    out = parsed;
    return static_cast<int>(at);
}

}  // namespace pelorin::features
