// pelorin-info: loads a GenTL producer (.cti) the way any consumer does and
// prints what it offers: the producer and the system, each interface (card)
// with its devices (camera slots), and for the devices with a camera their
// device information and data streams; on request each module's features as
// a tree, after changing some of them. Text for people, or one JSON document
// for scripts. See usage() for the options and exit codes.
//
// Everything is first collected into one JSON document, which is then either
// printed as it is or rendered as aligned text, so both forms carry the same
// content.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gentl_loader.h"

namespace {

using Producer = pelorin_tools::GentlLibrary;
using Json = nlohmann::ordered_json;  // keeps the producer's order of items and features

enum ExitCode {
    kExitOk = 0,
    kExitIncomplete = 1,
    kExitUsage = 2,
    kExitProducer = 3,
    kExitNoDevice = 4,
    kExitFeature = 5,
};

// A failure that ends the run: its exit code and the one line for stderr.
struct ToolError {
    int code;
    std::string message;
};

void usage(FILE *out) {
    std::fputs(
        "usage: pelorin-info [OPTIONS] [PATH_TO_CTI]\n"
        "Loads the GenTL producer as any consumer does and prints the producer, the\n"
        "system, each card (interface) with its camera slots (devices) and, for each\n"
        "slot with a camera, the opened device and its data streams.\n"
        "Without PATH_TO_CTI, pelorin_cxp.cti is searched in GENICAM_GENTL64_PATH, then\n"
        "beside this tool (the installed layout or the build tree).\n"
        "\n"
        "  --features [MODULE]     also print the features of each module as a tree\n"
        "                          (categories, then name, type, access and value);\n"
        "                          MODULE limits it to one of: system, interface,\n"
        "                          device, remote (the camera), stream\n"
        "  --set [MODULE:]NAME=VALUE\n"
        "                          set a feature before printing (repeatable, in order).\n"
        "                          VALUE is read as the feature's type: integer (decimal\n"
        "                          or 0x..), float, boolean (true/false/1/0), enumeration\n"
        "                          entry name, string. A command given as NAME alone (or\n"
        "                          NAME=) is executed. MODULE as for --features; device,\n"
        "                          remote and stream are those of the device --device\n"
        "                          picks, interface is its card\n"
        "  --module MODULE         the module of --set without MODULE: (default remote)\n"
        "  -d, --device N|ID       the device to open, show in full and change with --set:\n"
        "                          N-th camera found (from 0, over all cards), or a device\n"
        "                          ID such as device1 (first card holding it); default:\n"
        "                          every device with a camera is opened, --set changes\n"
        "                          the first one\n"
        "      --no-open           open no device (faster, ~0.7 s per camera saved): slots\n"
        "                          are listed from the card's information only\n"
        "      --json              print one JSON document instead of text: producer,\n"
        "                          system, interfaces[].devices[].streams[], each with\n"
        "                          \"info\" (the GenTL info items, keyed by the command's\n"
        "                          name in lower case: vendor, serial_number, ...) and,\n"
        "                          with --features, \"features\" (\"remote_features\" for\n"
        "                          the camera); \"settings\" lists what --set did\n"
        "  -q, --quiet             hide the producer's log lines (shown on stderr otherwise)\n"
        "  -h, --help              this text\n"
        "\n"
        "Exit codes: 0 done; 1 printed, but some items could not be read; 2 bad arguments;\n"
        "3 the producer cannot be found, loaded or initialised (also: no card found);\n"
        "4 no such device, or it cannot be opened; 5 a feature cannot be set (unknown,\n"
        "not writable, value of the wrong type or out of range).\n",
        out);
}

// ---------------------------------------------------------------------------
// Command line

const char *const kModules[] = {"system", "interface", "device", "remote", "stream"};

const std::string kModuleList = "(system, interface, device, remote, stream)";

bool is_module(const std::string &name) {
    return std::find(std::begin(kModules), std::end(kModules), name) != std::end(kModules);
}

bool is_device_level(const std::string &module) {
    return module == "device" || module == "remote" || module == "stream";
}

struct Setting {
    std::string module;  // empty until --module's default is applied
    std::string name;
    std::optional<std::string> value;  // none: execute a command
};

struct Options {
    std::string producer;
    std::string device;  // empty: see usage()
    bool features = false;
    std::string feature_module;  // empty: all modules
    std::string set_module = "remote";
    std::vector<Setting> settings;
    bool open_devices = true;
    bool json = false;
    bool quiet = false;
    bool help = false;
};

ToolError usage_error(const std::string &message) { return {kExitUsage, message}; }

Setting parse_setting(const std::string &text) {
    Setting setting;
    std::string rest = text;
    const size_t colon = rest.find(':');
    const size_t equals = rest.find('=');
    if (colon != std::string::npos && (equals == std::string::npos || colon < equals)) {
        setting.module = rest.substr(0, colon);
        rest = rest.substr(colon + 1);
        if (!is_module(setting.module))
            throw usage_error("--set " + text + ": unknown module '" + setting.module + "' " + kModuleList);
    }
    const size_t split = rest.find('=');
    setting.name = rest.substr(0, split);
    if (split != std::string::npos) setting.value = rest.substr(split + 1);
    const bool name_ok =
        !setting.name.empty() && std::all_of(setting.name.begin(), setting.name.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
        });
    if (!name_ok) throw usage_error("--set '" + text + "': expected [MODULE:]NAME=VALUE");
    return setting;
}

// Conflicts that only show once the whole command line is read.
void check_combination(const Options &options) {
    if (options.open_devices) return;
    if (!options.device.empty()) throw usage_error("--device picks the device to open; drop --no-open");
    if (options.features && is_device_level(options.feature_module))
        throw usage_error("--features " + options.feature_module + " needs an opened device; drop --no-open");
    for (const Setting &setting : options.settings)
        if (is_device_level(setting.module))
            throw usage_error("--set " + setting.module + ":" + setting.name +
                              " needs an opened device; drop --no-open");
}

