// libFuzzer target for the module ports: GCReadPort and GCWritePort with any
// address and size on the five ports a consumer holds. The library is
// initialised once against the built-in emulated card; the system, its first
// interface, device0 with its camera (remote device) port and its data
// stream stay open for the whole run. Each input is a list of operations:
//
//   byte 0   bits 0-2 port (mod 5: system, interface, device, camera, stream)
//            bit 3    write (else read)
//            bits 4-5 buffer: 0, 1 a buffer of the size; 2 no buffer; 3 no
//                     size pointer
//            bits 6-7 address: 0 a register of the port's description file
//                     (next byte picks it); 1 the same plus a signed byte;
//                     2 four bytes (card registers, camera memory); 3 eight
//                     bytes
//   size     one byte below 0x80: that size; 0x80..0xDF with the next byte:
//            128 up to 16 KiB; 0xE0 and above: a hostile size (up to
//            SIZE_MAX), passed with no buffer only
//   data     for writes, the size's bytes (zeros past the input's end)
//
// The registers of each port are taken at start-up from the port's own
// description file, read through the port as a consumer reads it.
// Rules, each checked on every call:
//   - the result is 0, a GenTL code (-1001 .. -1023), one of the producer's
//     own (-10001 .. -10014) or one of the results a port is documented to
//     hand on as they are: -1 and -2 of a card register access (interface
//     and device ports), -1 of a description file that cannot be read
//     (device and stream ports) and the link layer's -1 .. -4 and -7
//     (camera port);
//   - a call without a buffer or without a size pointer does not succeed;
//   - nothing is written outside the buffer: 64 guard bytes on each side
//     are poisoned for AddressSanitizer and checked afterwards;
//   - a successful read reports at most the size it was given, and a write
//     leaves the caller's bytes as they were.
//
// Camera writes that touch ConnectionReset (0x4000) or ConnectionConfig
// (0x4014) are left out. A ConnectionConfig write of its own reconnects the
// camera (about 0.4 s); one that reaches it inside a longer write changes
// the camera's links behind the producer's back, and a reset sends the
// camera back to discovery: either way every later camera access of the
// run waits for the link's time-out (about 0.6 s each, 7 s after a reset).
// Should the camera stop answering anyway (a control packet written into a
// link's transmit FIFO, say), the device is opened again before the next
// input. List updates, user sets and the other card registers take a few
// milliseconds and are fuzzed.
// Any broken rule aborts with a message; the sanitizers catch the rest.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sanitizer/asan_interface.h>

#include "diag/log.h"
#include "emulator/pcie_bus.h"
#include "nodemap/genapi_error.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

#include "fuzz_rules.h"

namespace {

using pelorin::fuzz::fail;
using pelorin::fuzz::require;

std::string hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    return text;
}

enum port_index { kSystem, kInterface, kDevice, kCamera, kStream, kPorts };
constexpr const char *kPortNames[kPorts] = {"system", "interface", "device", "camera", "stream"};

// The largest buffer an operation gets, the guard on each side, the most
// operations of one input.
constexpr size_t kLargestBuffer = 16 * 1024;
constexpr size_t kGuard = 64;
constexpr uint8_t kPattern = 0xA5;
constexpr size_t kMostOperations = 48;

constexpr uint64_t kHostileSizes[32] = {
    SIZE_MAX,           SIZE_MAX - 1,        SIZE_MAX / 2,        SIZE_MAX / 2 + 1,
    uint64_t{1} << 32,  (uint64_t{1} << 32) - 1, (uint64_t{1} << 32) + 1, uint64_t{1} << 31,
    0x7FFFFFFF,         uint64_t{1} << 40,   uint64_t{1} << 24,   uint64_t{1} << 20,
    0x100000 - 1,       0x100001,            0x10000,             0xFFFF,
    0x10001,            kLargestBuffer + 1,  kLargestBuffer * 4,  0x8000,
    0x7FFF,             0xFFFFFFF0,          0xFFFFFFFC,          0xFFFFFFFF - 3,
    SIZE_MAX - 3,       SIZE_MAX - 7,        SIZE_MAX - 63,       uint64_t{1} << 62,
    0x123456789,        0xDEADBEEF,          0x80000001,          0xFFFFFFFE,
};

// ---------------------------------------------------------------------------
// The library, opened once

// A runtime directory (single-instance lock) and a GenTL directory (an
// empty library file, the built description files, user sets) of this
// process; both removed when it ends.
std::string g_runtime_dir;
std::string g_gentl_dir;

