#include "features/feature_access.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

#include "diag/log.h"
#include "features/settings_buffers.h"
#include "nodemap/node_map_loader.h"

namespace pelorin::features {
namespace {

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kWarn;
using pelorin::nodemap::node_kind;
using pelorin::nodemap::node_visibility;
using pelorin::nodemap::number_representation;

// ---------------------------------------------------------------------------
// Lists kept per node map

struct listed_node {
    std::string name;
    uint32_t type = kInterfaceValue;
};

// The feature list and the category lists of one node map, built on first
// use and never changed afterwards, so the names handed out stay put.
struct map_lists {
    std::weak_ptr<CNodeMapRef> map;
    bool features_built = false;
    std::vector<listed_node> features;
    std::map<std::string, std::vector<listed_node>> categories;
    std::string file_name;
};

// The lists of `map`; those of node maps that are gone are dropped. The
// callers are serialised (API lock), the table itself has its own lock.
map_lists &lists_of(const std::shared_ptr<CNodeMapRef> &map) {
    static auto *table = new std::map<const CNodeMapRef *, std::unique_ptr<map_lists>>;
    static auto *table_lock = new std::mutex;
    std::lock_guard<std::mutex> guard(*table_lock);
    for (auto it = table->begin(); it != table->end();)
        it = it->second->map.expired() ? table->erase(it) : std::next(it);
    std::unique_ptr<map_lists> &slot = (*table)[map.get()];
    if (!slot) {
        slot = std::make_unique<map_lists>();
        slot->map = map;
    }
    return *slot;
}

// ---------------------------------------------------------------------------
// Checks

// A check that failed, with the operation's code for it.
struct refusal {
    GC_ERROR code;
};

// The codes of the first three checks of an operation.
struct check_codes {
    GC_ERROR null_argument;
    GC_ERROR no_map;
    GC_ERROR not_found;
};
constexpr check_codes kValueCodes{GC_ERR_ERROR, GC_ERR_ERROR, KV_ERR_FEATURE_NOT_FOUND};
constexpr check_codes kRegisterCodes{GC_ERR_NOT_INITIALIZED, GC_ERR_NOT_INITIALIZED,
                                     KV_ERR_FEATURE_NOT_FOUND};
constexpr check_codes kLookupCodes{GC_ERR_INVALID_PARAMETER, GC_ERR_ERROR, GC_ERR_ERROR};
constexpr check_codes kEnumArrayCodes{GC_ERR_INVALID_PARAMETER, GC_ERR_ERROR,
                                      KV_ERR_FEATURE_NOT_FOUND};

CNodeMapRef &loaded_map(const feature_target &target, GC_ERROR code) {
    if (!target.map || !target.map->loaded()) throw refusal{code};
    return *target.map;
}

// Checks 1 to 3 for the node `name`.
CNodeMapRef &node_map_with(const feature_target &target, const char *name, bool arguments_given,
                           const check_codes &codes) {
    if (name == nullptr || !arguments_given) throw refusal{codes.null_argument};
    CNodeMapRef &map = loaded_map(target, codes.no_map);
    if (!map.has_node(name)) throw refusal{codes.not_found};
    return map;
}

void need_readable(const CNodeMapRef &map, const std::string &name) {
    const EAccessMode mode = map.access_mode(name);
    if (mode != RO && mode != RW) throw refusal{KV_ERR_NOT_READABLE};
}

void need_writable(const CNodeMapRef &map, const std::string &name) {
    const EAccessMode mode = map.access_mode(name);
    if (mode != WO && mode != RW) throw refusal{KV_ERR_NOT_WRITABLE};
}

void need_kind(const CNodeMapRef &map, const std::string &name, node_kind kind, GC_ERROR code) {
    if (map.kind(name) != kind) throw refusal{code};
}

// Runs one operation: a refused check answers its code, any failure of the
// node map KV_ERR_EXCEPTION.
template <class Body>
GC_ERROR run(const char *operation, const char *name, Body &&body) noexcept {
    const char *shown = name != nullptr ? name : "";
    try {
        body();
        return GC_ERR_SUCCESS;
    } catch (const refusal &refused) {
        LOG_ANY(kDebug, "%s '%s': %d\n", operation, shown, refused.code);
        return refused.code;
    } catch (const std::exception &error) {
        LOG_ANY(kWarn, "%s '%s': %s\n", operation, shown, error.what());
        return KV_ERR_EXCEPTION;
    } catch (...) {
        LOG_ANY(kWarn, "%s '%s': unknown failure\n", operation, shown);
        return KV_ERR_EXCEPTION;
    }
}

// ---------------------------------------------------------------------------
// Values as text

std::string without_plus(const std::string &text) {
    return !text.empty() && text[0] == '+' ? text.substr(1) : text;
}

template <typename T>
T whole_number(const std::string &text, int base) {
    T value{};
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value, base);
    if (text.empty() || read.ec != std::errc() || read.ptr != end)
        throw std::invalid_argument("'" + text + "' is not a number");
    return value;
}

// `count` parts separated by `separator`, each `digits` digits at most of
// `base`, packed high part first, one byte each.
int64_t packed_bytes(const std::string &text, char separator, size_t count, int base,
                     size_t digits) {
    int64_t value = 0;
    size_t begin = 0;
    for (size_t part = 0; part < count; ++part) {
        const size_t end = part + 1 < count ? text.find(separator, begin) : text.size();
        if (end == std::string::npos) throw std::invalid_argument("'" + text + "': too few parts");
        const std::string piece = text.substr(begin, end - begin);
        if (piece.empty() || piece.size() > digits)
            throw std::invalid_argument("'" + text + "': bad part '" + piece + "'");
        const unsigned byte = whole_number<unsigned>(piece, base);
        if (byte > 255) throw std::invalid_argument("'" + text + "': part beyond 255");
        value = value << 8 | byte;
        begin = end + 1;
    }
    return value;
}

int64_t integer_from_text(const std::string &text, number_representation shown) {
    switch (shown) {
        case number_representation::hex_number: {
            std::string digits = without_plus(text);
            if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
                digits.erase(0, 2);
            return static_cast<int64_t>(whole_number<uint64_t>(digits, 16));
        }
        case number_representation::ipv4_address:
            return packed_bytes(text, '.', 4, 10, 3);
        case number_representation::mac_address:
            return packed_bytes(text, ':', 6, 16, 2);
        default:
            return whole_number<int64_t>(without_plus(text), 10);
    }
}

bool boolean_from_text(const std::string &text) {
    if (text == "true" || text == "True" || text == "TRUE") return true;
    if (text == "false" || text == "False" || text == "FALSE") return false;
    return whole_number<int64_t>(without_plus(text), 10) != 0;
}

double float_from_text(const std::string &text) {
    const std::string digits = without_plus(text);
    double value = 0;
    const char *end = digits.data() + digits.size();
    const auto read = std::from_chars(digits.data(), end, value);
    if (digits.empty() || read.ec != std::errc() || read.ptr != end)
        throw std::invalid_argument("'" + text + "' is not a number");
    return value;
}

std::vector<uint8_t> bytes_from_text(const std::string &text) {
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ' ' || text[at] == '\t') {
            ++at;
            continue;
        }
        if (at + 2 > text.size()) throw std::invalid_argument("odd number of hexadecimal digits");
        bytes.push_back(static_cast<uint8_t>(whole_number<unsigned>(text.substr(at, 2), 16)));
        at += 2;
    }
    return bytes;
}