Options parse_options(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        // "--option=value" is the same as "--option value".
        std::optional<std::string> attached;
        if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
            attached = arg.substr(arg.find('=') + 1);
            arg = arg.substr(0, arg.find('='));
        }
        const auto value = [&]() -> std::string {
            if (attached) return *attached;
            // No value of ours starts with '-': that is the next option.
            if (i + 1 >= argc || argv[i + 1][0] == '-') throw usage_error(arg + " needs a value");
            return argv[++i];
        };
        const auto no_value = [&] {
            if (attached) throw usage_error(arg + " takes no value");
        };
        if (arg == "-h" || arg == "--help") {
            no_value();
            options.help = true;
        } else if (arg == "--features") {
            options.features = true;
            // The module is optional: only a module name is taken as it.
            if (attached)
                options.feature_module = *attached;
            else if (i + 1 < argc && is_module(argv[i + 1]))
                options.feature_module = argv[++i];
            if (!options.feature_module.empty() && !is_module(options.feature_module))
                throw usage_error("--features: unknown module '" + options.feature_module + "' " +
                                  kModuleList);
        } else if (arg == "--set") {
            options.settings.push_back(parse_setting(value()));
        } else if (arg == "--module") {
            options.set_module = value();
            if (!is_module(options.set_module))
                throw usage_error("--module: unknown module '" + options.set_module + "' " + kModuleList);
        } else if (arg == "-d" || arg == "--device") {
            options.device = value();
            if (options.device.empty()) throw usage_error("--device needs a camera number or a device ID");
        } else if (arg == "--no-open") {
            no_value();
            options.open_devices = false;
        } else if (arg == "--json") {
            no_value();
            options.json = true;
        } else if (arg == "-q" || arg == "--quiet") {
            no_value();
            options.quiet = true;
        } else if (!arg.empty() && arg[0] == '-') {
            throw usage_error("unknown option " + arg + " (see --help)");
        } else if (options.producer.empty()) {
            // After --features, a word that is no file was meant as a module.
            if (i > 1 && std::string(argv[i - 1]) == "--features" && !pelorin_tools::is_regular_file(arg))
                throw usage_error("--features: unknown module '" + arg + "' " + kModuleList);
            options.producer = arg;
        } else {
            throw usage_error("more than one producer path given ('" + options.producer + "' and '" + arg +
                              "')");
        }
    }
    for (Setting &setting : options.settings)
        if (setting.module.empty()) setting.module = options.set_module;
    check_combination(options);
    return options;
}

// ---------------------------------------------------------------------------
// Info items (GCGetInfo, TLGetInfo, IFGetInfo, IFGetDeviceInfo, DevGetInfo,
// DSGetInfo). The keys are the names of the info commands in lower case.

struct InfoItem {
    int32_t command;
    const char *key;
};

constexpr InfoItem kSystemItems[] = {
    {TL_INFO_ID, "id"},
    {TL_INFO_VENDOR, "vendor"},
    {TL_INFO_MODEL, "model"},
    {TL_INFO_VERSION, "version"},
    {TL_INFO_TLTYPE, "tltype"},
    {TL_INFO_NAME, "name"},
    {TL_INFO_PATHNAME, "pathname"},
    {TL_INFO_DISPLAYNAME, "displayname"},
    {TL_INFO_CHAR_ENCODING, "char_encoding"},
    {TL_INFO_GENTL_VER_MAJOR, "gentl_ver_major"},
    {TL_INFO_GENTL_VER_MINOR, "gentl_ver_minor"},
};

constexpr InfoItem kInterfaceItems[] = {
    {INTERFACE_INFO_ID, "id"},
    {INTERFACE_INFO_DISPLAYNAME, "displayname"},
    {INTERFACE_INFO_TLTYPE, "tltype"},
};

constexpr InfoItem kDeviceItems[] = {
    {DEVICE_INFO_ID, "id"},
    {DEVICE_INFO_VENDOR, "vendor"},
    {DEVICE_INFO_MODEL, "model"},
    {DEVICE_INFO_TLTYPE, "tltype"},
    {DEVICE_INFO_DISPLAYNAME, "displayname"},
    {DEVICE_INFO_ACCESS_STATUS, "access_status"},
    {DEVICE_INFO_USER_DEFINED_NAME, "user_defined_name"},
    {DEVICE_INFO_SERIAL_NUMBER, "serial_number"},
    {DEVICE_INFO_VERSION, "version"},
    {DEVICE_INFO_TIMESTAMP_FREQUENCY, "timestamp_frequency"},
};

constexpr InfoItem kStreamItems[] = {
    {STREAM_INFO_ID, "id"},
    {STREAM_INFO_NUM_DELIVERED, "num_delivered"},
    {STREAM_INFO_NUM_UNDERRUN, "num_underrun"},
    {STREAM_INFO_NUM_ANNOUNCED, "num_announced"},
    {STREAM_INFO_NUM_QUEUED, "num_queued"},
    {STREAM_INFO_NUM_AWAIT_DELIVERY, "num_await_delivery"},
    {STREAM_INFO_NUM_STARTED, "num_started"},
    {STREAM_INFO_PAYLOAD_SIZE, "payload_size"},
    {STREAM_INFO_IS_GRABBING, "is_grabbing"},
    {STREAM_INFO_DEFINES_PAYLOADSIZE, "defines_payloadsize"},
    {STREAM_INFO_TLTYPE, "tltype"},
    {STREAM_INFO_NUM_CHUNKS_MAX, "num_chunks_max"},
    {STREAM_INFO_BUF_ANNOUNCE_MIN, "buf_announce_min"},
    {STREAM_INFO_BUF_ALIGNMENT, "buf_alignment"},
};

using InfoQuery = std::function<GC_ERROR(int32_t command, INFO_DATATYPE *, void *, size_t *)>;

// Counts what could not be read, for exit code 1.
struct Tally {
    int unreadable = 0;
};

template <typename T>
T read_as(const std::vector<unsigned char> &bytes) {
    T value{};
    std::memcpy(&value, bytes.data(), std::min(sizeof value, bytes.size()));
    return value;
}

// One info answer as JSON, by the type the producer gives.
Json info_value(INFO_DATATYPE type, const std::vector<unsigned char> &bytes, size_t size) {
    switch (type) {
    case INFO_DATATYPE_STRING:
        return std::string(reinterpret_cast<const char *>(bytes.data()),
                           strnlen(reinterpret_cast<const char *>(bytes.data()), size));
    case INFO_DATATYPE_INT16: return read_as<int16_t>(bytes);
    case INFO_DATATYPE_UINT16: return read_as<uint16_t>(bytes);
    case INFO_DATATYPE_INT32: return read_as<int32_t>(bytes);
    case INFO_DATATYPE_UINT32: return read_as<uint32_t>(bytes);
    case INFO_DATATYPE_INT64: return read_as<int64_t>(bytes);
    case INFO_DATATYPE_UINT64: return read_as<uint64_t>(bytes);
    case INFO_DATATYPE_SIZET: return read_as<size_t>(bytes);
    case INFO_DATATYPE_PTRDIFF: return read_as<ptrdiff_t>(bytes);
    case INFO_DATATYPE_FLOAT64: return read_as<double>(bytes);
    case INFO_DATATYPE_BOOL8: return read_as<bool8_t>(bytes) != 0;
    default: return "(" + std::to_string(size) + " bytes of type " + std::to_string(type) + ")";
    }
}

