// pelorin-info: loads a GenTL producer (.cti) the way any consumer does and
// prints its transport-layer information, its interfaces (cards) and the
// devices (camera slots) of each.
//
//   pelorin-info [PATH_TO_CTI]
//
// Without a path the first pelorin_cxp.cti found in GENICAM_GENTL64_PATH is used.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "gentl_loader.h"

namespace {

using Producer = pelorin_tools::GentlLibrary;

bool load(const std::string &path, Producer &p) {
    std::string error;
    if (p.load(path, &error)) return true;
    std::fprintf(stderr, "pelorin-info: %s\n", error.c_str());
    return false;
}

// A string info answer, or "(error N)".
template <typename Query>
std::string info_text(Query query) {
    char text[1024] = {};
    size_t size = sizeof text;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    const GC_ERROR result = query(&type, text, &size);
    if (result != GC_ERR_SUCCESS) return "(error " + std::to_string(result) + ")";
    return text;
}

// Lists the devices (camera slots) of one open interface; the failures.
int print_devices(const Producer &p, IF_HANDLE iface) {
    uint32_t count = 0;
    if (p.IFUpdateDeviceList(iface, nullptr, 1000) != GC_ERR_SUCCESS ||
        p.IFGetNumDevices(iface, &count) != GC_ERR_SUCCESS) {
        std::printf("    devices: cannot be listed\n");
        return 1;
    }
    std::printf("    %u device slot(s)\n", count);
    for (uint32_t i = 0; i < count; ++i) {
        char id[256] = {};
        size_t size = sizeof id;
        if (p.IFGetDeviceID(iface, i, id, &size) != GC_ERR_SUCCESS) return 1;
        int32_t status = 0;
        size = sizeof status;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        p.IFGetDeviceInfo(iface, id, DEVICE_INFO_ACCESS_STATUS, &type, &status, &size);
        const std::string vendor = info_text([&](INFO_DATATYPE *t, void *b, size_t *s) {
            return p.IFGetDeviceInfo(iface, id, DEVICE_INFO_VENDOR, t, b, s);
        });
        const std::string model = info_text([&](INFO_DATATYPE *t, void *b, size_t *s) {
            return p.IFGetDeviceInfo(iface, id, DEVICE_INFO_MODEL, t, b, s);
        });
        const bool detected = !vendor.empty() || !model.empty();
        std::printf("    %-8s %s  (access status %d)\n", id,
                    detected ? (vendor + " " + model).c_str() : "no camera detected", status);
    }
    return 0;
}

// Lists the interfaces (cards) of the system with their devices; the failures.
int print_interfaces(const Producer &p, TL_HANDLE system) {
    uint32_t count = 0;
    if (p.TLUpdateInterfaceList(system, nullptr, 1000) != GC_ERR_SUCCESS ||
        p.TLGetNumInterfaces(system, &count) != GC_ERR_SUCCESS) {
        std::printf("Interfaces: cannot be listed\n");
        return 1;
    }
    std::printf("Interfaces: %u\n", count);
    int failures = 0;
    for (uint32_t i = 0; i < count; ++i) {
        char id[256] = {};
        size_t size = sizeof id;
        if (p.TLGetInterfaceID(system, i, id, &size) != GC_ERR_SUCCESS) return failures + 1;
        IF_HANDLE iface = nullptr;
        if (p.TLOpenInterface(system, id, &iface) != GC_ERR_SUCCESS) {
            std::printf("  %s: cannot be opened\n", id);
            ++failures;
            continue;
        }
        std::printf("  %s\n", info_text([&](INFO_DATATYPE *t, void *b, size_t *s) {
                        return p.IFGetInfo(iface, INTERFACE_INFO_DISPLAYNAME, t, b, s);
                    }).c_str());
        failures += print_devices(p, iface);
        p.IFClose(iface);
    }
    return failures;
}

std::string last_error_text(const Producer &p) {
    GC_ERROR code = 0;
    char text[512] = {};
    size_t size = sizeof text;
    if (p.GCGetLastError(&code, text, &size) != GC_ERR_SUCCESS) return "(no error text)";
    return std::to_string(code) + " " + text;
}

struct Item {
    TL_INFO_CMD command;
    const char *label;
};

constexpr Item kItems[] = {
    {TL_INFO_ID, "ID"},
    {TL_INFO_VENDOR, "Vendor"},
    {TL_INFO_MODEL, "Model"},
    {TL_INFO_VERSION, "Version"},
    {TL_INFO_TLTYPE, "TL type"},
    {TL_INFO_NAME, "File name"},
    {TL_INFO_PATHNAME, "Path"},
    {TL_INFO_DISPLAYNAME, "Display name"},
    {TL_INFO_CHAR_ENCODING, "Char encoding"},
    {TL_INFO_GENTL_VER_MAJOR, "GenTL major"},
    {TL_INFO_GENTL_VER_MINOR, "GenTL minor"},
};

void print_item(const Item &item, INFO_DATATYPE type, const unsigned char *value) {
    std::printf("  %-14s ", item.label);
    switch (type) {
    case INFO_DATATYPE_STRING: std::printf("%s\n", reinterpret_cast<const char *>(value)); break;
    case INFO_DATATYPE_INT32: {
        int32_t number;
        std::memcpy(&number, value, sizeof number);
        std::printf("%d\n", number);
        break;
    }
    case INFO_DATATYPE_UINT32: {
        uint32_t number;
        std::memcpy(&number, value, sizeof number);
        std::printf("%u\n", number);
        break;
    }
    default: std::printf("(type %d)\n", type); break;
    }
}

template <typename Query>
int print_items(const char *title, Query query) {
    std::printf("%s\n", title);
    int failures = 0;
    for (const Item &item : kItems) {
        unsigned char value[4096] = {};
        size_t size = sizeof value;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        const GC_ERROR result = query(item.command, &type, value, &size);
        if (result != GC_ERR_SUCCESS) {
            std::printf("  %-14s error %d\n", item.label, result);
            ++failures;
            continue;
        }
        print_item(item, type, value);
    }
    return failures;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::printf("usage: pelorin-info [PATH_TO_CTI]\n"
                    "Loads the producer and prints its transport-layer information.\n"
                    "Without a path, pelorin_cxp.cti is searched in GENICAM_GENTL64_PATH.\n");
        return 0;
    }
    const std::string path = argc > 1 ? argv[1] : pelorin_tools::default_producer_path();
    if (path.empty()) {
        std::fprintf(stderr, "pelorin-info: no producer found: set GENICAM_GENTL64_PATH or name the .cti\n");
        return 2;
    }