void make_private_dirs() {
    char runtime[] = "/tmp/pelorin-port-fuzz-run-XXXXXX";
    char gentl[] = "/tmp/pelorin-port-fuzz-gentl-XXXXXX";
    if (mkdtemp(runtime) == nullptr || mkdtemp(gentl) == nullptr) fail("mkdtemp failed");
    g_runtime_dir = runtime;
    g_gentl_dir = gentl;
    namespace fs = std::filesystem;
    std::ofstream(fs::path(g_gentl_dir) / "pelorin_cxp.cti") << "";
    std::error_code error;
    fs::create_directory_symlink(fs::path(PELORIN_FUZZ_GENTL_DIR) / "xml", fs::path(g_gentl_dir) / "xml",
                                 error);
    if (error) fail("cannot link the description files: " + error.message());
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove_all(g_runtime_dir, ignored);
        std::filesystem::remove_all(g_gentl_dir, ignored);
    });
    setenv("XDG_RUNTIME_DIR", g_runtime_dir.c_str(), 1);
    setenv("GENICAM_GENTL64_PATH", g_gentl_dir.c_str(), 1);
    unsetenv("GENICAM_GENTL64_PATH_2ND");
    unsetenv("PELORIN_CXP_EMULATION");  // the built-in card
}

void *g_handles[kPorts] = {};

void expect_success(GC_ERROR result, const char *step) {
    if (result != GC_ERR_SUCCESS) fail(std::string(step) + " failed: " + std::to_string(result));
}

// device0 of the open interface with its camera port and data stream.
void open_device() {
    char id[256] = {};
    size_t size = sizeof id;
    expect_success(IFGetDeviceID(g_handles[kInterface], 0, id, &size), "IFGetDeviceID");
    DEV_HANDLE device = nullptr;
    expect_success(IFOpenDevice(g_handles[kInterface], id, DEVICE_ACCESS_EXCLUSIVE, &device), "IFOpenDevice");
    PORT_HANDLE camera = nullptr;
    expect_success(DevGetPort(device, &camera), "DevGetPort");
    size = sizeof id;
    expect_success(DevGetDataStreamID(device, 0, id, &size), "DevGetDataStreamID");
    DS_HANDLE stream = nullptr;
    expect_success(DevOpenDataStream(device, id, &stream), "DevOpenDataStream");
    g_handles[kDevice] = device;
    g_handles[kCamera] = camera;
    g_handles[kStream] = stream;
}

void open_library() {
    pelorin::emu::pcie_bus::system_bus().reset();
    expect_success(GCInitLib(), "GCInitLib");
    TL_HANDLE system = nullptr;
    expect_success(TLOpen(&system), "TLOpen");
    expect_success(TLUpdateInterfaceList(system, nullptr, 1000), "TLUpdateInterfaceList");
    char id[256] = {};
    size_t size = sizeof id;
    expect_success(TLGetInterfaceID(system, 0, id, &size), "TLGetInterfaceID");
    IF_HANDLE iface = nullptr;
    expect_success(TLOpenInterface(system, id, &iface), "TLOpenInterface");
    expect_success(IFUpdateDeviceList(iface, nullptr, 1000), "IFUpdateDeviceList");
    g_handles[kSystem] = system;
    g_handles[kInterface] = iface;
    open_device();
}

// True when the camera answers its Standard register (0xC0A79AE5, in wire
// order) through the camera port.
bool camera_answers() {
    uint8_t standard[4] = {};
    size_t size = sizeof standard;
    return GCReadPort(g_handles[kCamera], 0x0000, standard, &size) == GC_ERR_SUCCESS && size == 4 &&
           standard[0] == 0xC0 && standard[1] == 0xA7 && standard[2] == 0x9A && standard[3] == 0xE5;
}

// A camera that no longer answers (a write reached it that the producer did
// not expect, such as a control packet put into a link's transmit FIFO)
// would make every later camera access of the run wait for its time-out:
// the device is closed and opened again, which connects the camera anew.
void keep_camera_connected() {
    if (camera_answers()) return;
    expect_success(DevClose(g_handles[kDevice]), "DevClose");
    open_device();
    require(camera_answers(), "the camera does not answer after the device was opened again");
}

// ---------------------------------------------------------------------------
// The registers of each port, from its description file

// Reads and writes through the exported port calls, as a consumer's node
// map does.
class consumer_port final : public IPort {
public:
    explicit consumer_port(void *handle) : handle_(handle) {}
    void Read(void *buffer, int64_t address, int64_t length) override {
        size_t size = static_cast<size_t>(length);
        if (GCReadPort(handle_, static_cast<uint64_t>(address), buffer, &size) != GC_ERR_SUCCESS)
            throw std::runtime_error("read failed");
    }
    void Write(const void *, int64_t, int64_t) override { throw std::runtime_error("no writes"); }
    EAccessMode GetAccessMode() const override { return RO; }

private:
    void *handle_;
};