std::string integer_as_text(int64_t value, number_representation shown) {
    char text[32];
    const auto byte = [value](int index) {
        return static_cast<unsigned>(value >> (8 * index)) & 255u;
    };
    switch (shown) {
        case number_representation::hex_number:
            std::snprintf(text, sizeof text, "0x%llX",
                          static_cast<unsigned long long>(static_cast<uint64_t>(value)));
            break;
        case number_representation::ipv4_address:
            std::snprintf(text, sizeof text, "%u.%u.%u.%u", byte(3), byte(2), byte(1), byte(0));
            break;
        case number_representation::mac_address:
            std::snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X", byte(5), byte(4),
                          byte(3), byte(2), byte(1), byte(0));
            break;
        default:
            std::snprintf(text, sizeof text, "%lld", static_cast<long long>(value));
    }
    return text;
}

std::string float_as_text(double value) {
    char text[64];
    const auto written = std::to_chars(text, text + sizeof text, value);
    return std::string(text, written.ptr);
}

std::string bytes_as_text(const std::vector<uint8_t> &bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string value_as_text(const CNodeMapRef &map, const std::string &name) {
    switch (map.kind(name)) {
        case node_kind::integer:
            return integer_as_text(map.get_integer(name), map.representation(name));
        case node_kind::boolean:
            return map.get_boolean(name) ? "true" : "false";
        case node_kind::float_number:
            return float_as_text(map.get_float(name));
        case node_kind::string:
            return map.get_string(name);
        case node_kind::enumeration:
            return map.get_enum(name);
        case node_kind::register_node:
            return bytes_as_text(map.get_register(name));
        default:
            throw refusal{KV_ERR_NODE_NOT_FOUND};
    }
}

// Writes an entry of kv_get_enum_array; a null text pointer gets no text.
void put_enum_entry(kv_enum_entry &entry, const std::string &text, int64_t value) {
    entry.text_size = static_cast<uint32_t>(text.size() + 1);
    entry.value = value;
    if (entry.text != nullptr) std::memcpy(entry.text, text.c_str(), text.size() + 1);
}

// Answers a list: a null array asks for the count; a short one the count
// needed and GC_ERR_BUFFER_TOO_SMALL.
template <typename Entry, typename Count, typename Fill>
void answer_list(Entry **entries, Count *count, size_t size, Fill &&fill) {
    if (entries == nullptr || *entries == nullptr) {
        *count = static_cast<Count>(size);
        return;
    }
    if (*count < size) {
        *count = static_cast<Count>(size);
        throw refusal{GC_ERR_BUFFER_TOO_SMALL};
    }
    for (size_t i = 0; i < size; ++i) fill((*entries)[i], i);
    *count = static_cast<Count>(size);
}

}  // namespace