// Asks one info item; an item the module does not offer is null, one that
// fails is {"error": code} and counted.
Json read_info_item(const InfoQuery &query, int32_t command, Tally &tally) {
    std::vector<unsigned char> bytes(1024);
    for (int attempt = 0; attempt < 3; ++attempt) {
        size_t size = bytes.size();
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        const GC_ERROR result = query(command, &type, bytes.data(), &size);
        if (result == GC_ERR_SUCCESS) return info_value(type, bytes, size);
        if (result == GC_ERR_BUFFER_TOO_SMALL && size > bytes.size()) {
            bytes.assign(size, 0);
            continue;
        }
        if (result == GC_ERR_NOT_AVAILABLE || result == GC_ERR_NOT_IMPLEMENTED) return nullptr;
        ++tally.unreadable;
        return Json{{"error", result}};
    }
    ++tally.unreadable;
    return Json{{"error", GC_ERR_BUFFER_TOO_SMALL}};
}

template <size_t N>
Json read_info(const InfoItem (&items)[N], const InfoQuery &query, Tally &tally) {
    Json info = Json::object();
    for (const InfoItem &item : items) info[item.key] = read_info_item(query, item.command, tally);
    return info;
}

// ---------------------------------------------------------------------------
// Features through the producer's kv_ calls on one module handle

constexpr uint32_t kNoAnswer = 0xFFFFFFFFu;  // a node info the producer did not fill

const char *type_name(uint32_t type) {
    switch (type) {
    case KV_IINTEGER: return "integer";
    case KV_IBOOLEAN: return "boolean";
    case KV_ICOMMAND: return "command";
    case KV_IFLOAT: return "float";
    case KV_ISTRING: return "string";
    case KV_IREGISTER: return "register";
    case KV_ICATEGORY: return "category";
    case KV_IENUMERATION: return "enumeration";
    default: return "other";
    }
}

const char *access_name(uint32_t access) {
    switch (access) {
    case KV_ACCESS_NI: return "NI";
    case KV_ACCESS_NA: return "NA";
    case KV_ACCESS_WO: return "WO";
    case KV_ACCESS_RO: return "RO";
    case KV_ACCESS_RW: return "RW";
    default: return "?";
    }
}

bool readable(uint32_t access) { return access == KV_ACCESS_RO || access == KV_ACCESS_RW; }
bool writable(uint32_t access) { return access == KV_ACCESS_WO || access == KV_ACCESS_RW; }

struct NodeEntry {
    std::string name;
    uint32_t type;
};

// The visible nodes under `category`, depth first, as kv_get_nodes lists
// them. The array is ours; the names in it belong to the producer and live
// as long as the node map, so they are copied at once.
std::vector<NodeEntry> list_nodes(const Producer &p, void *module, const std::string &category,
                                  GC_ERROR *result) {
    uint64_t count = 0;
    *result = p.kv_get_nodes(module, category.c_str(), nullptr, &count);
    if (*result != GC_ERR_SUCCESS) return {};
    std::vector<kv_node_entry> entries(count);
    kv_node_entry *array = entries.data();
    *result = p.kv_get_nodes(module, category.c_str(), &array, &count);
    if (*result != GC_ERR_SUCCESS) return {};
    std::vector<NodeEntry> nodes;
    for (uint64_t i = 0; i < count && i < entries.size(); ++i) {
        const char *name = entries[i].name;  // packed record: read by value
        nodes.push_back({name != nullptr ? name : "", entries[i].interface_type});
    }
    return nodes;
}

// kv_get_node_info, with interface_type kNoAnswer when the node is unknown
// (the producer fills the record whenever it knows the node, even when its
// value cannot be read; that failure is the result).
kv_node_info node_info(const Producer &p, void *module, const std::string &name, GC_ERROR *result) {
    kv_node_info info{};
    info.interface_type = kNoAnswer;
    *result = p.kv_get_node_info(module, name.c_str(), &info);
    return info;
}

// A value read as text by the producer (booleans "true"/"false", integers
// in their representation, registers as hexadecimal pairs).
std::optional<std::string> string_value(const Producer &p, void *module, const std::string &name,
                                        GC_ERROR *result) {
    std::vector<char> text(256);
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint64_t size = text.size();
        *result = p.kv_genapi_get_string(module, name.c_str(), text.data(), &size);
        if (*result == GC_ERR_SUCCESS) return std::string(text.data(), strnlen(text.data(), text.size()));
        if (*result != GC_ERR_BUFFER_TOO_SMALL || size <= text.size()) return std::nullopt;
        text.assign(size, '\0');
    }
    return std::nullopt;
}

struct EnumValue {
    std::string current;
    std::vector<std::string> entries;
};

// The entries and the current entry of an enumeration. kv_get_enum_array
// fills our records and copies each entry's name into the text buffer the
// record points to, without knowing its size: every buffer gets the longest
// entry's size from kv_get_node_info. The current entry may be one that is
// not listed now, so its name comes through kv_genapi_get_string instead
// (a record without a text buffer gets no text).
std::optional<EnumValue> enum_value(const Producer &p, void *module, const std::string &name,
                                    GC_ERROR *result) {
    const std::optional<std::string> current = string_value(p, module, name, result);
    if (!current) return std::nullopt;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const kv_node_info info = node_info(p, module, name, result);
        if (info.interface_type == kNoAnswer) return std::nullopt;
        const uint32_t count = info.minimum.e.entry_count;
        const size_t text_size = std::max<uint32_t>(info.minimum.e.longest_name_size, 1);
        std::vector<std::vector<char>> texts(count, std::vector<char>(text_size, '\0'));
        std::vector<kv_enum_entry> records(std::max<uint32_t>(count, 1));
        for (uint32_t i = 0; i < count; ++i) records[i].text = texts[i].data();
        kv_enum_entry current_record{};
        kv_enum_entry *array = records.data();
        uint32_t answered = count;
        *result = p.kv_get_enum_array(module, name.c_str(), &current_record, &array, &answered);
        if (*result == GC_ERR_BUFFER_TOO_SMALL) continue;  // the entries changed in between
        if (*result != GC_ERR_SUCCESS) return std::nullopt;
        EnumValue value{*current, {}};
        for (uint32_t i = 0; i < answered && i < count; ++i)
            value.entries.emplace_back(texts[i].data(), strnlen(texts[i].data(), text_size));
        return value;
    }
    return std::nullopt;
}

// Reads the node map of one module into a tree of JSON records.
class FeatureReader {
public:
    FeatureReader(const Producer &p, void *module, Tally &tally) : p_(p), module_(module), tally_(tally) {}

