// Settings files of a module: the current values of its writable features
// saved as a one-line JSON object, and such a file applied back.
//
// A file looks like
//   {"saver":"lumora_1_0","Width":1024,"ExposureTime":2500.000000,"PixelFormat":"Mono8"}
// with no blanks and no line break: the "saver" member first ("tavimoor_1_0"
// is accepted too when loading), then one member per saved feature
// (integers and booleans as decimal integers, floats with six decimals,
// strings and enumeration entries as text written without escaping), then
// the closing brace.
//
// The features are reached through feature_access, so the same code serves
// the by-name exports of every module and, in tests, a node map directly.
// Nothing here throws; every result is 0 or a GC_ERR_ / KV_ERR_ code.
//
// Threads: none of its own. A caller serialises the calls on one module
// (the exports run under the library's API lock).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "features/settings_buffers.h"
#include "pelorin/kv_api.h"

class CNodeMapRef;

namespace pelorin::features {

// One parsed member of a settings file and the outcome of applying it.
using settings_record = kv_settings_record;
static_assert(sizeof(settings_record) == 520, "settings record: 256 + 4 + 256 + 4 bytes");

// settings_record::type
inline constexpr uint32_t kRecordInteger = 2;
inline constexpr uint32_t kRecordFloat = 5;
inline constexpr uint32_t kRecordString = 6;

// Longest key or text value (without its terminating zero).
inline constexpr size_t kSettingsTextMax = 255;
// The loader reads the file in pieces of this size; one member must fit.
inline constexpr size_t kSettingsChunkSize = 2048;
// A saved category may list at most this many nodes.
inline constexpr size_t kSettingsCategoryMaxNodes = 64;

inline constexpr const char *kSaverValue = "lumora_1_0";
inline constexpr const char *kSaverValueAlternate = "tavimoor_1_0";
inline constexpr const char *kCommandValue = "lumora_command";
inline constexpr const char *kCommandValueAlternate = "tavimoor_command";
// Never written back by a load: the link configuration is the connection's.
inline constexpr const char *kConnectionConfig = "ConnectionConfig";

// Interface types reported by feature_access::interface_type: the
// KV_INTERFACE_TYPE values, and these for the rest.
inline constexpr uint32_t kInterfaceValue = 0;  // none of the others
inline constexpr uint32_t kInterfaceEnumEntry = 10;
inline constexpr uint32_t kInterfacePort = 11;

// One top-level entry of a module.
struct feature_entry {
    std::string name;
    uint32_t access = KV_ACCESS_NI;  // KV_ACCESS_MODE
};

// What saving and loading need of a module's features. Every call answers
// 0 or a failure code and never throws; an implementation logs its own
// failures.
class feature_access {
public:
    virtual ~feature_access() = default;

    // The module's top-level entries (its feature list) in order.
    virtual int top_level_features(std::vector<feature_entry> &out) = 0;
    // The nodes of a category, depth first, each sub-category before its
    // contents. A name that is not a category: KV_ERR_FEATURE_NOT_FOUND.
    virtual int category_nodes(const std::string &category, std::vector<std::string> &out) = 0;
    virtual int access_mode(const std::string &name, uint32_t &mode) = 0;
    virtual int interface_type(const std::string &name, uint32_t &type) = 0;

