// libFuzzer target for description files (GenICam XML, plain or zipped), as
// a module's port or a camera hands them to the producer. An input that
// starts with "PK" is a zip archive, any other input XML text.
//   - A refused file is reported as a genapi_error, never as another
//     exception, and leaves the node map empty: nothing loaded, no node, no
//     text, and a good description still loads into it afterwards.
//   - An accepted file gives a loaded map that refuses a second load, keeps
//     the text it was built from, connects to its Port nodes (and to nothing
//     else), and whose every node can be listed and asked for its kind,
//     access, names and value through a memory port that answers every
//     address; a failure there is again a genapi_error. A register reads
//     back exactly its length in bytes; an enumeration's current entry is
//     one of its entries.
//   - XML text is also served the way a module serves it, zipped behind a
//     "local:" URL, to LoadNodeMapFromPort: it loads exactly when the map
//     has a Port node of the name the port gives, with the same nodes. The
//     text a zip archive held loads as plain XML with the same nodes.
// Any broken rule aborts with a message; the sanitizers catch the rest
// (leaks included: the maps and their Aravis objects are freed per input).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sanitizer/lsan_interface.h>

#include "diag/log.h"
#include "nodemap/genapi_error.h"
#include "nodemap/node_map.h"
#include "nodemap/node_map_loader.h"
#include "pelorin/gentl.h"

#include "fuzz_rules.h"

namespace {

using pelorin::nodemap::node_kind;

using pelorin::fuzz::fail;
using pelorin::fuzz::require;

// The most nodes whose values one input reads, and the longest register read.
constexpr size_t kNodesRead = 256;
constexpr int64_t kLongestRead = 64 * 1024;

// A description any map can load.
const std::string kSmallDescription =
    "<?xml version=\"1.0\"?>\n"
    "<RegisterDescription ModelName=\"M\" VendorName=\"V\" StandardNameSpace=\"None\" "
    "SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" "
    "MajorVersion=\"1\" MinorVersion=\"0\" SubMinorVersion=\"0\" ProductGuid=\"G\" VersionGuid=\"H\">"
    "<Integer Name=\"Value\"><Value>7</Value></Integer><Port Name=\"Device\"/>"
    "</RegisterDescription>\n";

// Register memory that answers every address with bytes made from the
// address; writes are taken and forgotten. Reads longer than kLongestRead
// fail, as a port with a size limit does.
class memory_port final : public IPort {
public:
    void Read(void *buffer, int64_t address, int64_t length) override {
        if (length < 0 || length > kLongestRead) throw std::runtime_error("read too long");
        auto *bytes = static_cast<uint8_t *>(buffer);
        for (int64_t i = 0; i < length; ++i)
            // Unsigned: a description may place a register at the top of the
            // address range, where address + i would overflow as signed.
            bytes[i] = static_cast<uint8_t>(((static_cast<uint64_t>(address) + static_cast<uint64_t>(i)) *
                                             0x9E3779B1u) >> 13);
        ++reads;
    }
    void Write(const void *, int64_t, int64_t length) override {
        if (length < 0 || length > kLongestRead) throw std::runtime_error("write too long");
        ++writes;
    }
    EAccessMode GetAccessMode() const override { return RW; }