// ---------------------------------------------------------------------------

uint32_t interface_type_of(node_kind kind) {
    switch (kind) {
        case node_kind::integer:
            return KV_IINTEGER;
        case node_kind::boolean:
            return KV_IBOOLEAN;
        case node_kind::command:
            return KV_ICOMMAND;
        case node_kind::float_number:
            return KV_IFLOAT;
        case node_kind::string:
            return KV_ISTRING;
        case node_kind::register_node:
            return KV_IREGISTER;
        case node_kind::category:
            return KV_ICATEGORY;
        case node_kind::enumeration:
            return KV_IENUMERATION;
        case node_kind::enum_entry:
            return kInterfaceEnumEntry;
        case node_kind::port:
            return kInterfacePort;
        case node_kind::other:
            break;
    }
    return kInterfaceValue;
}

namespace {

void walk(const CNodeMapRef &map, const std::string &category, std::set<std::string> &entered,
          std::vector<std::string> &out) {
    if (!entered.insert(category).second) return;
    for (const std::string &name : map.category_features(category)) {
        if (!map.has_node(name)) {
            LOG_ANY(kDebug, "%s node map: category '%s' lists the unknown node '%s'\n",
                    map.device_name().c_str(), category.c_str(), name.c_str());
            continue;
        }
        if (map.visibility(name) == node_visibility::invisible) continue;
        out.push_back(name);
        if (map.kind(name) == node_kind::category) walk(map, name, entered, out);
    }
}

}  // namespace

std::vector<std::string> visible_nodes_under(const CNodeMapRef &map, const std::string &category) {
    std::set<std::string> entered;
    std::vector<std::string> out;
    walk(map, category, entered, out);
    return out;
}

// ---------------------------------------------------------------------------
// feature_calls

GC_ERROR feature_calls::call_command(const char *name) {
    return run("call command", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, true, kValueCodes);
        need_writable(map, name);
        need_kind(map, name, node_kind::command, KV_ERR_NOT_COMMAND);
        map.execute(name);
    });
}

