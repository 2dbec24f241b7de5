#include "nodemap/port_device.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>

namespace pelorin::nodemap {

namespace {

struct PortDevice {
    ArvDevice parent;
    IPort *port;
    ArvGc *genicam;
    char *xml;
    size_t xml_size;
};

struct PortDeviceClass {
    ArvDeviceClass parent_class;
};

PortDevice *as_port_device(ArvDevice *device) {
    return reinterpret_cast<PortDevice *>(device);
}

GQuark port_error_quark() { return g_quark_from_static_string("pelorin-node-map-port"); }

// Runs one port access; C++ exceptions stop here and become a GError, since
// they must not unwind through the Aravis frames below us.
template <typename Access>
gboolean port_access(ArvDevice *device, guint64 address, guint32 size, GError **error,
                     Access access) {
    IPort *port = as_port_device(device)->port;
    if (port == nullptr) {
        g_set_error(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_NOT_CONNECTED,
                    "no port connected");
        return FALSE;
    }
    if (address > static_cast<guint64>(std::numeric_limits<int64_t>::max())) {
        g_set_error(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_PROTOCOL_ERROR_INVALID_ADDRESS,
                    "address 0x%" PRIx64 " out of the port's range",
                    static_cast<uint64_t>(address));
        return FALSE;
    }
    try {
        access(port, static_cast<int64_t>(address), static_cast<int64_t>(size));
        return TRUE;
    } catch (const std::exception &failure) {
        g_set_error(error, port_error_quark(), 0, "port access at 0x%" PRIx64 " (%u bytes): %s",
                    static_cast<uint64_t>(address), static_cast<unsigned>(size), failure.what());
    } catch (...) {
        g_set_error(error, port_error_quark(), 0,
                    "port access at 0x%" PRIx64 " (%u bytes): unknown failure",
                    static_cast<uint64_t>(address), static_cast<unsigned>(size));
    }
    return FALSE;
}

gboolean read_memory(ArvDevice *device, guint64 address, guint32 size, void *buffer,
                     GError **error) {
    return port_access(device, address, size, error,
                       [buffer](IPort *port, int64_t at, int64_t length) {
                           port->Read(buffer, at, length);
                       });
}

gboolean write_memory(ArvDevice *device, guint64 address, guint32 size, void *buffer,
                      GError **error) {
    return port_access(device, address, size, error,
                       [buffer](IPort *port, int64_t at, int64_t length) {
                           port->Write(buffer, at, length);
                       });
}

// Register accesses: 4 bytes, the value being the big-endian reading of the
// port's bytes. The node map does not use them in this Aravis (its Port
// nodes use the memory calls whatever the schema); earlier releases sent the
// 4-byte accesses of schema 1.0 descriptions here and wrote the value back
// as big endian, which this reading keeps byte for byte, so that the node's
// own Endianess decides as it does for every other access.
gboolean read_register(ArvDevice *device, guint64 address, guint32 *value, GError **error) {
    uint8_t bytes[4] = {};
    if (!read_memory(device, address, sizeof bytes, bytes, error)) return FALSE;
    *value = static_cast<guint32>(bytes[0]) << 24 | static_cast<guint32>(bytes[1]) << 16 |
             static_cast<guint32>(bytes[2]) << 8 | static_cast<guint32>(bytes[3]);
    return TRUE;
}

gboolean write_register(ArvDevice *device, guint64 address, guint32 value, GError **error) {
    uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                        static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    return write_memory(device, address, sizeof bytes, bytes, error);
}

ArvGc *get_genicam(ArvDevice *device) { return as_port_device(device)->genicam; }

const char *get_genicam_xml(ArvDevice *device, size_t *size) {
    *size = as_port_device(device)->xml_size;
    return as_port_device(device)->xml;
}

ArvStream *create_stream(ArvDevice *, ArvStreamCallback, void *, GDestroyNotify,
                         GError **error) {
    g_set_error(error, ARV_DEVICE_ERROR, ARV_DEVICE_ERROR_NO_STREAM_CHANNEL,
                "a node-map port has no stream");
    return nullptr;
}

void finalize(GObject *object) {
    g_free(reinterpret_cast<PortDevice *>(object)->xml);
    // The parent class is looked up here rather than kept from class_init:
    // a reloaded library finds its type already registered and class_init
    // does not run again.
    G_OBJECT_CLASS(g_type_class_peek(ARV_TYPE_DEVICE))->finalize(object);
}

void class_init(gpointer klass, gpointer) {
    G_OBJECT_CLASS(klass)->finalize = finalize;
    ArvDeviceClass *device_class = ARV_DEVICE_CLASS(klass);
    device_class->create_stream = create_stream;
    device_class->get_genicam_xml = get_genicam_xml;
    device_class->get_genicam = get_genicam;
    device_class->read_memory = read_memory;
    device_class->write_memory = write_memory;
    device_class->read_register = read_register;
    device_class->write_register = write_register;
}

void instance_init(GTypeInstance *instance, gpointer) {
    PortDevice *device = reinterpret_cast<PortDevice *>(instance);
    device->port = nullptr;
    device->genicam = nullptr;
    device->xml = nullptr;
    device->xml_size = 0;
}

// The type name carries the address of this copy's code: two copies of the
// producer in one process (or a reload at another address) each register
// their own type, and a reload at the same address finds its type intact.
GType port_device_type() {
    static gsize type = 0;
    if (g_once_init_enter(&type)) {
        char name[64];
        std::snprintf(name, sizeof name, "PelorinPortDevice%" PRIxPTR,
                      reinterpret_cast<uintptr_t>(&class_init));
        GType registered = g_type_from_name(name);
        if (registered == 0)
            registered = g_type_register_static_simple(
                ARV_TYPE_DEVICE, g_intern_string(name), sizeof(PortDeviceClass), class_init,
                sizeof(PortDevice), instance_init, static_cast<GTypeFlags>(0));
        g_once_init_leave(&type, registered);
    }
    return static_cast<GType>(type);
}

}  // namespace

ArvDevice *port_device_new() {
    return ARV_DEVICE(g_object_new(port_device_type(), nullptr));
}

void port_device_set_port(ArvDevice *device, IPort *port) { as_port_device(device)->port = port; }

IPort *port_device_port(ArvDevice *device) { return as_port_device(device)->port; }

void port_device_set_genicam(ArvDevice *device, ArvGc *genicam, const char *xml, size_t size) {
    PortDevice *self = as_port_device(device);
    self->genicam = genicam;
    g_free(self->xml);
    self->xml = static_cast<char *>(g_malloc(size + 1));
    if (size > 0) std::memcpy(self->xml, xml, size);
    self->xml[size] = '\0';
    self->xml_size = size;
}

}  // namespace pelorin::nodemap
