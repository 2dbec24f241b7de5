// A node map built the way an outside consumer builds one: the module's
// port URL, a read of the zipped description through GCReadPort, and a port
// that reads and writes through GCReadPort / GCWritePort.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

namespace pelorin::testing_support {

using pelorin::nodemap::node_kind;

// A consumer's port over the exported port calls of one module handle.
class consumer_port : public IPort {
public:
    explicit consumer_port(void *handle) : handle_(handle) {}
    void Read(void *buffer, int64_t address, int64_t length) override {
        size_t size = static_cast<size_t>(length);
        if (GCReadPort(handle_, static_cast<uint64_t>(address), buffer, &size) != GC_ERR_SUCCESS ||
            size != static_cast<size_t>(length))
            throw std::runtime_error("read failed");
        ++reads;
    }
    void Write(const void *buffer, int64_t address, int64_t length) override {
        size_t size = static_cast<size_t>(length);
        if (GCWritePort(handle_, static_cast<uint64_t>(address), buffer, &size) != GC_ERR_SUCCESS)
            throw std::runtime_error("write failed");
    }
    EAccessMode GetAccessMode() const override { return RW; }
    int reads = 0;

private:
    void *handle_;
};

// Loads the node map of the module behind `handle` from its first URL.
inline std::unique_ptr<CNodeMapRef> load_from_url(void *handle, consumer_port &port,
                                           const char *port_name) {
    char url[512] = {};
    size_t size = sizeof url;
    EXPECT_EQ(GCGetPortURL(handle, url, &size), GC_ERR_SUCCESS);
    char file[256] = {};
    unsigned long long address = 0, length = 0;
    EXPECT_EQ(std::sscanf(url, "local:%255[^;];%llx;%llx", file, &address, &length), 3) << url;
    std::vector<uint8_t> zip(length);
    size = zip.size();
    EXPECT_EQ(GCReadPort(handle, address, zip.data(), &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, length);
    auto map = std::make_unique<CNodeMapRef>("Device");
    map->_LoadXMLFromZIPData(zip.data(), zip.size());
    EXPECT_TRUE(map->_Connect(&port, port_name));
    return map;
}

// Reads the value of every readable feature; the number read.
inline int read_every_feature(CNodeMapRef &map) {
    int read = 0;
    for (const std::string &name : map.node_names()) {
        const EAccessMode access = map.access_mode(name);
        if (access != RO && access != RW) continue;
        SCOPED_TRACE(name);
        switch (map.kind(name)) {
        case node_kind::integer: map.get_integer(name); break;
        case node_kind::float_number: map.get_float(name); break;
        case node_kind::boolean: map.get_boolean(name); break;
        case node_kind::string: map.get_string(name); break;
        case node_kind::enumeration: map.get_enum(name); break;
        case node_kind::register_node: map.get_register(name); break;
        default: continue;
        }
        ++read;
    }
    return read;
}

}  // namespace pelorin::testing_support