GC_ERROR feature_calls::set_string(const char *name, const char *text) {
    return run("set string", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, text != nullptr, kValueCodes);
        need_writable(map, name);
        const std::string value(text);
        switch (map.kind(name)) {
            case node_kind::integer:
                map.set_integer(name, integer_from_text(value, map.representation(name)));
                return;
            case node_kind::boolean:
                map.set_boolean(name, boolean_from_text(value));
                return;
            case node_kind::float_number:
                map.set_float(name, float_from_text(value));
                return;
            case node_kind::string:
                map.set_string(name, value);
                return;
            case node_kind::enumeration:
                map.set_enum(name, value);
                return;
            case node_kind::register_node: {
                const std::vector<uint8_t> bytes = bytes_from_text(value);
                map.set_register(name, bytes.data(), bytes.size());
                return;
            }
            default:
                throw refusal{KV_ERR_NODE_NOT_FOUND};
        }
    });
}

GC_ERROR feature_calls::get_string(const char *name, char *buffer, uint64_t *size) {
    return run("get string", name, [&] {
        CNodeMapRef &map =
            node_map_with(t_, name, buffer != nullptr && size != nullptr, kValueCodes);
        need_readable(map, name);
        const std::string text = value_as_text(map, name);
        const uint64_t needed = text.size() + 1;
        if (*size < needed) {
            *size = needed;
            throw refusal{GC_ERR_BUFFER_TOO_SMALL};
        }
        std::memcpy(buffer, text.c_str(), needed);
        *size = needed;
    });
}

GC_ERROR feature_calls::set_integer(const char *name, int64_t value) {
    return run("set integer", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, true, kValueCodes);
        need_writable(map, name);
        need_kind(map, name, node_kind::integer, KV_ERR_NOT_INTEGER);
        map.set_integer(name, value);
    });
}

GC_ERROR feature_calls::get_integer(const char *name, int64_t *value) {
    return get_integer_info(name, value, nullptr, nullptr, nullptr);
}

GC_ERROR feature_calls::get_integer_info(const char *name, int64_t *value, int64_t *minimum,
                                         int64_t *maximum, int64_t *increment) {
    return run("get integer", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, value != nullptr, kValueCodes);
        need_readable(map, name);
        int64_t now = 0, low = 0, high = 0, step = 0;
        switch (map.kind(name)) {
            case node_kind::integer:
                now = map.get_integer(name);
                if (minimum != nullptr || maximum != nullptr || increment != nullptr) {
                    low = map.integer_min(name);
                    high = map.integer_max(name);
                    try {
                        step = map.integer_inc(name);
                    } catch (const genapi_error &) {
                        step = 0;
                    }
                }
                break;
            case node_kind::boolean:
                now = map.get_boolean(name) ? 1 : 0;
                high = 1;
                step = 1;
                break;
            case node_kind::enumeration:
                now = map.get_enum_value(name);
                break;
            default:
                throw refusal{KV_ERR_NOT_INTEGER};
        }
        *value = now;
        if (minimum != nullptr) *minimum = low;
        if (maximum != nullptr) *maximum = high;
        if (increment != nullptr) *increment = step;
    });
}

GC_ERROR feature_calls::set_float(const char *name, double value) {
    return run("set float", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, true, kValueCodes);
        need_writable(map, name);
        need_kind(map, name, node_kind::float_number, KV_ERR_NOT_FLOAT);
        map.set_float(name, value);
    });
}

GC_ERROR feature_calls::get_float(const char *name, double *value) {
    return get_float_info(name, value, nullptr, nullptr, nullptr);
}

GC_ERROR feature_calls::get_float_info(const char *name, double *value, double *minimum,
                                       double *maximum, double *increment) {
    return run("get float", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, value != nullptr, kValueCodes);
        need_readable(map, name);
        need_kind(map, name, node_kind::float_number, KV_ERR_NOT_FLOAT);
        const double now = map.get_float(name);
        // A limit that cannot be read is 0, an increment 0.01.
        const auto or_else = [](auto read, double fallback) {
            try {
                return read();
            } catch (const genapi_error &) {
                return fallback;
            }
        };
        if (minimum != nullptr) *minimum = or_else([&] { return map.float_min(name); }, 0.0);
        if (maximum != nullptr) *maximum = or_else([&] { return map.float_max(name); }, 0.0);
        if (increment != nullptr)
            *increment = or_else([&] { return map.float_inc(name).value_or(0.01); }, 0.01);
        *value = now;
    });
}

