// Feature access by name: the operations behind the kv_ feature exports, on
// the node map of one module (system, interface, device, remote device or
// data stream) and, for register bytes and the description file, on the
// module's own port.
//
// Every operation answers 0 or a code and never throws. They check in one
// order and stop at the first failure:
//   1. a null name or a null output that is needed,
//   2. no node map loaded,
//   3. the name not in the node map (KV_ERR_FEATURE_NOT_FOUND),
//   4. getters need a readable node, setters and commands a writable one
//      (KV_ERR_NOT_READABLE, KV_ERR_NOT_WRITABLE),
//   5. the node's kind (KV_ERR_NOT_COMMAND ... KV_ERR_NOT_FLOAT; a register
//      operation on a node without a register KV_ERR_NODE_NOT_FOUND),
//   6. the operation; any failure of the node map in it KV_ERR_EXCEPTION.
// The codes of steps 1 to 3 differ by operation; each declaration says them.
//
// Choices of this producer:
//   - kv_get_node_state's first byte says whether the node is available now
//     (its access is neither NI nor NA).
//   - Register bytes as text are hexadecimal digit pairs in port order
//     ("0A1B2C3D"); reading renders them so, in capitals, and writing takes
//     exactly the register's length, blanks between the pairs allowed.
//   - Booleans read as text "true" / "false"; integers as their
//     representation asks (hexadecimal "0x..", IPv4 "a.b.c.d", MAC
//     "XX:XX:XX:XX:XX:XX", else decimal); floats in the shortest form that
//     reads back the same. A text that does not parse: KV_ERR_EXCEPTION.
//   - kv_get_nodes answers any category of the map, each list built once.
//
// Threads: the callers serialise the calls (the exports hold the API lock
// and the port lock); the lists handed out stay valid while the node map
// lives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "features/settings_persistence.h"
#include "nodemap/node_map.h"
#include "pelorin/kv_api.h"

namespace pelorin::features {

static_assert(sizeof(kv_feature_entry) == 16, "feature entry layout");
static_assert(sizeof(kv_node_entry) == 13, "node entry layout");
static_assert(sizeof(kv_node_info) == 44, "node info layout");
static_assert(sizeof(kv_enum_entry) == 20, "enumeration entry layout");

// The port of the module whose features are used, as GCReadPort,
// GCWritePort and GCGetPortURLInfo(URL_INFO_URL) answer on its handle.
class module_port {
   public:
    virtual ~module_port() = default;
    virtual GC_ERROR read(uint64_t address, void *buffer, size_t *size) = 0;
    virtual GC_ERROR write(uint64_t address, const void *buffer, size_t *size) = 0;
    // A null buffer asks for the size, terminating zero included.
    virtual GC_ERROR url(uint32_t index, char *buffer, size_t *size) = 0;
};

// One module as the operations see it.
struct feature_target {
    std::shared_ptr<CNodeMapRef> map;        // null or not loaded: no node map
    module_port *port = nullptr;             // null: register and file calls fail
    std::function<std::string()> file_name;  // of the description; unset: ""
};

// The interface type (KV_INTERFACE_TYPE numbering, kInterfaceEnumEntry,
// kInterfacePort, kInterfaceValue) of a node kind.
uint32_t interface_type_of(pelorin::nodemap::node_kind kind);

// The visible nodes under `category`, depth first, each sub-category before
// its contents; a category met twice is listed but entered once. Throws as
// the node map does.
std::vector<std::string> visible_nodes_under(const CNodeMapRef &map, const std::string &category);

class feature_calls {
   public:
    explicit feature_calls(feature_target target) : t_(std::move(target)) {}

