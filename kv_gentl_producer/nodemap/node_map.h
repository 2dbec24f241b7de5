// A GenICam node map: the register description of one module (or of the
// remote camera) loaded from XML, plain or zipped, and connected to the port
// whose registers it describes. Features are reached by node name; values
// are read from and written to the port on every access.
//
// The engine underneath is Aravis; nothing of it shows here. Every failure is
// thrown as genapi_error.
//
// Threads: all calls may come from any thread; one lock per node map
// serialises them, port calls included. The port must not call back into the
// node map that is reading or writing through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nodemap/genapi_error.h"
#include "nodemap/iport.h"

namespace pelorin::nodemap {

// The interface a node offers. An IntReg is an integer (its bytes are still
// reachable through the register calls); a Register node is a register_node.
enum class node_kind {
    integer,
    float_number,
    boolean,
    command,
    string,
    register_node,
    enumeration,
    enum_entry,
    category,
    port,
    other
};

// Who a feature is meant for; a node without a Visibility is for beginners.
enum class node_visibility { beginner, expert, guru, invisible };

// How a number wants to be shown; pure_number when the node says nothing.
enum class number_representation {
    linear,
    logarithmic,
    boolean,
    pure_number,
    hex_number,
    ipv4_address,
    mac_address
};

// One entry of an enumeration.
struct enum_entry_info {
    std::string name;
    std::string display_name;  // the name when the entry has none
    int64_t value = 0;
    EAccessMode access = NI;  // RO, or NI / NA when not implemented / available
};

}  // namespace pelorin::nodemap

class CNodeMapRef {
public:
    // `device_name` names the map in messages ("Device", "TLSystem", ...).
    explicit CNodeMapRef(const std::string &device_name = "Device");
    ~CNodeMapRef();

    CNodeMapRef(const CNodeMapRef &) = delete;
    CNodeMapRef &operator=(const CNodeMapRef &) = delete;

    const std::string &device_name() const { return device_name_; }
    bool loaded() const;

    // Loading: once per map (a second load throws). Each throws when the data
    // cannot be read, is not a zip archive (the ZIP forms), holds no .xml
    // entry, or is not a register description Aravis can build.
    // The ZIP forms take the first entry whose name ends in ".xml".
    void _LoadXMLFromZIPData(const void *data, size_t size);
    void _LoadXMLFromZIPFile(const std::string &path);
    void _LoadXMLFromString(const std::string &xml);
    void _LoadXMLFromFile(const std::string &path);

    // Sends the register accesses of the map to `port`. False when nothing is
    // loaded, `port` is null, `port_name` names no Port node, or another port
    // object is already connected under another name (a map has one port).
    // Connecting the same name again replaces the port object.
    // The port is not owned: the caller keeps it alive as long as the map may
    // be used (modules hold both through shared_ptr, the port outliving the
    // map).
    bool _Connect(IPort *port, const std::string &port_name);

    // Every node that the calls below accept by name. Enumeration entries are
    // named as in GenApi: "EnumEntry_<enumeration>_<entry>".
    std::vector<std::string> node_names() const;
    bool has_node(const std::string &name) const;
    pelorin::nodemap::node_kind kind(const std::string &name) const;

    // NI when not implemented, NA when not available, else the node's access
    // (a locked RW node is RO; an enumeration entry is RO; a Port node has
    // its connected port's access, NA when none is connected).
    EAccessMode access_mode(const std::string &name) const;
    pelorin::nodemap::node_visibility visibility(const std::string &name) const;
    // "" when the node has none (the display name falls back to the name).
    std::string display_name(const std::string &name) const;
    std::string tooltip(const std::string &name) const;
    std::string description(const std::string &name) const;
    // Integer and float nodes.
    pelorin::nodemap::number_representation representation(const std::string &name) const;

    // Integer nodes (not enumerations or booleans).
    int64_t get_integer(const std::string &name) const;
    void set_integer(const std::string &name, int64_t value);
    int64_t integer_min(const std::string &name) const;
    int64_t integer_max(const std::string &name) const;
    int64_t integer_inc(const std::string &name) const;

    // Float nodes.
    double get_float(const std::string &name) const;
    void set_float(const std::string &name, double value);
    double float_min(const std::string &name) const;
    double float_max(const std::string &name) const;
    // Empty when the node declares no increment.
    std::optional<double> float_inc(const std::string &name) const;
    std::string float_unit(const std::string &name) const;

    bool get_boolean(const std::string &name) const;
    void set_boolean(const std::string &name, bool value);

    // String nodes (not enumerations).
    std::string get_string(const std::string &name) const;
    void set_string(const std::string &name, const std::string &value);
    int64_t string_max_length(const std::string &name) const;

    void execute(const std::string &name);
    // True once the command's register no longer reads back the command
    // value (and always for a command whose register cannot be read).
    bool is_done(const std::string &name) const;

    // Register bytes as they lie in the port (any node with a register,
    // IntReg and StringReg included). set_register takes exactly
    // register_length bytes.
    std::vector<uint8_t> get_register(const std::string &name) const;
    void set_register(const std::string &name, const void *data, size_t size);
    int64_t register_length(const std::string &name) const;

    // Enumerations. The setters refuse entries that are not implemented or
    // not available.
    std::vector<pelorin::nodemap::enum_entry_info> enum_entries(const std::string &name) const;
    std::string get_enum(const std::string &name) const;
    int64_t get_enum_value(const std::string &name) const;
    void set_enum(const std::string &name, const std::string &entry);
    void set_enum_value(const std::string &name, int64_t value);
    // An integer feature's value, or an enumeration's entry value (such as
    // PixelFormat); false, and `value` untouched, when the node is missing or
    // cannot be read. Never throws.
    bool read_integer(const std::string &name, int64_t &value) const noexcept;

    // The feature names a category lists, in order.
    std::vector<std::string> category_features(const std::string &name) const;

    // Any node with a register (Register, IntReg, MaskedIntReg, FloatReg,
    // StringReg, ...), and the address its bytes lie at in the port now (a
    // register with an index node moves with it).
    bool is_register(const std::string &name) const;
    uint64_t register_address(const std::string &name) const;

    // The description text the map was loaded from (unpacked when it came
    // zipped); "" before loading. Valid while the map lives.
    const char *description_text() const;

    // Node-change callbacks. A node's handle is an opaque pointer, the same
    // for the node as long as the map lives. After a write through this map
    // (a setter, execute, set_register) the callbacks of every node the write
    // may have changed are called with that node's handle: the written node,
    // the nodes its value is written through, the features it selects, and
    // every node whose value, range, access or address is computed from one
    // of those. They run on the writing thread after the map's lock is
    // released, so a callback may use the map. A callback registered twice on
    // one node is kept once.
    using node_callback = void (*)(void *node);
    void *node_handle(const std::string &name) const;
    void register_callback(const std::string &name, node_callback callback);
    // Calls the callbacks a write of `name` would call, for writes that went
    // to the port around the map (the register bytes of a node).
    void node_changed(const std::string &name);

    // Drops whatever the map remembers of register values, so the next reads
    // go to the port (callers that change registers behind the map's back say
    // so here).
    void invalidate();

private:
    struct Impl;

    const std::string device_name_;
    std::unique_ptr<Impl> impl_;
};