GC_ERROR feature_calls::get_enum_info(const char *name, std::string *current,
                                      std::vector<std::string> *entries) {
    return run("get enumeration", name, [&] {
        CNodeMapRef &map =
            node_map_with(t_, name, current != nullptr && entries != nullptr, kValueCodes);
        need_readable(map, name);
        need_kind(map, name, node_kind::enumeration, KV_ERR_NOT_ENUM);
        std::string now = map.get_enum(name);
        std::vector<std::string> names;
        for (const auto &entry : map.enum_entries(name)) names.push_back(entry.name);
        *current = std::move(now);
        *entries = std::move(names);
    });
}

GC_ERROR feature_calls::get_xml_info(kv_xml_info *info) {
    return run("get description info", "", [&] {
        if (info == nullptr) throw refusal{GC_ERR_ERROR};
        CNodeMapRef &map = loaded_map(t_, GC_ERR_ERROR);
        map_lists &lists = lists_of(t_.map);
        // Kept with the lists so that the pointer stays valid.
        const std::string file_name = t_.file_name ? t_.file_name() : std::string();
        if (lists.file_name != file_name) lists.file_name = file_name;
        info->description = map.description_text();
        info->file_name = lists.file_name.c_str();
    });
}

GC_ERROR feature_calls::get_nodes(const char *category, kv_node_entry **entries, uint64_t *count) {
    return run("get nodes", category, [&] {
        if (category == nullptr || count == nullptr) throw refusal{GC_ERR_ERROR};
        CNodeMapRef &map = loaded_map(t_, GC_ERR_ERROR);
        map_lists &lists = lists_of(t_.map);
        auto found = lists.categories.find(category);
        if (found == lists.categories.end()) {
            if (!map.has_node(category) || map.kind(category) != node_kind::category)
                throw refusal{KV_ERR_FEATURE_NOT_FOUND};
            std::vector<listed_node> nodes;
            for (std::string &name : visible_nodes_under(map, category))
                nodes.push_back({name, interface_type_of(map.kind(name))});
            found = lists.categories.emplace(category, std::move(nodes)).first;
        }
        const std::vector<listed_node> &nodes = found->second;
        answer_list(entries, count, nodes.size(), [&](kv_node_entry &entry, size_t i) {
            entry.name = nodes[i].name.c_str();
            entry.interface_type = nodes[i].type;
            entry.flag = 0;
        });
    });
}

GC_ERROR feature_calls::get_node_state(const char *name, uint8_t *state) {
    return run("get node state", name, [&] {
        if (name == nullptr || state == nullptr) throw refusal{GC_ERR_ERROR};
        CNodeMapRef &map = loaded_map(t_, GC_ERR_ERROR);
        if (!map.has_node(name)) {
            state[0] = state[1] = 0;
            throw refusal{GC_ERR_ERROR};
        }
        const EAccessMode mode = map.access_mode(name);
        state[0] = mode != NI && mode != NA ? 1 : 0;
        state[1] = 1;
    });
}

GC_ERROR feature_calls::set_register(const char *name, const void *buffer, uint64_t size) {
    return run("set register", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, buffer != nullptr, kRegisterCodes);
        need_writable(map, name);
        if (!map.is_register(name)) throw refusal{KV_ERR_NODE_NOT_FOUND};
        if (size != static_cast<uint64_t>(map.register_length(name)))
            throw refusal{GC_ERR_INVALID_PARAMETER};
        if (t_.port == nullptr) throw refusal{GC_ERR_NOT_AVAILABLE};
        size_t moved = static_cast<size_t>(size);
        const GC_ERROR written = t_.port->write(map.register_address(name), buffer, &moved);
        if (written != GC_ERR_SUCCESS) throw refusal{written};
        map.node_changed(name);
    });
}