    // The whole map from "Root"; {"error": code} when the module has none.
    Json tree() {
        GC_ERROR result = GC_ERR_SUCCESS;
        const std::vector<NodeEntry> nodes = list_nodes(p_, module_, "Root", &result);
        if (result != GC_ERR_SUCCESS) {
            ++tally_.unreadable;
            return Json{{"error", result}};
        }
        std::set<std::string> path{"Root"};
        return children_of(nodes, path);
    }

private:
    // kv_get_nodes lists a category's whole subtree, each sub-category
    // followed by its contents. The tree is rebuilt by asking each
    // sub-category for its own list and skipping those entries in the
    // parent's. `path`, the categories above, stops a category that
    // contains itself.
    Json children_of(const std::vector<NodeEntry> &nodes, std::set<std::string> &path) {
        Json children = Json::array();
        for (size_t i = 0; i < nodes.size();) {
            const NodeEntry &node = nodes[i++];
            if (node.type != KV_ICATEGORY) {
                children.push_back(feature(node.name));
                continue;
            }
            Json record{{"name", node.name}, {"type", "category"}};
            if (path.insert(node.name).second) {
                GC_ERROR result = GC_ERR_SUCCESS;
                const std::vector<NodeEntry> contents = list_nodes(p_, module_, node.name, &result);
                record["children"] = children_of(contents, path);
                path.erase(node.name);
                for (const NodeEntry &content : contents)
                    if (i < nodes.size() && nodes[i].name == content.name) ++i;
            }
            children.push_back(std::move(record));
        }
        return children;
    }

    Json feature(const std::string &name) {
        GC_ERROR result = GC_ERR_SUCCESS;
        const kv_node_info info = node_info(p_, module_, name, &result);
        Json record{{"name", name}};
        if (info.interface_type == kNoAnswer) {
            ++tally_.unreadable;
            record["error"] = result;
            return record;
        }
        record["type"] = type_name(info.interface_type);
        record["access"] = access_name(info.access_mode);
        if (!readable(info.access_mode)) return record;  // nothing to show
        add_value(record, name, info, result);
        if (record.contains("error")) ++tally_.unreadable;
        return record;
    }

    // The value in its own JSON type, with the limits of numbers; a value
    // that cannot be read leaves "error".
    void add_value(Json &record, const std::string &name, const kv_node_info &info, GC_ERROR result) {
        switch (info.interface_type) {
        case KV_IINTEGER:
            if (result == GC_ERR_SUCCESS) {
                record["value"] = static_cast<int64_t>(info.value.i);
                record["min"] = static_cast<int64_t>(info.minimum.i);
                record["max"] = static_cast<int64_t>(info.maximum.i);
                record["increment"] = static_cast<int64_t>(info.increment.i);
            } else if (int64_t value = 0;
                       (result = p_.kv_genapi_get_integer(module_, name.c_str(), &value)) == GC_ERR_SUCCESS) {
                record["value"] = value;  // the limits failed, not the value
            } else {
                break;
            }
            add_integer_text(record, name);
            return;
        case KV_IBOOLEAN:
            if (result != GC_ERR_SUCCESS) break;
            record["value"] = info.value.i != 0;
            return;
        case KV_IFLOAT:
            if (result == GC_ERR_SUCCESS) {
                record["value"] = static_cast<double>(info.value.f);
                record["min"] = static_cast<double>(info.minimum.f);
                record["max"] = static_cast<double>(info.maximum.f);
            } else if (double value = 0;
                       (result = p_.kv_genapi_get_float(module_, name.c_str(), &value)) == GC_ERR_SUCCESS) {
                record["value"] = value;
            } else {
                break;
            }
            return;
        case KV_IENUMERATION:
            if (auto value = enum_value(p_, module_, name, &result)) {
                record["value"] = value->current;
                record["entries"] = value->entries;
                return;
            }
            break;
        case KV_ISTRING:
        case KV_IREGISTER:
            if (auto text = string_value(p_, module_, name, &result)) {
                record["value"] = *text;
                return;
            }
            break;
        default: return;  // commands and other nodes carry no value
        }
        record["error"] = result;
    }

    // Integers the producer shows in hexadecimal or as addresses keep that
    // form beside the number.
    void add_integer_text(Json &record, const std::string &name) {
        GC_ERROR result = GC_ERR_SUCCESS;
        const std::optional<std::string> text = string_value(p_, module_, name, &result);
        if (text && *text != record["value"].dump()) record["text"] = *text;
    }

    const Producer &p_;
    void *module_;
    Tally &tally_;
};

// ---------------------------------------------------------------------------
// Setting features

// A producer code in words, for messages.
std::string feature_error_text(const Producer &p, GC_ERROR code) {
    switch (code) {
    case KV_ERR_FEATURE_NOT_FOUND:
    case KV_ERR_NODE_NOT_FOUND: return "no such feature";
    case KV_ERR_NOT_WRITABLE: return "not writable now";
    case KV_ERR_NO_ACCESS: return "not available";
    case KV_ERR_EXCEPTION: return "the value was refused (" + pelorin_tools::last_error(p) + ")";
    default: return "error " + pelorin_tools::last_error(p);
    }
}

// A whole integer, decimal or 0x.. hexadecimal, with an optional sign.
std::optional<int64_t> parse_integer(const std::string &text) {
    const size_t start = text.empty() || (text[0] != '-' && text[0] != '+') ? 0 : 1;
    const bool hex =
        text.size() > start + 2 && text[start] == '0' && (text[start + 1] == 'x' || text[start + 1] == 'X');
    const std::string digits = text.substr(start + (hex ? 2 : 0));
    if (digits.empty() ||
        digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    const unsigned long long magnitude = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno == ERANGE) return std::nullopt;
    if (text[0] == '-') {
        if (magnitude > 1ULL << 63) return std::nullopt;
        return static_cast<int64_t>(0 - magnitude);
    }
    // Hexadecimal may fill all 64 bits (a register-like value); decimal is signed.
    if (!hex && magnitude > static_cast<unsigned long long>(INT64_MAX)) return std::nullopt;
    return static_cast<int64_t>(magnitude);
}