// The address of the port's description file and of every register its
// description names (at the selectors' first values), sorted.
std::vector<uint64_t> g_registers[kPorts];

std::vector<uint64_t> registers_of(void *handle) {
    std::vector<uint64_t> registers;
    char url[512] = {};
    size_t size = sizeof url;
    expect_success(GCGetPortURL(handle, url, &size), "GCGetPortURL");
    char file[256] = {};
    unsigned long long address = 0, length = 0;
    if (std::sscanf(url, "local:%255[^;];%llx;%llx", file, &address, &length) != 3)
        fail(std::string("unexpected port URL ") + url);
    registers.push_back(address);
    std::vector<uint8_t> zip(length);
    size = zip.size();
    expect_success(GCReadPort(handle, address, zip.data(), &size), "reading a description file");

    consumer_port port(handle);
    CNodeMapRef map("Fuzz");
    map._LoadXMLFromZIPData(zip.data(), size);
    char port_name[128] = {};
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size = sizeof port_name;
    expect_success(GCGetPortInfo(handle, PORT_INFO_PORTNAME, &type, port_name, &size), "GCGetPortInfo");
    if (!map._Connect(&port, port_name)) fail(std::string("no Port node ") + port_name);
    for (const std::string &name : map.node_names()) {
        try {
            if (map.is_register(name)) registers.push_back(map.register_address(name));
        } catch (const genapi_error &) {
            // A register whose address cannot be read now.
        }
    }
    std::sort(registers.begin(), registers.end());
    registers.erase(std::unique(registers.begin(), registers.end()), registers.end());
    return registers;
}

// ---------------------------------------------------------------------------
// Rules

bool is_gentl_code(GC_ERROR code) {
    return code == GC_ERR_SUCCESS || (code <= GC_ERR_ERROR && code >= GC_ERR_AMBIGUOUS) ||
           (code <= -10001 && code >= -10014);
}

// The results a port hands on from below (see the top of this file).
bool is_documented_result(int port, GC_ERROR code) {
    switch (port) {
        case kInterface:
        case kDevice:
            return code == -1 || code == -2;
        case kStream:
            return code == -1;
        case kCamera:
            return (code >= -4 && code <= -1) || code == -7;
        default:
            return false;
    }
}

// True when [address, address + size) meets [begin, end).
bool overlaps(uint64_t address, uint64_t size, uint64_t begin, uint64_t end) {
    if (size == 0) return false;
    const uint64_t last = address + std::min<uint64_t>(size - 1, UINT64_MAX - address);
    return address < end && last >= begin;
}

// Register addresses of the module spaces (tag, register number, 0xFFFF,
// sub-code 0x0001 for the value).
constexpr uint64_t system_register(uint32_t number) {
    return 0x001E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0001ULL;
}
constexpr uint64_t interface_register(uint32_t number) {
    return 0x002E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0001ULL;
}
constexpr uint64_t kDeviceReadStride = 0x003E0000FFFD0040ULL;

// Writes that would cut the camera off for the rest of the run.
bool left_out(int port, uint64_t address, uint64_t size) {
    return port == kCamera &&
           (overlaps(address, size, 0x4000, 0x4004) || overlaps(address, size, 0x4014, 0x4018));
}

// A buffer between two guard areas of kPattern bytes that AddressSanitizer
// reports when touched.
class guarded_buffer {
public:
    explicit guarded_buffer(size_t size) : size_(size), bytes_(new uint8_t[size + 2 * kGuard]) {
        std::memset(bytes_.get(), kPattern, size + 2 * kGuard);
        ASAN_POISON_MEMORY_REGION(bytes_.get(), kGuard);
        ASAN_POISON_MEMORY_REGION(bytes_.get() + kGuard + size_, kGuard);
    }
    ~guarded_buffer() {
        ASAN_UNPOISON_MEMORY_REGION(bytes_.get(), size_ + 2 * kGuard);
    }
    guarded_buffer(const guarded_buffer &) = delete;
    guarded_buffer &operator=(const guarded_buffer &) = delete;

    uint8_t *data() { return bytes_.get() + kGuard; }
    bool guards_intact() {
        ASAN_UNPOISON_MEMORY_REGION(bytes_.get(), kGuard);
        ASAN_UNPOISON_MEMORY_REGION(bytes_.get() + kGuard + size_, kGuard);
        const auto touched = [](uint8_t byte) { return byte != kPattern; };
        const bool intact = std::none_of(bytes_.get(), bytes_.get() + kGuard, touched) &&
                            std::none_of(data() + size_, data() + size_ + kGuard, touched);
        ASAN_POISON_MEMORY_REGION(bytes_.get(), kGuard);
        ASAN_POISON_MEMORY_REGION(bytes_.get() + kGuard + size_, kGuard);
        return intact;
    }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> bytes_;
};