GC_ERROR feature_calls::get_register(const char *name, void *buffer, uint64_t *size) {
    return run("get register", name, [&] {
        CNodeMapRef &map =
            node_map_with(t_, name, buffer != nullptr && size != nullptr, kRegisterCodes);
        need_readable(map, name);
        if (!map.is_register(name)) throw refusal{KV_ERR_NODE_NOT_FOUND};
        const uint64_t length = static_cast<uint64_t>(map.register_length(name));
        if (*size < length) {
            *size = length;
            throw refusal{GC_ERR_BUFFER_TOO_SMALL};
        }
        if (t_.port == nullptr) throw refusal{GC_ERR_NOT_AVAILABLE};
        size_t moved = static_cast<size_t>(length);
        const GC_ERROR read = t_.port->read(map.register_address(name), buffer, &moved);
        if (read != GC_ERR_SUCCESS) throw refusal{read};
        *size = moved;
    });
}

GC_ERROR feature_calls::get_access(const char *name, uint32_t *access) {
    return run("get access", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, access != nullptr, kLookupCodes);
        *access = static_cast<uint32_t>(map.access_mode(name));
    });
}

GC_ERROR feature_calls::get_interface_type(const char *name, uint32_t *type) {
    return run("get interface type", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, type != nullptr, kLookupCodes);
        *type = interface_type_of(map.kind(name));
    });
}

GC_ERROR feature_calls::get_features(kv_feature_entry **entries, uint64_t *count) {
    return run("get features", "Root", [&] {
        if (count == nullptr) throw refusal{GC_ERR_INVALID_PARAMETER};
        CNodeMapRef &map = loaded_map(t_, GC_ERR_NOT_AVAILABLE);
        map_lists &lists = lists_of(t_.map);
        if (!lists.features_built) {
            std::vector<listed_node> features;
            static const std::string root = "Root";
            if (map.has_node(root) && map.kind(root) == node_kind::category)
                for (const std::string &name : map.category_features(root))
                    if (map.has_node(name) && map.visibility(name) != node_visibility::invisible)
                        features.push_back({name, interface_type_of(map.kind(name))});
            lists.features = std::move(features);
            lists.features_built = true;
        }
        const std::vector<listed_node> &features = lists.features;
        std::vector<uint32_t> access;
        if (entries != nullptr && *entries != nullptr && *count >= features.size())
            for (const listed_node &feature : features)
                access.push_back(static_cast<uint32_t>(map.access_mode(feature.name)));
        answer_list(entries, count, features.size(), [&](kv_feature_entry &entry, size_t i) {
            entry.name = features[i].name.c_str();
            entry.interface_type = features[i].type;
            entry.access_mode = access[i];
        });
    });
}

GC_ERROR feature_calls::node_register(const char *name, kv_node_callback callback, void **node) {
    return run("register node callback", name, [&] {
        CNodeMapRef &map =
            node_map_with(t_, name, callback != nullptr && node != nullptr, kLookupCodes);
        map.register_callback(name, callback);
        *node = map.node_handle(name);
    });
}

GC_ERROR feature_calls::get_node_info(const char *name, kv_node_info *info) {
    kv_node_info record{};
    GC_ERROR result = run("get node info", name, [&] {
        CNodeMapRef &map = node_map_with(t_, name, info != nullptr, kLookupCodes);
        record.access_mode = static_cast<uint32_t>(map.access_mode(name));
        const node_kind kind = map.kind(name);
        record.interface_type = interface_type_of(kind);
        record.visibility = 3;
        try {
            record.visibility = static_cast<uint32_t>(map.visibility(name));
        } catch (const genapi_error &) {
        }
        if (kind == node_kind::enumeration) {
            const auto entries = map.enum_entries(name);
            uint32_t longest = 0;
            for (const auto &entry : entries)
                longest = std::max(longest, static_cast<uint32_t>(entry.name.size() + 1));
            record.minimum.e.longest_name_size = longest;
            record.minimum.e.entry_count = static_cast<uint32_t>(entries.size());
        }
    });
    if (result != GC_ERR_SUCCESS) return result;
    if (record.interface_type == KV_IINTEGER || record.interface_type == KV_IBOOLEAN) {
        int64_t value = 0, low = 0, high = 0, step = 0;
        result = get_integer_info(name, &value, &low, &high, &step);
        record.value.i = value;
        record.minimum.i = low;
        record.maximum.i = high;
        record.increment.i = step;
    } else if (record.interface_type == KV_IFLOAT) {
        double value = 0, low = 0, high = 0, step = 0;
        result = get_float_info(name, &value, &low, &high, &step);
        record.value.f = value;
        record.minimum.f = low;
        record.maximum.f = high;
        record.increment.f = step;
    }
    // Access, kind and visibility are answered also when the value cannot
    // be read.
    *info = record;
    return result;
}