std::optional<double> parse_float(const std::string &text) {
    if (text.empty()) return std::nullopt;
    char *end = nullptr;
    errno = 0;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || errno == ERANGE || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::optional<bool> parse_boolean(const std::string &text) {
    if (text == "true" || text == "True" || text == "TRUE" || text == "1") return true;
    if (text == "false" || text == "False" || text == "FALSE" || text == "0") return false;
    return std::nullopt;
}

std::string join(const std::vector<std::string> &items, const char *separator) {
    std::string text;
    for (const std::string &item : items) text += (text.empty() ? "" : separator) + item;
    return text;
}

std::string shown(double value) {
    Json number = value;
    return number.dump();
}

// Applies one --set on `module`; a refusal ends the run with its reason.
class FeatureWriter {
public:
    FeatureWriter(const Producer &p, void *module, const Setting &setting)
        : p_(p),
          module_(module),
          setting_(setting),
          name_(setting.name.c_str()),
          what_(setting.module + ":" + setting.name) {}

    void apply() {
        GC_ERROR result = GC_ERR_SUCCESS;
        const kv_node_info info = node_info(p_, module_, setting_.name, &result);
        if (info.interface_type == kNoAnswer) fail("the " + setting_.module + " module has no such feature");
        if (info.interface_type == KV_ICOMMAND) return execute(info);
        if (!setting_.value)
            throw ToolError{kExitUsage, "--set " + what_ + ": give a value (" + setting_.name +
                                            "=VALUE); only a command runs without one"};
        if (!writable(info.access_mode))
            fail(std::string("not writable (access ") + access_name(info.access_mode) + ")");
        const std::string &value = *setting_.value;
        switch (info.interface_type) {
        case KV_IINTEGER: return set_integer(info, result == GC_ERR_SUCCESS, value);
        case KV_IFLOAT: return set_float(info, value);
        case KV_IBOOLEAN: return set_boolean(value);
        case KV_IENUMERATION: return set_entry(value);
        case KV_ISTRING:
        case KV_IREGISTER: return check(p_.kv_genapi_set_string(module_, name_, value.c_str()));
        default: fail(std::string("a ") + type_name(info.interface_type) + " cannot be set");
        }
    }

private:
    [[noreturn]] void fail(const std::string &reason) const {
        throw ToolError{
            kExitFeature,
            "cannot set " + what_ +
                (setting_.value && !setting_.value->empty() ? " to '" + *setting_.value + "'" : "") + ": " +
                reason};
    }

    void check(GC_ERROR result) const {
        if (result != GC_ERR_SUCCESS) fail(feature_error_text(p_, result));
    }

    void execute(const kv_node_info &info) const {
        if (setting_.value && !setting_.value->empty())
            fail("it is a command; give its name alone to execute it");
        if (!writable(info.access_mode))
            fail(std::string("the command cannot be executed now (access ") + access_name(info.access_mode) +
                 ")");
        check(p_.kv_genapi_call_command(module_, name_));
    }

    // `limits_known`: the node info carries the limits (they may fail to
    // read while the value does not; the producer checks then).
    void set_integer(const kv_node_info &info, bool limits_known, const std::string &text) const {
        const std::optional<int64_t> value = parse_integer(text);
        if (!value) fail("not an integer (decimal or 0x..)");
        if (limits_known) check_integer_limits(info, *value);
        check(p_.kv_genapi_set_integer(module_, name_, *value));
    }

    void check_integer_limits(const kv_node_info &info, int64_t value) const {
        const int64_t low = info.minimum.i, high = info.maximum.i, step = info.increment.i;
        if (value < low || value > high)
            fail("out of range " + std::to_string(low) + ".." + std::to_string(high));
        if (step > 1 && (value - low) % step != 0)
            fail("not a step of " + std::to_string(step) + " from " + std::to_string(low));
    }

    void set_float(const kv_node_info &info, const std::string &text) const {
        const std::optional<double> value = parse_float(text);
        if (!value) fail("not a number");
        const double low = info.minimum.f, high = info.maximum.f;
        if (low < high && (*value < low || *value > high))
            fail("out of range " + shown(low) + ".." + shown(high));
        check(p_.kv_genapi_set_float(module_, name_, *value));
    }

    void set_boolean(const std::string &text) const {
        const std::optional<bool> value = parse_boolean(text);
        if (!value) fail("not a boolean (true, false, 1, 0)");
        check(p_.kv_genapi_set_string(module_, name_, *value ? "true" : "false"));
    }

    void set_entry(const std::string &text) const {
        GC_ERROR result = GC_ERR_SUCCESS;
        const std::optional<EnumValue> now = enum_value(p_, module_, setting_.name, &result);
        if (now && std::find(now->entries.begin(), now->entries.end(), text) == now->entries.end())
            fail("no such entry (entries: " + join(now->entries, ", ") + ")");
        check(p_.kv_genapi_set_string(module_, name_, text.c_str()));
    }

    const Producer &p_;
    void *module_;
    const Setting &setting_;
    const char *name_;
    std::string what_;
};

// ---------------------------------------------------------------------------
// The producer's modules, opened once and closed in reverse order

struct Stream {
    std::string id;
    DS_HANDLE handle = nullptr;
};

struct Device {
    std::string id;
    bool camera = false;     // the slot reports a vendor or model
    int camera_number = -1;  // over all cards, as --device counts
    bool selected = false;   // opened and shown in full
    DEV_HANDLE handle = nullptr;
    PORT_HANDLE remote = nullptr;
    std::string open_error;
    std::vector<Stream> streams;
};

struct Interface {
    std::string id;
    IF_HANDLE handle = nullptr;
    std::string open_error;
    std::vector<Device> devices;
};

std::string id_text(const std::function<GC_ERROR(char *, size_t *)> &query, GC_ERROR *result) {
    char text[1024] = {};
    size_t size = sizeof text;
    *result = query(text, &size);
    return *result == GC_ERR_SUCCESS ? std::string(text, strnlen(text, sizeof text)) : std::string();
}

class Session {
public:
    explicit Session(const Producer &p) : p_(p) {}
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    ~Session() { close(); }

    // GCInitLib and TLOpen; the producer starts only when it finds a card.
    void open() {
        // Its last error is not kept when it does not start; its log says why.
        if (const GC_ERROR init = p_.GCInitLib(); init != GC_ERR_SUCCESS)
            throw ToolError{kExitProducer, "the producer did not start (GCInitLib answered " +
                                               std::to_string(init) +
                                               "): no card found? Its log (without --quiet) says why"};
        initialised_ = true;
        if (p_.TLOpen(&system_) != GC_ERR_SUCCESS) {
            system_ = nullptr;
            throw ToolError{kExitProducer, "TLOpen failed: " + pelorin_tools::last_error(p_)};
        }
    }

    // Opens every interface and lists its devices.
    void enumerate(Tally &tally) {
        uint32_t count = 0;
        if (p_.TLUpdateInterfaceList(system_, nullptr, 1000) != GC_ERR_SUCCESS ||
            p_.TLGetNumInterfaces(system_, &count) != GC_ERR_SUCCESS)
            throw ToolError{kExitProducer,
                            "the producer cannot list its cards: " + pelorin_tools::last_error(p_)};
        if (count == 0) throw ToolError{kExitProducer, "no card found"};
        int cameras = 0;
        for (uint32_t i = 0; i < count; ++i) {
            Interface &iface = interfaces_.emplace_back();
            GC_ERROR result = GC_ERR_SUCCESS;
            iface.id =
                id_text([&](char *t, size_t *s) { return p_.TLGetInterfaceID(system_, i, t, s); }, &result);
            if (result == GC_ERR_SUCCESS)
                result = p_.TLOpenInterface(system_, iface.id.c_str(), &iface.handle);
            if (result != GC_ERR_SUCCESS) {
                iface.handle = nullptr;
                iface.open_error = pelorin_tools::last_error(p_);
                ++tally.unreadable;
                continue;
            }
            list_devices(iface, cameras, tally);
        }
    }

    // Marks the devices to open: the one --device names, or every camera.
    void select(const std::string &wanted) {
        const bool by_number = !wanted.empty() && wanted.find_first_not_of("0123456789") == std::string::npos;
        int cameras = 0;
        for (Interface &iface : interfaces_)
            for (Device &device : iface.devices) {
                cameras += device.camera ? 1 : 0;
                if (wanted.empty())
                    device.selected = device.camera;
                else if (by_number)
                    device.selected = device.camera && std::to_string(device.camera_number) == wanted;
                else
                    device.selected = device.id == wanted && !any_selected();
            }
        if (!wanted.empty() && !any_selected())
            throw ToolError{kExitNoDevice, by_number ? "no camera " + wanted + " (" +
                                                           std::to_string(cameras) + " camera(s) on " +
                                                           std::to_string(interfaces_.size()) + " card(s))"
                                                     : "no device '" + wanted + "' on any of the " +
                                                           std::to_string(interfaces_.size()) + " card(s)"};
    }

    // Opens the selected devices with their remote port and data streams. A
    // device named by --device must open; others that fail are reported.
    void open_selected(bool named, Tally &tally) {
        for (Interface &iface : interfaces_)
            for (Device &device : iface.devices) {
                if (!device.selected || open_device(iface, device)) continue;
                if (named)
                    throw ToolError{kExitNoDevice, "cannot open " + device.id + ": " + device.open_error};
                ++tally.unreadable;
            }
    }

    // The module handle a --set or a feature tree is for: the first
    // selected, opened device's (or its card's), else the first card's.
    void *module_handle(const std::string &module) const {
        if (module == "system") return system_;
        for (const Interface &iface : interfaces_)
            for (const Device &device : iface.devices) {
                if (!device.selected || device.handle == nullptr) continue;
                if (module == "interface") return iface.handle;
                if (module == "device") return device.handle;
                if (module == "remote") return device.remote;
                return device.streams.empty() ? nullptr : device.streams.front().handle;
            }
        if (module == "interface" && !interfaces_.empty()) return interfaces_.front().handle;
        return nullptr;
    }

    const Device *first_opened() const {
        for (const Interface &iface : interfaces_)
            for (const Device &device : iface.devices)
                if (device.handle != nullptr) return &device;
        return nullptr;
    }

    TL_HANDLE system() const { return system_; }
    const std::vector<Interface> &interfaces() const { return interfaces_; }

private:
    void list_devices(Interface &iface, int &cameras, Tally &tally) {
        uint32_t count = 0;
        if (p_.IFUpdateDeviceList(iface.handle, nullptr, 1000) != GC_ERR_SUCCESS ||
            p_.IFGetNumDevices(iface.handle, &count) != GC_ERR_SUCCESS) {
            iface.open_error = "devices cannot be listed: " + pelorin_tools::last_error(p_);
            ++tally.unreadable;
            return;
        }
        for (uint32_t d = 0; d < count; ++d) {
            GC_ERROR result = GC_ERR_SUCCESS;
            Device device;
            device.id =
                id_text([&](char *t, size_t *s) { return p_.IFGetDeviceID(iface.handle, d, t, s); }, &result);
            if (result != GC_ERR_SUCCESS) {
                ++tally.unreadable;
                continue;
            }
            device.camera = has_camera(iface.handle, device.id);
            if (device.camera) device.camera_number = cameras++;
            iface.devices.push_back(std::move(device));
        }
    }

    // An empty slot reports neither vendor nor model.
    bool has_camera(IF_HANDLE iface, const std::string &id) const {
        for (DEVICE_INFO_CMD command : {DEVICE_INFO_VENDOR, DEVICE_INFO_MODEL}) {
            char text[256] = {};
            size_t size = sizeof text;
            INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
            if (p_.IFGetDeviceInfo(iface, id.c_str(), command, &type, text, &size) == GC_ERR_SUCCESS &&
                text[0] != '\0')
                return true;
        }
        return false;
    }

    bool any_selected() const {
        for (const Interface &iface : interfaces_)
            for (const Device &device : iface.devices)
                if (device.selected) return true;
        return false;
    }

    bool open_device(const Interface &iface, Device &device) {
        if (p_.IFOpenDevice(iface.handle, device.id.c_str(), DEVICE_ACCESS_CONTROL, &device.handle) !=
            GC_ERR_SUCCESS) {
            device.handle = nullptr;
            device.open_error = pelorin_tools::last_error(p_);
            return false;
        }
        if (p_.DevGetPort(device.handle, &device.remote) != GC_ERR_SUCCESS) device.remote = nullptr;
        uint32_t count = 0;
        if (p_.DevGetNumDataStreams(device.handle, &count) != GC_ERR_SUCCESS) count = 0;
        for (uint32_t i = 0; i < count; ++i) {
            Stream stream;
            GC_ERROR result = GC_ERR_SUCCESS;
            stream.id = id_text(
                [&](char *t, size_t *s) { return p_.DevGetDataStreamID(device.handle, i, t, s); }, &result);
            if (result != GC_ERR_SUCCESS ||
                p_.DevOpenDataStream(device.handle, stream.id.c_str(), &stream.handle) != GC_ERR_SUCCESS)
                stream.handle = nullptr;
            device.streams.push_back(std::move(stream));
        }
        return true;
    }

    void close() {
        for (Interface &iface : interfaces_) {
            for (Device &device : iface.devices) {
                for (Stream &stream : device.streams)
                    if (stream.handle != nullptr) p_.DSClose(stream.handle);
                if (device.handle != nullptr) p_.DevClose(device.handle);
            }
            if (iface.handle != nullptr) p_.IFClose(iface.handle);
        }
        interfaces_.clear();
        if (system_ != nullptr) p_.TLClose(system_);
        system_ = nullptr;
        if (initialised_) p_.GCCloseLib();
        initialised_ = false;
    }

    const Producer &p_;
    bool initialised_ = false;
    TL_HANDLE system_ = nullptr;
    std::vector<Interface> interfaces_;
};

// ---------------------------------------------------------------------------
// Collecting the document

class Collector {
public:
    Collector(const Producer &p, const Options &options, Tally &tally)
        : p_(p), options_(options), tally_(tally) {}

    Json document(const std::string &path, const Session &session, const Json &settings) {
        Json doc;
        doc["producer"] = {{"path", path},
                           {"info", read_info(
                                        kSystemItems,
                                        [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                                            return p_.GCGetInfo(c, t, b, s);
                                        },
                                        tally_)}};
        TL_HANDLE system = session.system();
        doc["system"] = {{"info", read_info(
                                      kSystemItems,
                                      [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                                          return p_.TLGetInfo(system, c, t, b, s);
                                      },
                                      tally_)}};
        add_features(doc["system"], "system", system);
        doc["interfaces"] = Json::array();
        for (const Interface &iface : session.interfaces()) doc["interfaces"].push_back(interface(iface));
        if (!settings.empty()) doc["settings"] = settings;
        return doc;
    }

private:
    bool wants_features(const char *module) const {
        return options_.features && (options_.feature_module.empty() || options_.feature_module == module);
    }

    void add_features(Json &record, const char *module, void *handle, const char *key = "features") {
        if (!wants_features(module) || handle == nullptr) return;
        record[key] = FeatureReader(p_, handle, tally_).tree();
    }

    Json interface(const Interface &iface) {
        Json record{{"id", iface.id}};
        if (iface.handle == nullptr) {
            record["error"] = iface.open_error;
            return record;
        }
        record["info"] = read_info(
            kInterfaceItems,
            [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                return p_.IFGetInfo(iface.handle, c, t, b, s);
            },
            tally_);
        add_features(record, "interface", iface.handle);
        if (!iface.open_error.empty()) record["error"] = iface.open_error;
        record["devices"] = Json::array();
        for (const Device &device : iface.devices) record["devices"].push_back(this->device(iface, device));
        return record;
    }

    Json device(const Interface &iface, const Device &device) {
        Json record{{"id", device.id}, {"camera", device.camera}};
        if (device.camera) record["camera_number"] = device.camera_number;
        record["info"] = read_info(
            kDeviceItems,
            [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                return p_.IFGetDeviceInfo(iface.handle, device.id.c_str(), c, t, b, s);
            },
            tally_);
        record["opened"] = device.handle != nullptr;
        if (!device.open_error.empty()) record["error"] = device.open_error;
        if (device.handle == nullptr) return record;
        record["device_info"] = read_info(
            kDeviceItems,
            [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                return p_.DevGetInfo(device.handle, c, t, b, s);
            },
            tally_);
        add_features(record, "device", device.handle);
        add_features(record, "remote", device.remote, "remote_features");
        record["streams"] = Json::array();
        for (const Stream &stream : device.streams) record["streams"].push_back(this->stream(stream));
        return record;
    }

    Json stream(const Stream &stream) {
        Json record{{"id", stream.id}};
        if (stream.handle == nullptr) {
            ++tally_.unreadable;
            record["error"] = "cannot be opened: " + pelorin_tools::last_error(p_);
            return record;
        }
        record["info"] = read_info(
            kStreamItems,
            [&](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                return p_.DSGetInfo(stream.handle, c, t, b, s);
            },
            tally_);
        add_features(record, "stream", stream.handle);
        return record;
    }

    const Producer &p_;
    const Options &options_;
    Tally &tally_;
};

// Applies every --set in order; the record of what was set, as read back.
Json apply_settings(const Producer &p, const Session &session, const std::vector<Setting> &settings) {
    Json applied = Json::array();
    for (const Setting &setting : settings) {
        void *handle = session.module_handle(setting.module);
        if (handle == nullptr)
            throw ToolError{kExitNoDevice,
                            "--set " + setting.module + ":" + setting.name + ": no opened " +
                                (setting.module == "interface" ? "card" : "device with a camera") +
                                " for it"};
        FeatureWriter(p, handle, setting).apply();
        Json record{{"module", setting.module}, {"name", setting.name}};
        if (is_device_level(setting.module)) record["device"] = session.first_opened()->id;
        if (setting.value) record["value"] = *setting.value;
        GC_ERROR result = GC_ERR_SUCCESS;
        if (auto now = string_value(p, handle, setting.name, &result)) record["now"] = *now;
        applied.push_back(std::move(record));
    }
    return applied;
}

// ---------------------------------------------------------------------------
// Text rendering of the document

std::string indent(int depth) { return std::string(static_cast<size_t>(depth) * 2, ' '); }

const char *access_status_name(int64_t status) {
    switch (status) {
    case DEVICE_ACCESS_STATUS_READWRITE: return "ReadWrite";
    case DEVICE_ACCESS_STATUS_READONLY: return "ReadOnly";
    case DEVICE_ACCESS_STATUS_NOACCESS: return "NoAccess";
    case DEVICE_ACCESS_STATUS_BUSY: return "Busy";
    case DEVICE_ACCESS_STATUS_OPEN_READWRITE: return "OpenReadWrite";
    case DEVICE_ACCESS_STATUS_OPEN_READONLY: return "OpenReadOnly";
    default: return "Unknown";
    }
}

std::string scalar_text(const Json &value) {
    if (value.is_null()) return "(not available)";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_object() && value.contains("error")) return "(error " + value["error"].dump() + ")";
    return value.dump();
}