// ---------------------------------------------------------------------------
// Inputs

class reader {
public:
    reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool done() const { return at_ >= size_; }
    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    uint64_t bytes(int count) {
        uint64_t value = 0;
        for (int i = 0; i < count; ++i) value |= uint64_t{byte()} << (8 * i);
        return value;
    }
    // Up to `count` bytes of the input, zeros past its end.
    void fill(uint8_t *out, size_t count) {
        const size_t taken = std::min(count, size_ - std::min(at_, size_));
        if (taken > 0) std::memcpy(out, data_ + at_, taken);
        std::memset(out + taken, 0, count - taken);
        at_ += taken;
    }

private:
    const uint8_t *data_;
    size_t size_;
    size_t at_ = 0;
};

uint64_t pick_address(int port, int mode, reader &in) {
    const std::vector<uint64_t> &known = g_registers[port];
    switch (mode) {
        case 0:
            return known[in.byte() % known.size()];
        case 1: {
            const uint64_t base = known[in.byte() % known.size()];
            return base + static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(in.byte())));
        }
        case 2:
            return in.bytes(4);
        default:
            return in.bytes(8);
    }
}

void run_operation(reader &in) {
    const uint8_t head = in.byte();
    const int port = (head & 7) % kPorts;
    const bool write = (head & 0x08) != 0;
    const int buffer_mode = (head >> 4) & 3;
    const uint64_t address = pick_address(port, head >> 6, in);

    uint64_t size = in.byte();
    bool hostile = false;
    if (size >= 0xE0) {
        size = kHostileSizes[size - 0xE0];
        hostile = true;
    } else if (size >= 0x80) {
        size = std::min<uint64_t>(((size - 0x80) << 8 | in.byte()) + 0x80, kLargestBuffer);
    }
    const bool with_buffer = !hostile && buffer_mode != 2;
    const bool with_size = buffer_mode != 3;

    guarded_buffer buffer(with_buffer ? size : 0);
    std::vector<uint8_t> written;
    if (write && with_buffer) {
        in.fill(buffer.data(), size);
        written.assign(buffer.data(), buffer.data() + size);
        if (with_size && left_out(port, address, size)) return;
    }

    size_t passed = static_cast<size_t>(size);
    void *data = with_buffer ? buffer.data() : nullptr;
    size_t *size_pointer = with_size ? &passed : nullptr;
    const GC_ERROR result = write ? GCWritePort(g_handles[port], address, data, size_pointer)
                                  : GCReadPort(g_handles[port], address, data, size_pointer);

    const auto call = [&] {
        return std::string(write ? "GCWritePort" : "GCReadPort") + " on the " + kPortNames[port] +
               " port at " + hex(address) + ", size " + hex(size) + (with_buffer ? "" : ", no buffer") +
               (with_size ? "" : ", no size pointer") + ": ";
    };
    if (!is_gentl_code(result) && !is_documented_result(port, result))
        fail(call() + "answered " + std::to_string(result) + ", no GenTL code");
    if (!buffer.guards_intact()) fail(call() + "wrote outside the buffer");
    if ((!with_buffer || !with_size) && result == GC_ERR_SUCCESS)
        fail(call() + "succeeded without a buffer or size");
    if (result == GC_ERR_SUCCESS && with_size && passed > size)
        fail(call() + "reported " + hex(passed) + " bytes");
    if (write && with_buffer && !std::equal(written.begin(), written.end(), buffer.data()))
        fail(call() + "changed the caller's bytes");
}

// The interface and device selectors back to the first ones and the camera
// read stride back to the default, so that an input does the same whatever
// ran before it.
void reset_state() {
    const struct {
        int port;
        uint64_t address;
        uint32_t value;
    } resets[] = {{kSystem, system_register(0x7), 0},
                  {kInterface, interface_register(0xD), 0},
                  {kDevice, kDeviceReadStride, 100}};
    for (const auto &reset : resets) {
        size_t size = sizeof reset.value;
        expect_success(GCWritePort(g_handles[reset.port], reset.address, &reset.value, &size),
                       "resetting a selector");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The producer prints and logs every refusal; the rules do not look at
    // either. libFuzzer reports on stderr.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) fail("cannot silence stdout");
    pelorin::diag::set_log_level(pelorin::diag::kAll);
    make_private_dirs();
    open_library();
    for (int port = 0; port < kPorts; ++port) g_registers[port] = registers_of(g_handles[port]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    keep_camera_connected();
    reset_state();
    reader in(data, size);
    for (size_t operations = 0; operations < kMostOperations && !in.done(); ++operations) run_operation(in);
    return 0;
}