GC_ERROR feature_calls::get_enum_array(const char *name, kv_enum_entry *current,
                                       kv_enum_entry **entries, uint32_t *count) {
    return run("get enumeration entries", name, [&] {
        CNodeMapRef &map =
            node_map_with(t_, name, current != nullptr && entries != nullptr && count != nullptr,
                          kEnumArrayCodes);
        need_readable(map, name);
        need_kind(map, name, node_kind::enumeration, KV_ERR_NOT_ENUM);
        const auto list = map.enum_entries(name);
        const std::string now = map.get_enum(name);
        const int64_t now_value = map.get_enum_value(name);
        if (*count < list.size()) {
            *count = static_cast<uint32_t>(list.size());
            throw refusal{GC_ERR_BUFFER_TOO_SMALL};
        }
        if (*entries == nullptr && !list.empty()) throw refusal{GC_ERR_INVALID_PARAMETER};
        put_enum_entry(*current, now, now_value);
        for (size_t i = 0; i < list.size(); ++i)
            put_enum_entry((*entries)[i], list[i].name, list[i].value);
        *count = static_cast<uint32_t>(list.size());
    });
}

GC_ERROR feature_calls::get_xml(uint32_t url_index, void *buffer, uint64_t *size) {
    return run("get description file", "", [&] {
        if (size == nullptr) throw refusal{GC_ERR_INVALID_PARAMETER};
        if (t_.port == nullptr) throw refusal{GC_ERR_NOT_AVAILABLE};
        size_t url_size = 0;
        GC_ERROR result = t_.port->url(url_index, nullptr, &url_size);
        if (result != GC_ERR_SUCCESS) throw refusal{result};
        std::string url(url_size + 1, '\0');
        result = t_.port->url(url_index, url.data(), &url_size);
        if (result != GC_ERR_SUCCESS) throw refusal{result};
        url.resize(std::strlen(url.c_str()));
        nodemap::local_url parsed;
        if (url.compare(0, 6, "local:") != 0 || !nodemap::parse_local_url(url.substr(6), parsed)) {
            LOG_ANY(kError, "parse xml_url error\n");
            throw refusal{GC_ERR_ERROR};
        }
        if (buffer == nullptr) {
            *size = parsed.length;
            return;
        }
        if (*size < parsed.length) {
            *size = parsed.length;
            throw refusal{GC_ERR_BUFFER_TOO_SMALL};
        }
        size_t moved = static_cast<size_t>(parsed.length);
        result = t_.port->read(parsed.address, buffer, &moved);
        if (result != GC_ERR_SUCCESS) throw refusal{result};
        *size = moved;
    });
}

// ---------------------------------------------------------------------------
// feature_calls_access

int feature_calls_access::top_level_features(std::vector<feature_entry> &out) {
    out.clear();
    uint64_t count = 0;
    int result = calls_.get_features(nullptr, &count);
    if (result != GC_ERR_SUCCESS) return result;
    std::vector<kv_feature_entry> entries(count);
    kv_feature_entry *array = entries.data();
    if ((result = calls_.get_features(&array, &count)) != GC_ERR_SUCCESS) return result;
    for (uint64_t i = 0; i < count; ++i) out.push_back({entries[i].name, entries[i].access_mode});
    return GC_ERR_SUCCESS;
}

int feature_calls_access::category_nodes(const std::string &category,
                                         std::vector<std::string> &out) {
    out.clear();
    uint64_t count = 0;
    int result = calls_.get_nodes(category.c_str(), nullptr, &count);
    if (result != GC_ERR_SUCCESS) return result;
    std::vector<kv_node_entry> entries(count);
    kv_node_entry *array = entries.data();
    if ((result = calls_.get_nodes(category.c_str(), &array, &count)) != GC_ERR_SUCCESS)
        return result;
    for (uint64_t i = 0; i < count; ++i) {
        const char *name = entries[i].name;  // packed: read by value
        out.emplace_back(name);
    }
    return GC_ERR_SUCCESS;
}