// The items of `info`; with a `reference`, only those that differ from it,
// as a device's DevGetInfo repeats most of what its card told before.
void print_info(FILE *out, const Json &info, int depth, const Json *reference = nullptr) {
    size_t same = 0;
    for (const auto &[key, value] : info.items()) {
        if (reference != nullptr && reference->contains(key) && (*reference)[key] == value) {
            ++same;
            continue;
        }
        std::string text = scalar_text(value);
        if (key == "access_status" && value.is_number_integer())
            text += std::string(" (") + access_status_name(value.get<int64_t>()) + ")";
        std::fprintf(out, "%s%-20s %s\n", indent(depth).c_str(), key.c_str(), text.c_str());
    }
    if (same > 0) std::fprintf(out, "%s(%zu item(s) the same as above)\n", indent(depth).c_str(), same);
}

// The widest "indent + name" of a feature tree, to align the columns.
size_t name_column(const Json &features, size_t depth) {
    size_t width = 0;
    for (const Json &feature : features) {
        width = std::max(width, depth * 2 + feature["name"].get<std::string>().size());
        if (feature.contains("children"))
            width = std::max(width, name_column(feature["children"], depth + 1));
    }
    return width;
}

// Numbers for people: floats in six significant digits (JSON keeps them whole).
std::string number_text(const Json &number) {
    if (!number.is_number_float()) return scalar_text(number);
    char text[32];
    std::snprintf(text, sizeof text, "%g", number.get<double>());
    return text;
}