    // Step 1 GC_ERR_ERROR, step 2 GC_ERR_ERROR, step 3 KV_ERR_FEATURE_NOT_FOUND.
    GC_ERROR call_command(const char *name);
    GC_ERROR set_string(const char *name, const char *text);
    // Too small a buffer: GC_ERR_BUFFER_TOO_SMALL and the size needed.
    GC_ERROR get_string(const char *name, char *buffer, uint64_t *size);
    GC_ERROR set_integer(const char *name, int64_t value);
    GC_ERROR get_integer(const char *name, int64_t *value);
    GC_ERROR set_float(const char *name, double value);
    GC_ERROR get_float(const char *name, double *value);
    // Minimum, maximum and increment may be null.
    GC_ERROR get_integer_info(const char *name, int64_t *value, int64_t *minimum, int64_t *maximum,
                              int64_t *increment);
    GC_ERROR get_float_info(const char *name, double *value, double *minimum, double *maximum,
                            double *increment);
    GC_ERROR get_enum_info(const char *name, std::string *current,
                           std::vector<std::string> *entries);
    GC_ERROR get_xml_info(kv_xml_info *info);
    // Null category or count GC_ERR_ERROR; not a category KV_ERR_FEATURE_NOT_FOUND.
    GC_ERROR get_nodes(const char *category, kv_node_entry **entries, uint64_t *count);
    // Name not found: both bytes 0 and GC_ERR_ERROR.
    GC_ERROR get_node_state(const char *name, uint8_t *state);

    // Steps 1 and 2 GC_ERR_NOT_INITIALIZED. The bytes go through the port.
    GC_ERROR set_register(const char *name, const void *buffer, uint64_t size);
    GC_ERROR get_register(const char *name, void *buffer, uint64_t *size);

    // Step 1 GC_ERR_INVALID_PARAMETER; step 2 GC_ERR_ERROR (get_features:
    // GC_ERR_NOT_AVAILABLE); step 3 GC_ERR_ERROR (get_enum_array:
    // KV_ERR_FEATURE_NOT_FOUND).
    GC_ERROR get_access(const char *name, uint32_t *access);
    GC_ERROR get_features(kv_feature_entry **entries, uint64_t *count);
    GC_ERROR node_register(const char *name, kv_node_callback callback, void **node);
    GC_ERROR get_node_info(const char *name, kv_node_info *info);
    GC_ERROR get_enum_array(const char *name, kv_enum_entry *current, kv_enum_entry **entries,
                            uint32_t *count);
    // The description file through the port's URL; no node map needed.
    GC_ERROR get_xml(uint32_t url_index, void *buffer, uint64_t *size);

    // For settings files: the interface type of a node (codes as get_access).
    GC_ERROR get_interface_type(const char *name, uint32_t *type);

   private:
    feature_target t_;
};

// feature_access over the by-name operations, for settings files: the
// feature list, category lists, access and values go through feature_calls,
// so a settings file sees the same features and codes as the exports. A
// boolean is set through its text ("0" / "1").
class feature_calls_access final : public feature_access {
   public:
    explicit feature_calls_access(feature_calls &calls) : calls_(calls) {}

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
    feature_calls &calls_;
};

// Settings files of the module (see settings_persistence.h) through its
// by-name operations. Null path GC_ERR_INVALID_PARAMETER; a path that is no
// text GC_ERR_INVALID_PARAMETER; no node map GC_ERR_ERROR.
GC_ERROR save_settings_file(feature_calls &calls, const wchar_t *path);
// The records are kept in the record buffer of `handle` when both `records`
// and `count` are given (set to the buffer and 0 at once, to the number read
// on success); otherwise the handle keeps no buffer.
GC_ERROR load_settings_file(feature_calls &calls, const void *handle, const wchar_t *path,
                            kv_settings_record **records, uint32_t *count);

// The description file name that the port's first URL names ("local:" or
// "file:"), "" when it names none.
std::string description_file_name(module_port &port);

// Wide path (UTF-32 wchar_t) to UTF-8; false for a code point that is no
// character (surrogate, beyond U+10FFFF) or a NUL inside.
bool wide_path_to_utf8(const wchar_t *path, std::string &out);

}  // namespace pelorin::features