    // Integers; booleans as 0 and 1 (any other value sets true); an
    // enumeration reads as its current entry's value.
    virtual int get_integer(const std::string &name, int64_t &value) = 0;
    virtual int set_integer(const std::string &name, int64_t value) = 0;
    virtual int get_float(const std::string &name, double &value) = 0;
    virtual int set_float(const std::string &name, double value) = 0;
    // Strings; an enumeration as its current entry's name.
    virtual int get_string(const std::string &name, std::string &value) = 0;
    virtual int set_string(const std::string &name, const std::string &value) = 0;
    virtual int execute(const std::string &name) = 0;
};

// feature_access over a node map. The top-level entries are the visible
// features of its "Root" category. Failures, each logged once:
//   node map not loaded          GC_ERR_NOT_AVAILABLE (feature list),
//                                GC_ERR_ERROR (everything else)
//   unknown node                 KV_ERR_NODE_NOT_FOUND
//   not a category               KV_ERR_FEATURE_NOT_FOUND (category_nodes)
//   not readable / not writable  KV_ERR_NOT_READABLE / KV_ERR_NOT_WRITABLE
//   wrong kind of node           KV_ERR_NOT_INTEGER, KV_ERR_NOT_FLOAT,
//                                KV_ERR_NOT_STRING, KV_ERR_NOT_COMMAND
//   out of memory                GC_ERR_OUT_OF_MEMORY
//   any other node-map failure   GC_ERR_ERROR
class node_map_features final : public feature_access {
public:
    explicit node_map_features(CNodeMapRef &map) : map_(map) {}

    int top_level_features(std::vector<feature_entry> &out) override;
    int category_nodes(const std::string &category, std::vector<std::string> &out) override;
    int access_mode(const std::string &name, uint32_t &mode) override;
    int interface_type(const std::string &name, uint32_t &type) override;
    int get_integer(const std::string &name, int64_t &value) override;
    int set_integer(const std::string &name, int64_t value) override;
    int get_float(const std::string &name, double &value) override;
    int set_float(const std::string &name, double value) override;
    int get_string(const std::string &name, std::string &value) override;
    int set_string(const std::string &name, const std::string &value) override;
    int execute(const std::string &name) override;

private:
    CNodeMapRef &map_;
};

// Writes the module's writable features to `path` (created or truncated):
// for each top-level entry whose access is above NA, the read-write integer,
// boolean, float, string and enumeration nodes of that category in order.
// The first failure ends the walk and is returned (a category of more than
// kSettingsCategoryMaxNodes nodes or a text over kSettingsTextMax characters:
// GC_ERR_BUFFER_TOO_SMALL); the file then still ends with '}' after the
// members written so far. Empty path: GC_ERR_INVALID_PARAMETER; file not
// writable: GC_ERR_IO. Values that could not be loaded back (a string with
// a double quote, a float that is not finite) are written as they are, with
// a warning.
int save_settings(feature_access &features, const std::string &path);

// Applies the settings file at `path`: each member after "saver" becomes a
// record that is applied at once (read first, written only when different,
// read back); if any record did not end holding the file's value, every
// record is applied once more in file order, for features that depend on
// others. At most kSettingsRecordsPerLoad records; a command member
// ("lumora_command" / "tavimoor_command") executes the command; a
// "ConnectionConfig" member is never written. A feature that cannot be
// applied is noted in its record's result and does not fail the load.
// `records` (may be null) receives the records on success, empty otherwise.
// Empty path: GC_ERR_INVALID_PARAMETER; file not readable: GC_ERR_IO;
// not a settings file (first member, syntax, a member cut off by the end of
// the file or longer than kSettingsChunkSize): KV_ERR_NOT_CARD_FILE; out of
// memory: GC_ERR_OUT_OF_MEMORY. Anything after the closing brace is ignored.
int load_settings(feature_access &features, const std::string &path,
                  std::vector<settings_record> *records);

// Reads one member (`"key":value` and the ',' or '}' after it) from the
// start of [data, data + size), skipping anything before its first double
// quote. Answers the bytes consumed and fills `out` (key, type, value;
// result 0), 0 when the range ends inside the member (`out` untouched), -1 on
// a syntax error. Values: a text in double quotes without escapes (at most
// kSettingsTextMax characters, no NUL), or a number of digits with at most
// one decimal point and an optional leading '-': with a point a float read
// as atof does (beyond the range of a double: infinite or zero), else an
// integer converted as a 32-bit signed integer (wrapping like atoi).
// Blanks (space, tab, CR, LF) may stand around the colon and before the
// ',' or '}'.
int parse_settings_member(const char *data, size_t size, settings_record &out);

}  // namespace pelorin::features