// The limits of a writable number, unless they are the type's own (a float
// between -FLT_MAX and FLT_MAX says nothing).
std::string range_text(const Json &feature) {
    if (!feature.contains("min") || !feature.contains("max") || feature.value("access", "") == "RO")
        return "";
    if (feature["min"].is_number_float() && std::fabs(feature["min"].get<double>()) >= 1e38 &&
        std::fabs(feature["max"].get<double>()) >= 1e38)
        return "";
    std::string text = "  [" + number_text(feature["min"]) + ".." + number_text(feature["max"]);
    if (feature.contains("increment") && feature["increment"].get<int64_t>() > 1)
        text += " step " + feature["increment"].dump();
    return text + "]";
}

std::string feature_value_text(const Json &feature) {
    if (feature.contains("error")) return "(error " + feature["error"].dump() + ")";
    if (!feature.contains("value")) return "";
    std::string text =
        feature.contains("text") ? feature["text"].get<std::string>() : number_text(feature["value"]);
    text += range_text(feature);
    if (feature.contains("entries"))
        text += "  {" + join(feature["entries"].get<std::vector<std::string>>(), ", ") + "}";
    return text;
}

void print_feature_rows(FILE *out, const Json &features, int base, size_t depth, size_t width) {
    for (const Json &feature : features) {
        const std::string name = std::string(depth * 2, ' ') + feature["name"].get<std::string>();
        if (feature.contains("children") || feature.value("type", "") == "category") {
            std::fprintf(out, "%s%s\n", indent(base).c_str(), name.c_str());
            if (feature.contains("children"))
                print_feature_rows(out, feature["children"], base, depth + 1, width);
            continue;
        }
        std::fprintf(out, "%s%-*s  %-11s %-2s  %s\n", indent(base).c_str(), static_cast<int>(width),
                     name.c_str(), feature.value("type", "?").c_str(), feature.value("access", "?").c_str(),
                     feature_value_text(feature).c_str());
    }
}