    int reads = 0;
    int writes = 0;
};

// Runs one node-map call: true when it answered, false when it refused with
// a genapi_error. Any other exception breaks the rule.
template <typename Call>
bool answered(const std::string &what, Call call) {
    try {
        call();
        return true;
    } catch (const genapi_error &) {
        return false;
    } catch (const std::exception &e) {
        fail(what + ": failed with an exception that is no genapi_error: " + e.what());
    } catch (...) {
        fail(what + ": failed with an exception that is no std::exception");
    }
}

bool is_readable(EAccessMode mode) { return mode == RO || mode == RW; }

// Aravis 0.8 loses a GError when a Converter or IntConverter asks its pValue
// for a minimum or maximum that cannot be computed (a pValue that names no
// node, say): it returns on the default bound before looking at the error.
// What is allocated during the range calls is therefore not counted as a
// leak; the producer's range calls keep nothing themselves.
template <typename Call>
void range_call(Call call) {
    __lsan_disable();
    try {
        call();
    } catch (...) {
        __lsan_enable();
        throw;
    }
    __lsan_enable();
}

void read_node(CNodeMapRef &map, const std::string &name) {
    require(map.has_node(name), name + ": listed but not found");
    node_kind kind = node_kind::other;
    if (!answered(name + " kind", [&] { kind = map.kind(name); })) fail(name + ": listed without a kind");
    require(map.node_handle(name) != nullptr, name + ": no handle");
    EAccessMode access = NI;
    answered(name + " access", [&] { access = map.access_mode(name); });
    answered(name + " texts", [&] {
        map.visibility(name);
        map.display_name(name);
        map.tooltip(name);
        map.description(name);
    });
    answered(name + " register", [&] {
        if (map.is_register(name)) map.register_address(name);
    });
    if (!is_readable(access) && kind != node_kind::category && kind != node_kind::command) return;
    switch (kind) {
        case node_kind::integer:
            answered(name + " integer", [&] { map.get_integer(name); });
            answered(name + " range", [&] {
                range_call([&] {
                    map.integer_min(name);
                    map.integer_max(name);
                });
                map.integer_inc(name);
                map.representation(name);
            });
            break;
        case node_kind::float_number:
            answered(name + " float", [&] { map.get_float(name); });
            answered(name + " range", [&] {
                range_call([&] {
                    map.float_min(name);
                    map.float_max(name);
                });
                map.float_inc(name);
                map.float_unit(name);
                map.representation(name);
            });
            break;
        case node_kind::boolean:
            answered(name + " boolean", [&] { map.get_boolean(name); });
            break;
        case node_kind::string:
            answered(name + " string", [&] {
                map.get_string(name);
                map.string_max_length(name);
            });
            break;
        case node_kind::register_node: {
            int64_t length = -1;
            answered(name + " length", [&] { length = map.register_length(name); });
            if (length < 0 || length > kLongestRead) break;
            std::vector<uint8_t> bytes;
            if (answered(name + " bytes", [&] { bytes = map.get_register(name); }))
                require(bytes.size() == static_cast<size_t>(length),
                        name + ": a register read gave another number of bytes than its length");
            break;
        }
        case node_kind::enumeration: {
            std::vector<pelorin::nodemap::enum_entry_info> entries;
            answered(name + " entries", [&] { entries = map.enum_entries(name); });
            std::string current;
            if (answered(name + " entry", [&] { current = map.get_enum(name); }) && !entries.empty())
                require(std::any_of(entries.begin(), entries.end(),
                                    [&](const auto &entry) { return entry.name == current; }),
                        name + ": the current entry '" + current + "' is none of its entries");
            answered(name + " value", [&] { map.get_enum_value(name); });
            int64_t value = 0;
            map.read_integer(name, value);  // never throws
            break;
        }
        case node_kind::category:
            answered(name + " features", [&] { map.category_features(name); });
            break;
        case node_kind::command:
            answered(name + " done", [&] { map.is_done(name); });
            break;
        default:
            break;
    }
}

// The names of the map's Port nodes.
std::vector<std::string> port_names(const CNodeMapRef &map, const std::vector<std::string> &names) {
    std::vector<std::string> ports;
    for (const std::string &name : names) {
        node_kind kind = node_kind::other;
        if (answered(name + " kind", [&] { kind = map.kind(name); }) && kind == node_kind::port)
            ports.push_back(name);
    }
    return ports;
}

// The rules of a map that accepted its description.
void check_accepted(CNodeMapRef &map, const std::vector<std::string> &names) {
    require(map.loaded(), "an accepted description left the map unloaded");
    require(std::is_sorted(names.begin(), names.end()) &&
                std::adjacent_find(names.begin(), names.end()) == names.end(),
            "node names not sorted or not unique");
    require(!answered("second load", [&] { map._LoadXMLFromString(kSmallDescription); }),
            "a loaded map took a second description");

    memory_port port;
    require(!map._Connect(nullptr, "Device"), "connected to no port");
    const std::vector<std::string> ports = port_names(map, names);
    for (const std::string &name : names) {
        if (std::find(ports.begin(), ports.end(), name) != ports.end()) continue;
        require(!map._Connect(&port, name), name + ": connected to a node that is no Port");
        break;
    }
    if (!ports.empty()) require(map._Connect(&port, ports.front()), ports.front() + ": Port node refused");
    for (size_t i = 0; i < names.size() && i < kNodesRead; ++i) read_node(map, names[i]);
}

// The rules of a map that refused its description.
void check_refused(CNodeMapRef &map) {
    require(!map.loaded(), "a refused description left the map loaded");
    require(map.node_names().empty(), "a refused description left nodes");
    require(std::strlen(map.description_text()) == 0, "a refused description left its text");
    require(answered("load after a refusal", [&] { map._LoadXMLFromString(kSmallDescription); }),
            "a map that refused a description does not take a good one");
    require(map.has_node("Value"), "the good description's node is missing");
}

// ---------------------------------------------------------------------------
// Zip archives of one stored entry, as the modules' own files are served

uint32_t crc32_of(const std::string &data) {
    uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char c : data) {
        crc ^= c;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void put16(std::string &out, uint32_t value) {
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>((value >> 8) & 0xFF);
}
void put32(std::string &out, uint32_t value) {
    put16(out, value & 0xFFFF);
    put16(out, value >> 16);
}

std::string stored_zip(const std::string &entry, const std::string &data) {
    const uint32_t crc = crc32_of(data);
    const uint32_t size = static_cast<uint32_t>(data.size());
    std::string zip;
    put32(zip, 0x04034b50);  // local header
    put16(zip, 10);
    put16(zip, 0);
    put16(zip, 0);  // stored
    put32(zip, 0);  // time, date
    put32(zip, crc);
    put32(zip, size);
    put32(zip, size);
    put16(zip, static_cast<uint32_t>(entry.size()));
    put16(zip, 0);
    zip += entry;
    zip += data;
    const uint32_t directory = static_cast<uint32_t>(zip.size());
    put32(zip, 0x02014b50);  // central directory entry
    put16(zip, 20);
    put16(zip, 10);
    put16(zip, 0);
    put16(zip, 0);
    put32(zip, 0);
    put32(zip, crc);
    put32(zip, size);
    put32(zip, size);
    put16(zip, static_cast<uint32_t>(entry.size()));
    put16(zip, 0);
    put16(zip, 0);
    put16(zip, 0);
    put16(zip, 0);
    put32(zip, 0);
    put32(zip, 0);  // local header offset
    zip += entry;
    const uint32_t directory_size = static_cast<uint32_t>(zip.size()) - directory;
    put32(zip, 0x06054b50);  // end of central directory
    put16(zip, 0);
    put16(zip, 0);
    put16(zip, 1);
    put16(zip, 1);
    put32(zip, directory_size);
    put32(zip, directory);
    put16(zip, 0);
    return zip;
}

GC_ERROR copy_text(const std::string &text, INFO_DATATYPE *type, void *buffer, size_t *size) {
    if (type != nullptr) *type = INFO_DATATYPE_STRING;
    if (buffer == nullptr || *size < text.size() + 1) {
        *size = text.size() + 1;
        return buffer == nullptr ? GC_ERR_SUCCESS : GC_ERR_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    *size = text.size() + 1;
    return GC_ERR_SUCCESS;
}

// `xml` served zipped at 0x10000 behind a "local:" URL and a port named
// `port_name`, loaded by LoadNodeMapFromPort.
std::shared_ptr<CNodeMapRef> load_through_port(const std::string &xml, const std::string &port_name,
                                               IPort &port) {
    const std::string zip = stored_zip("fuzz.xml", xml);
    char length[32];
    std::snprintf(length, sizeof length, "%zx", zip.size());
    const std::string url = std::string("local:///fuzz.zip;10000;") + length;
    pelorin::nodemap::module_port_ops ops;
    ops.url_count = [](uint32_t *count) {
        *count = 1;
        return GC_ERR_SUCCESS;
    };
    ops.url_info = [&](uint32_t index, URL_INFO_CMD command, INFO_DATATYPE *type, void *buffer,
                       size_t *size) -> GC_ERROR {
        if (index != 0 || command != URL_INFO_URL) return GC_ERR_NOT_IMPLEMENTED;
        return copy_text(url, type, buffer, size);
    };
    ops.read = [&](uint64_t address, void *buffer, size_t *size) -> GC_ERROR {
        require(address == 0x10000 && *size == zip.size(),
                "the loader read another range than its URL names");
        std::memcpy(buffer, zip.data(), zip.size());
        return GC_ERR_SUCCESS;
    };
    ops.port_info = [&](PORT_INFO_CMD command, INFO_DATATYPE *type, void *buffer, size_t *size) -> GC_ERROR {
        if (command != PORT_INFO_PORTNAME) return GC_ERR_NOT_IMPLEMENTED;
        return copy_text(port_name, type, buffer, size);
    };
    std::string file_name;
    auto map = pelorin::nodemap::LoadNodeMapFromPort(ops, &port, &file_name, false);
    if (map) require(file_name == "fuzz.zip", "the loader named another file than its URL: " + file_name);
    return map;
}

// ---------------------------------------------------------------------------

void fuzz_xml(const std::string &text) {
    std::vector<std::string> names;
    {
        CNodeMapRef map("Device");
        if (!answered("load", [&] { map._LoadXMLFromString(text); })) {
            check_refused(map);
            return;
        }
        names = map.node_names();
        if (text.find('\0') == std::string::npos)
            require(map.description_text() == text, "the map keeps another text than it was built from");
        check_accepted(map, names);
        const std::vector<std::string> ports = port_names(map, names);

        memory_port port;
        const std::string port_name = ports.empty() ? "NoSuchPort" : ports.front();
        const std::shared_ptr<CNodeMapRef> loaded = load_through_port(text, port_name, port);
        require(static_cast<bool>(loaded) == !ports.empty(),
                ports.empty() ? "the loader built a map without a Port node"
                              : "the loader refused a description the map took");
        if (loaded) require(loaded->node_names() == names, "the loader's map has other nodes");
    }
}

void fuzz_zip(const uint8_t *data, size_t size) {
    CNodeMapRef map("Device");
    if (!answered("zip load", [&] { map._LoadXMLFromZIPData(data, size); })) {
        check_refused(map);
        return;
    }
    const std::vector<std::string> names = map.node_names();
    const std::string text = map.description_text();
    check_accepted(map, names);

    CNodeMapRef plain("Device");
    require(answered("plain load", [&] { plain._LoadXMLFromString(text); }) && plain.node_names() == names,
            "the text of an accepted archive does not load alike as plain XML");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The loader prints its failures; the fuzz rules do not look at them.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) fail("cannot silence stdout");
    pelorin::diag::set_log_level(pelorin::diag::kAll);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= 2 && data[0] == 'P' && data[1] == 'K')
        fuzz_zip(data, size);
    else
        fuzz_xml(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
