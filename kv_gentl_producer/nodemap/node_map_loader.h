// Builds a module's node map from the URL its port publishes: the module's
// description file, read through the module's own register space ("local:")
// or from a file ("file:"), loaded (zipped or plain XML) and connected to
// the module's port under the port's name.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "nodemap/ckv_iport.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

namespace pelorin::nodemap {

// The port-side operations of one module at one level, called directly
// (not through the exports).
struct module_port_ops {
    std::function<GC_ERROR(uint32_t *)> url_count;
    std::function<GC_ERROR(uint32_t, URL_INFO_CMD, INFO_DATATYPE *, void *, size_t *)> url_info;
    std::function<GC_ERROR(uint64_t, void *, size_t *)> read;
    std::function<GC_ERROR(PORT_INFO_CMD, INFO_DATATYPE *, void *, size_t *)> port_info;
};

// The port-side operations of `module`, a module class with the port
// methods GetNumPortURLs, GetPortURLInfo, ReadPort and GetPortInfo.
template <typename Module>
module_port_ops port_ops_of(Module &module) {
    module_port_ops ops;
    ops.url_count = [&module](uint32_t *count) { return module.GetNumPortURLs(count); };
    ops.url_info = [&module](uint32_t index, URL_INFO_CMD command, INFO_DATATYPE *type,
                             void *buffer, size_t *size) {
        return module.GetPortURLInfo(index, command, type, buffer, size);
    };
    ops.read = [&module](uint64_t address, void *buffer, size_t *size) {
        return module.ReadPort(address, buffer, size);
    };
    ops.port_info = [&module](PORT_INFO_CMD command, INFO_DATATYPE *type, void *buffer,
                              size_t *size) { return module.GetPortInfo(command, type, buffer, size); };
    return ops;
}

// The same for a module that serves several levels (the device: its own
// port, the camera and the data stream), whose port methods take the level
// first.
template <typename Module>
module_port_ops port_ops_of(Module &module, int level) {
    module_port_ops ops;
    ops.url_count = [&module, level](uint32_t *count) { return module.GetNumPortURLs(level, count); };
    ops.url_info = [&module, level](uint32_t index, URL_INFO_CMD command, INFO_DATATYPE *type,
                                    void *buffer, size_t *size) {
        return module.GetPortURLInfo(level, index, command, type, buffer, size);
    };
    ops.read = [&module, level](uint64_t address, void *buffer, size_t *size) {
        return module.ReadPort(level, address, buffer, size);
    };
    ops.port_info = [&module, level](PORT_INFO_CMD command, INFO_DATATYPE *type, void *buffer,
                                     size_t *size) {
        return module.GetPortInfo(level, command, type, buffer, size);
    };
    return ops;
}

// The parts of a "local:" URL: file name, address and length.
struct local_url {
    std::string file_name;
    uint64_t address = 0;
    uint64_t length = 0;
};

// Parses the text after "local:" (and an optional "///"); false when a field
// is missing or does not begin with a hexadecimal digit. What follows the
// leading digits of a field (a query part) is ignored.
bool parse_local_url(const std::string &rest, local_url &url);

// The node map of the module, or null on any failure. `xml_file_name`
// receives the description's file name (or path). With `log_failures` each
// failing step is logged at error level.
std::shared_ptr<CNodeMapRef> LoadNodeMapFromPort(const module_port_ops &ops, IPort *port,
                                                 std::string *xml_file_name, bool log_failures);

}  // namespace pelorin::nodemap