    Producer p;
    if (!load(path, p)) return 2;
    std::printf("Producer: %s\n", path.c_str());

    const GC_ERROR init = p.GCInitLib();
    if (init != GC_ERR_SUCCESS) {
        std::fprintf(stderr, "pelorin-info: GCInitLib failed: %d\n", init);
        return 3;
    }
    int failures = print_items("Library (GCGetInfo):", [&](TL_INFO_CMD c, INFO_DATATYPE *t, void *b, size_t *s) {
        return p.GCGetInfo(c, t, b, s);
    });

    TL_HANDLE system = nullptr;
    const GC_ERROR opened = p.TLOpen(&system);
    if (opened != GC_ERR_SUCCESS) {
        std::fprintf(stderr, "pelorin-info: TLOpen failed: %s\n", last_error_text(p).c_str());
        p.GCCloseLib();
        return 4;
    }
    failures += print_items("System (TLGetInfo):", [&](TL_INFO_CMD c, INFO_DATATYPE *t, void *b, size_t *s) {
        return p.TLGetInfo(system, c, t, b, s);
    });
    failures += print_interfaces(p, system);
    p.TLClose(system);
    p.GCCloseLib();
    if (failures != 0) {
        std::fprintf(stderr, "pelorin-info: %d item(s) could not be read\n", failures);
        return 5;
    }
    return 0;
}