void print_features(FILE *out, const Json &record, const char *key, const char *title, int depth) {
    if (!record.contains(key)) return;
    const Json &features = record[key];
    if (features.is_object()) {
        std::fprintf(out, "%s%s: cannot be read (error %s)\n", indent(depth).c_str(), title,
                     features["error"].dump().c_str());
        return;
    }
    std::fprintf(out, "%s%s:\n", indent(depth).c_str(), title);
    print_feature_rows(out, features, depth + 1, 0, name_column(features, 0));
}

std::string device_summary(const Json &device) {
    if (!device["camera"].get<bool>()) return "no camera";
    const Json &info = device["info"];
    return "camera " + device["camera_number"].dump() + ": " + scalar_text(info["vendor"]) + " " +
           scalar_text(info["model"]);
}

void print_device(FILE *out, const Json &device, size_t index) {
    std::fprintf(out, "  Device %zu (IFGetDeviceInfo): %s  (%s)\n", index,
                 device["id"].get<std::string>().c_str(), device_summary(device).c_str());
    print_info(out, device["info"], 2);
    if (device.contains("error"))
        std::fprintf(out, "    cannot be opened: %s\n", device["error"].get<std::string>().c_str());
    if (!device["opened"].get<bool>()) return;
    std::fprintf(out, "    Opened (DevGetInfo):\n");
    print_info(out, device["device_info"], 3, &device["info"]);
    print_features(out, device, "features", "Device features", 2);
    print_features(out, device, "remote_features", "Camera features", 2);
    size_t number = 0;
    for (const Json &stream : device["streams"]) {
        std::fprintf(out, "    Stream %zu (DSGetInfo): %s\n", number++,
                     stream["id"].get<std::string>().c_str());
        if (stream.contains("error"))
            std::fprintf(out, "      %s\n", stream["error"].get<std::string>().c_str());
        if (stream.contains("info")) print_info(out, stream["info"], 3);
        print_features(out, stream, "features", "Stream features", 3);
    }
}

// What --set did, first, as it happened before anything was read.
void print_settings(FILE *out, const Json &doc) {
    if (!doc.contains("settings")) return;
    for (const Json &setting : doc["settings"]) {
        const std::string where =
            setting.contains("device") ? " on " + setting["device"].get<std::string>() : "";
        const std::string what =
            setting.contains("value") ? "=" + setting["value"].get<std::string>() : " executed";
        const std::string now = setting.contains("now") ? ", now " + setting["now"].get<std::string>() : "";
        std::fprintf(out, "Set %s:%s%s%s%s\n", setting["module"].get<std::string>().c_str(),
                     setting["name"].get<std::string>().c_str(), what.c_str(), where.c_str(), now.c_str());
    }
}

void print_text(FILE *out, const Json &doc) {
    print_settings(out, doc);
    std::fprintf(out, "Producer (GCGetInfo): %s\n", doc["producer"]["path"].get<std::string>().c_str());
    print_info(out, doc["producer"]["info"], 1);
    std::fprintf(out, "System (TLGetInfo):\n");
    print_info(out, doc["system"]["info"], 1, &doc["producer"]["info"]);
    print_features(out, doc["system"], "features", "System features", 1);
    size_t number = 0;
    for (const Json &iface : doc["interfaces"]) {
        std::fprintf(out, "Card %zu (IFGetInfo): %s\n", number++, iface["id"].get<std::string>().c_str());
        if (iface.contains("error")) std::fprintf(out, "  %s\n", iface["error"].get<std::string>().c_str());
        if (iface.contains("info")) print_info(out, iface["info"], 1);
        print_features(out, iface, "features", "Card features", 1);
        size_t index = 0;
        if (iface.contains("devices"))
            for (const Json &device : iface["devices"]) print_device(out, device, index++);
    }
}

// ---------------------------------------------------------------------------

std::string producer_path(const Options &options) {
    if (options.producer.empty()) {
        std::string found = pelorin_tools::default_producer_path();
        if (found.empty())
            throw ToolError{kExitProducer, "no producer found: set GENICAM_GENTL64_PATH or name the .cti"};
        return found;
    }
    if (!pelorin_tools::is_regular_file(options.producer))
        throw ToolError{kExitProducer, options.producer + (::access(options.producer.c_str(), F_OK) == 0
                                                               ? ": not a regular file"
                                                               : ": no such file")};
    return options.producer;
}

int run(const Options &options, FILE *out) {
    const std::string path = producer_path(options);
    Producer p;
    if (std::string error; !p.load(path, &error)) throw ToolError{kExitProducer, error};
    Tally tally;
    Json doc;
    {
        Session session(p);
        session.open();
        session.enumerate(tally);
        if (options.open_devices) {
            session.select(options.device);
            session.open_selected(!options.device.empty(), tally);
        }
        const Json settings = apply_settings(p, session, options.settings);
        doc = Collector(p, options, tally).document(path, session, settings);
    }
    if (options.json)
        std::fprintf(out, "%s\n", doc.dump(2).c_str());
    else
        print_text(out, doc);
    std::fflush(out);
    if (tally.unreadable == 0) return kExitOk;
    std::fprintf(stderr, "pelorin-info: %d item(s) could not be read\n", tally.unreadable);
    return kExitIncomplete;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        const Options options = parse_options(argc, argv);
        FILE *out = pelorin_tools::separate_producer_log(options.quiet);
        if (out == nullptr) out = stdout;
        if (options.help) {
            usage(out);
            return kExitOk;
        }
        return run(options, out);
    } catch (const ToolError &error) {
        std::fprintf(stderr, "pelorin-info: %s\n", error.message.c_str());
        return error.code;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "pelorin-info: unexpected failure: %s\n", error.what());
        return kExitIncomplete;
    }
}