int feature_calls_access::access_mode(const std::string &name, uint32_t &mode) {
    return calls_.get_access(name.c_str(), &mode);
}

int feature_calls_access::interface_type(const std::string &name, uint32_t &type) {
    return calls_.get_interface_type(name.c_str(), &type);
}

int feature_calls_access::get_integer(const std::string &name, int64_t &value) {
    return calls_.get_integer(name.c_str(), &value);
}

int feature_calls_access::set_integer(const std::string &name, int64_t value) {
    uint32_t type = kInterfaceValue;
    if (calls_.get_interface_type(name.c_str(), &type) == GC_ERR_SUCCESS && type == KV_IBOOLEAN)
        return calls_.set_string(name.c_str(), value != 0 ? "1" : "0");
    return calls_.set_integer(name.c_str(), value);
}

int feature_calls_access::get_float(const std::string &name, double &value) {
    return calls_.get_float(name.c_str(), &value);
}

int feature_calls_access::set_float(const std::string &name, double value) {
    return calls_.set_float(name.c_str(), value);
}

int feature_calls_access::get_string(const std::string &name, std::string &value) {
    char text[kSettingsTextMax + 1] = {};
    uint64_t size = sizeof text;
    const int result = calls_.get_string(name.c_str(), text, &size);
    if (result == GC_ERR_SUCCESS) value = text;
    return result;
}

int feature_calls_access::set_string(const std::string &name, const std::string &value) {
    return calls_.set_string(name.c_str(), value.c_str());
}

int feature_calls_access::execute(const std::string &name) {
    return calls_.call_command(name.c_str());
}

// ---------------------------------------------------------------------------
// Settings files

GC_ERROR save_settings_file(feature_calls &calls, const wchar_t *path) {
    std::string file;
    if (path == nullptr || !wide_path_to_utf8(path, file)) return GC_ERR_INVALID_PARAMETER;
    kv_xml_info info{};
    const GC_ERROR described = calls.get_xml_info(&info);
    if (described != GC_ERR_SUCCESS) return described;
    feature_calls_access features(calls);
    return save_settings(features, file);
}

GC_ERROR load_settings_file(feature_calls &calls, const void *handle, const wchar_t *path,
                            kv_settings_record **records, uint32_t *count) {
    std::string file;
    if (path == nullptr || !wide_path_to_utf8(path, file)) return GC_ERR_INVALID_PARAMETER;
    const bool kept = records != nullptr && count != nullptr;
    kv_settings_record *buffer = nullptr;
    if (kept) {
        buffer = SettingsBufferFor(handle);
        if (buffer == nullptr) return GC_ERR_IO;
        *count = 0;
        *records = buffer;
    } else {
        ReleaseSettingsBuffer(handle);
    }
    feature_calls_access features(calls);
    std::vector<settings_record> loaded;
    const int result = load_settings(features, file, kept ? &loaded : nullptr);
    if (result != GC_ERR_SUCCESS || !kept) return result;
    const size_t n = std::min(loaded.size(), kSettingsRecordsPerLoad);
    std::copy_n(loaded.begin(), n, buffer);
    *count = static_cast<uint32_t>(n);
    return GC_ERR_SUCCESS;
}

bool wide_path_to_utf8(const wchar_t *path, std::string &out) {
    out.clear();
    for (; *path != L'\0'; ++path) {
        const uint32_t c = static_cast<uint32_t>(*path);
        if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) return false;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return true;
}

std::string description_file_name(module_port &port) {
    size_t size = 0;
    if (port.url(0, nullptr, &size) != GC_ERR_SUCCESS) return "";
    std::string url(size + 1, '\0');
    if (port.url(0, url.data(), &size) != GC_ERR_SUCCESS) return "";
    url.resize(std::strlen(url.c_str()));
    nodemap::local_url parsed;
    if (url.compare(0, 6, "local:") == 0 && nodemap::parse_local_url(url.substr(6), parsed))
        return parsed.file_name;
    if (url.compare(0, 5, "file:") == 0) return url.substr(url.compare(5, 2, "//") == 0 ? 7 : 5);
    return "";
}

}  // namespace pelorin::features
