// Hostile input through every export that takes a handle or a pointer, the
// way a careless or malicious consumer calls them: null pointers, random
// values, handles of modules closed already, handles of another module
// level, buffer sizes 0, 1 and huge, unknown info commands. Every such call
// answers an error code (GenTL -1001 .. -1023 or the producer's -10001 ..
// -10014), writes nothing outside the memory it was given (guard bytes on
// both sides of every output), and afterwards the library still delivers
// whole camera frames.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api_fixture.h"
#include "consumer_session.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::awaiting_delivery;
using pelorin::testing_support::device_session;
using pelorin::testing_support::first_interface_id;
using pelorin::testing_support::is_error_code;
using pelorin::testing_support::kFastCardsProfile;
using pelorin::testing_support::private_gentl_dir;

// Port reads and writes that reach card registers or camera memory hand on
// the link layer's own result: -1 no answer, -2 refused, -3 damaged reply.
bool is_port_error_code(GC_ERROR code) { return is_error_code(code) || (code >= -3 && code <= -1); }

// ---------------------------------------------------------------------------
// Guarded memory

constexpr size_t kGuard = 64;
constexpr uint8_t kPattern = 0xA5;

// `capacity` bytes handed to the producer between two guard areas; all of it
// starts as kPattern, so that any byte the producer wrote shows.
class guarded_bytes {
public:
    explicit guarded_bytes(size_t capacity) : capacity_(capacity), bytes_(capacity + 2 * kGuard, kPattern) {}
    void *data() { return bytes_.data() + kGuard; }
    size_t capacity() const { return capacity_; }
    void refill() { std::fill(bytes_.begin(), bytes_.end(), kPattern); }
    // True when nothing changed outside the first `kept` bytes of the area.
    bool unchanged_beyond(size_t kept) const {
        const auto changed = [](uint8_t byte) { return byte != kPattern; };
        const auto begin = bytes_.begin();
        return std::none_of(begin, begin + kGuard, changed) &&
               std::none_of(begin + kGuard + std::min(kept, capacity_), bytes_.end(), changed);
    }
    bool unchanged() const { return unchanged_beyond(0); }

private:
    size_t capacity_;
    std::vector<uint8_t> bytes_;
};

constexpr INFO_DATATYPE kUnsetType = 0x5EED;
constexpr size_t kTextCapacity = 256;

// Everything a call may write through its pointers, each output guarded.
struct outputs {
    guarded_bytes text{kTextCapacity};  // info values, texts, register bytes, records
    guarded_bytes word{8};              // a handle, count, flag or number
    guarded_bytes second{8};            // a second one
    size_t size = kTextCapacity;        // the capacity of `text` as the call is told
    uint64_t size64 = kTextCapacity;
    INFO_DATATYPE type = kUnsetType;
    std::string current = "unset";
    std::vector<std::string> entries{"unset"};

    template <typename T>
    T *as_word() {
        return static_cast<T *>(word.data());
    }
    template <typename T>
    T *as_second() {
        return static_cast<T *>(second.data());
    }
    char *chars() { return static_cast<char *>(text.data()); }
    // `text` as an array of values or records.
    template <typename T>
    T *numbers() {
        return static_cast<T *>(text.data());
    }

    // Nothing at all was written.
    bool untouched() const {
        return text.unchanged() && word.unchanged() && second.unchanged() && size == kTextCapacity &&
               size64 == kTextCapacity && type == kUnsetType && current == "unset" &&
               entries == std::vector<std::string>{"unset"};
    }
    // Nothing was written outside the memory each pointer was given.
    bool within_bounds() const {
        return text.unchanged_beyond(kTextCapacity) && word.unchanged_beyond(8) && second.unchanged_beyond(8);
    }
};

// ---------------------------------------------------------------------------
// The exports the shared table does not resolve

struct Kv {
#define KV(name) \
    decltype(&::name) name = reinterpret_cast<decltype(&::name)>(ProducerApi::get().symbol(#name))
    KV(kv_genapi_set_register);
    KV(kv_genapi_get_register);
    KV(kv_get_access);
    KV(kv_get_integer_info);
    KV(kv_get_float_info);
    KV(kv_get_enum_info);
    KV(kv_get_features);
    KV(kv_get_xml_info);
    KV(kv_get_xml);
    KV(kv_node_register);
    KV(kv_get_nodes);
    KV(kv_get_node_info);
    KV(kv_get_enum_array);
    KV(kv_get_node_state);
#undef KV
};

// The data-stream members the library exports under their C++ names; the
// object is the stream handle, passed first as the ABI passes `this`.
struct StreamMembers {
    template <typename... Args>
    using member = GC_ERROR (*)(void *stream, Args...);
    template <typename F>
    static F resolve(const char *name) {
        return reinterpret_cast<F>(ProducerApi::get().symbol(name));
    }
    member<int> FlushQueue = resolve<member<int>>("_ZN16CGentlDataStream12DSFlushQueueEi");
    member<void *> QueueBuffer = resolve<member<void *>>("_ZN16CGentlDataStream13DSQueueBufferEPv");
    member<void **> GetParentDev = resolve<member<void **>>("_ZN16CGentlDataStream14DSGetParentDevEPPv");
    member<void *, void **, void **, bool> RevokeBuffer =
        resolve<member<void *, void **, void **, bool>>("_ZN16CGentlDataStream14DSRevokeBufferEPvPS0_S1_b");
    member<void *, int, int *, void *, size_t *> GetBufferInfo =
        resolve<member<void *, int, int *, void *, size_t *>>(
            "_ZN16CGentlDataStream15DSGetBufferInfoEPviPiS0_Pm");
    member<void *, size_t, void *, void **> AnnounceBuffer = resolve<member<void *, size_t, void *, void **>>(
        "_ZN16CGentlDataStream16DSAnnounceBufferEPvmS0_PS0_");
    member<int> StopAcquisition = resolve<member<int>>("_ZN16CGentlDataStream17DSStopAcquisitionEi");
    member<int, size_t> StartAcquisition =
        resolve<member<int, size_t>>("_ZN16CGentlDataStream18DSStartAcquisitionEim");
    member<size_t, void *, void **> AllocAndAnnounceBuffer =
        resolve<member<size_t, void *, void **>>("_ZN16CGentlDataStream24DSAllocAndAnnounceBufferEmPvPS0_");
    member<int, int *, void *, size_t *> GetInfo =
        resolve<member<int, int *, void *, size_t *>>("_ZN16CGentlDataStream9DSGetInfoEiPiPvPm");
};

// ---------------------------------------------------------------------------
// Handles

enum handle_kind : unsigned {
    kSystem = 1u << 0,
    kInterface = 1u << 1,
    kDevice = 1u << 2,
    kRemote = 1u << 3,
    kStream = 1u << 4,
    kBuffer = 1u << 5,
    kEvent = 1u << 6,
    kNoModule = 1u << 7,  // garbage, or a module closed already
};
constexpr unsigned kAnyModule = kSystem | kInterface | kDevice | kRemote | kStream;

struct named_handle {
    std::string name;
    void *value;
    unsigned kind;
};

// A call with every argument good except its (first) handle.
struct handle_call {
    const char *name;
    unsigned takes;  // the kinds of handle it works on
    std::function<GC_ERROR(void *handle, outputs &out)> call;
    bool checks_handle = true;  // false: accepted whatever the handle, without effect
};

// A call with one bad pointer or size; `may_succeed` when the null is an
// optional output or asks for a size.
struct pointer_call {
    std::string name;
    bool may_succeed;
    std::function<GC_ERROR(outputs &out)> call;
};

// An info query of one module: commands 0 .. last are known.
struct info_call {
    std::string name;
    int32_t last;
    std::function<GC_ERROR(int32_t command, INFO_DATATYPE *type, void *buffer, size_t *size)> call;
};

// A call that copies bytes into a buffer of the size it is told.
struct sized_call {
    std::string name;
    std::function<GC_ERROR(void *buffer, size_t *size)> call;
    bool port_codes = false;           // may answer the link layer's codes
    bool zeroes_whole_buffer = false;  // documented: clears the whole buffer it is told of
};

// Random handle values from a fixed seed, with a few classics: the results
// never depend on the run.
std::vector<named_handle> garbage_handles(void *object_address, void *heap_address) {
    std::vector<named_handle> handles = {
        {"null", nullptr, kNoModule},
        {"1", reinterpret_cast<void *>(1), kNoModule},
        {"all ones", reinterpret_cast<void *>(~uintptr_t{0}), kNoModule},
        {"0xDEADBEEF", reinterpret_cast<void *>(0xDEADBEEF), kNoModule},
        {"an int of the test", object_address, kNoModule},
        {"heap address", heap_address, kNoModule},
    };
    std::mt19937_64 random(0x5eed2024);
    for (int i = 0; i < 6; ++i) {
        const uint64_t value = random();
        handles.push_back({"random " + std::to_string(value), reinterpret_cast<void *>(value), kNoModule});
    }
    return handles;
}

class HostileInput : public DeviceTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};
    Kv kv;
    StreamMembers member;
    std::string iface_id_;
    device_session session_{api};  // device0, grabbing
    device_session other_{api};    // device1: a foreign stream and buffer
    uint64_t sim_ = 0;             // the simulator handle of session_'s device
    int some_int_ = 0;
    std::vector<uint8_t> heap_block_ = std::vector<uint8_t>(4096, 0x11);
    std::vector<uint8_t> memory_ = std::vector<uint8_t>(4096);  // for announce calls
    long calls_ = 0;

    void SetUp() override {
        dir_.use_emulation(kFastCardsProfile);
    }
    void TearDown() override {
        other_.close();
        session_.close();
        device_ = nullptr;  // closed with session_
        DeviceTest::TearDown();
        std::printf("%ld hostile calls\n", calls_);
    }

    // System, interface, device0 grabbing (camera port, stream, buffers,
    // event), device1 with its stream and one buffer.
    void OpenTree() {
        OpenSystem();
        iface_id_ = first_interface_id(api, system_);
        ASSERT_FALSE(iface_id_.empty());
        ASSERT_EQ(api.TLOpenInterface(system_, iface_id_.c_str(), &iface_), GC_ERR_SUCCESS);
        ASSERT_EQ(session_.open(iface_, "device0", 256, 64, 4), GC_ERR_SUCCESS);
        device_ = session_.device;
        camera_ = session_.camera;
        stream_ = session_.stream;
        ASSERT_EQ(other_.open(iface_, "device1", 128, 32, 1), GC_ERR_SUCCESS);
        ASSERT_EQ(api.kv_sim_register_handle(device_, &sim_), GC_ERR_SUCCESS);
    }

    // The five modules' handles, each of them a port and a node map.
    std::vector<std::pair<std::string, void *>> ModuleHandles() const {
        return {{"system", system_},
                {"interface", iface_},
                {"device", device_},
                {"camera port", camera_},
                {"stream", stream_}};
    }

    // The handles of the open modules, buffers and event (none before
    // OpenTree).
    std::vector<named_handle> LiveHandles() const {
        std::vector<named_handle> live = {{"system", system_, kSystem},
                                          {"interface", iface_, kInterface},
                                          {"device", device_, kDevice},
                                          {"camera port", camera_, kRemote},
                                          {"stream", stream_, kStream},
                                          {"event", session_.event, kEvent},
                                          {"device1", other_.device, kDevice},
                                          {"device1's camera port", other_.camera, kRemote},
                                          {"device1's stream", other_.stream, kStream}};
        if (!session_.buffers.empty()) live.push_back({"buffer", session_.buffers.front(), kBuffer});
        if (!other_.buffers.empty()) live.push_back({"device1's buffer", other_.buffers.front(), kBuffer});
        std::erase_if(live, [](const named_handle &handle) { return handle.value == nullptr; });
        return live;
    }

    // Whether `value` is the handle of an open module of a kind in `kinds`
    // (a closed module's address may have been given to a new one).
    static bool IsLive(const std::vector<named_handle> &live, const void *value, unsigned kinds) {
        return std::any_of(live.begin(), live.end(), [&](const named_handle &handle) {
            return handle.value == value && (handle.kind & kinds) != 0;
        });
    }

    // Counts one call and checks its code.
    void ExpectRefused(GC_ERROR result, const std::string &what, bool port = false) {
        ++calls_;
        EXPECT_TRUE(port ? is_port_error_code(result) : is_error_code(result))
            << what << " answered " << result;
    }

    // Three whole frames of device0: the library still works.
    void ExpectFramesStillArrive() {
        ASSERT_EQ(session_.start(), GC_ERR_SUCCESS);
        EXPECT_EQ(session_.grab(3), 3);
        EXPECT_EQ(session_.stop(), GC_ERR_SUCCESS);
    }

    std::vector<handle_call> HandleCalls();
    std::vector<pointer_call> PointerCalls();
    std::vector<info_call> InfoCalls();
    std::vector<sized_call> SizedCalls();

    // Every handle call with every candidate it does not take.
    void SweepHandles(const std::vector<named_handle> &candidates, const std::string &phase) {
        const std::vector<named_handle> live = LiveHandles();
        for (const handle_call &row : HandleCalls()) {
            for (const named_handle &handle : candidates) {
                if ((handle.kind & row.takes) != 0 || IsLive(live, handle.value, row.takes)) continue;
                outputs out;
                const GC_ERROR result = row.call(handle.value, out);
                const std::string what = phase + ": " + row.name + "(" + handle.name + ")";
                if (row.checks_handle) {
                    ExpectRefused(result, what);
                } else {
                    ++calls_;
                    EXPECT_TRUE(result == GC_ERR_SUCCESS || is_error_code(result))
                        << what << " answered " << result;
                }
                EXPECT_TRUE(out.untouched()) << what << " wrote through its pointers";
            }
        }
    }
};

// ---------------------------------------------------------------------------
// The tables

// Rows of the tables: the call is the expression, with the handle `h` (or
// the pointer's module `h`) and the guarded outputs `o` in scope.
#define HANDLE_CALL(name, takes, ...)                                                   \
    handle_call {                                                                       \
        name, takes, [=, this](void *h, outputs &o) -> GC_ERROR { return __VA_ARGS__; } \
    }
#define ANY_HANDLE_CALL(name, ...)                                                              \
    handle_call {                                                                               \
        name, kEvent, [=, this](void *h, outputs &o) -> GC_ERROR { return __VA_ARGS__; }, false \
    }
#define REFUSED(name, ...) add(name, false, [=, this](outputs &o) -> GC_ERROR { return __VA_ARGS__; })
#define MAY_SUCCEED(name, ...) add(name, true, [=, this](outputs &o) -> GC_ERROR { return __VA_ARGS__; })

std::vector<handle_call> HostileInput::HandleCalls() {
    const char *iface_id = iface_id_.c_str();
    void *memory = memory_.data();
    BUFFER_HANDLE buffer = session_.buffers.empty() ? nullptr : session_.buffers.front();
    const kv_node_callback callback = [](void *) {};
    const wchar_t *settings = L"/nonexistent-pelorin-dir/settings.ini";
    return {
        // System
        HANDLE_CALL("TLClose", kSystem, api.TLClose(h)),
        HANDLE_CALL("TLGetInfo", kSystem, api.TLGetInfo(h, TL_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("TLGetNumInterfaces", kSystem, api.TLGetNumInterfaces(h, o.as_word<uint32_t>())),
        HANDLE_CALL("TLGetInterfaceID", kSystem, api.TLGetInterfaceID(h, 0, o.chars(), &o.size)),
        HANDLE_CALL("TLGetInterfaceInfo", kSystem,
                    api.TLGetInterfaceInfo(h, iface_id, INTERFACE_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("TLOpenInterface", kSystem, api.TLOpenInterface(h, iface_id, o.as_word<void *>())),
        HANDLE_CALL("TLUpdateInterfaceList", kSystem, api.TLUpdateInterfaceList(h, o.as_word<bool8_t>(), 100)),
        // Interface
        HANDLE_CALL("IFClose", kInterface, api.IFClose(h)),
        HANDLE_CALL("IFGetInfo", kInterface, api.IFGetInfo(h, INTERFACE_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("IFGetNumDevices", kInterface, api.IFGetNumDevices(h, o.as_word<uint32_t>())),
        HANDLE_CALL("IFGetDeviceID", kInterface, api.IFGetDeviceID(h, 0, o.chars(), &o.size)),
        HANDLE_CALL("IFUpdateDeviceList", kInterface, api.IFUpdateDeviceList(h, o.as_word<bool8_t>(), 100)),
        HANDLE_CALL("IFGetDeviceInfo", kInterface,
                    api.IFGetDeviceInfo(h, "device1", DEVICE_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("IFOpenDevice", kInterface,
                    api.IFOpenDevice(h, "device1", DEVICE_ACCESS_EXCLUSIVE, o.as_word<void *>())),
        HANDLE_CALL("IFGetParentTL", kInterface, api.IFGetParentTL(h, o.as_word<void *>())),
        // Device
        HANDLE_CALL("DevClose", kDevice, api.DevClose(h)),
        HANDLE_CALL("DevGetPort", kDevice, api.DevGetPort(h, o.as_word<void *>())),
        HANDLE_CALL("DevGetNumDataStreams", kDevice, api.DevGetNumDataStreams(h, o.as_word<uint32_t>())),
        HANDLE_CALL("DevGetDataStreamID", kDevice, api.DevGetDataStreamID(h, 0, o.chars(), &o.size)),
        HANDLE_CALL("DevOpenDataStream", kDevice, api.DevOpenDataStream(h, "stream0", o.as_word<void *>())),
        HANDLE_CALL("DevGetInfo", kDevice, api.DevGetInfo(h, DEVICE_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("DevGetParentIF", kDevice, api.DevGetParentIF(h, o.as_word<void *>())),
        // Data stream
        HANDLE_CALL("DSClose", kStream, api.DSClose(h)),
        HANDLE_CALL("DSAnnounceBuffer", kStream, api.DSAnnounceBuffer(h, memory, 64, nullptr, o.as_word<void *>())),
        HANDLE_CALL("DSAllocAndAnnounceBuffer", kStream,
                    api.DSAllocAndAnnounceBuffer(h, 64, nullptr, o.as_word<void *>())),
        HANDLE_CALL("DSFlushQueue", kStream, api.DSFlushQueue(h, ACQ_QUEUE_ALL_TO_INPUT)),
        HANDLE_CALL("DSStartAcquisition", kStream,
                    api.DSStartAcquisition(h, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE)),
        HANDLE_CALL("DSStopAcquisition", kStream, api.DSStopAcquisition(h, ACQ_STOP_FLAGS_KILL)),
        HANDLE_CALL("DSGetInfo", kStream, api.DSGetInfo(h, STREAM_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("DSGetBufferID", kStream, api.DSGetBufferID(h, 0, o.as_word<void *>())),
        HANDLE_CALL("DSRevokeBuffer", kStream,
                    api.DSRevokeBuffer(h, buffer, o.as_word<void *>(), o.as_second<void *>())),
        HANDLE_CALL("DSQueueBuffer", kStream, api.DSQueueBuffer(h, buffer)),
        HANDLE_CALL("DSGetBufferInfo", kStream,
                    api.DSGetBufferInfo(h, buffer, BUFFER_INFO_SIZE, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("DSGetBufferChunkData", kStream,
                    api.DSGetBufferChunkData(h, buffer, static_cast<SINGLE_CHUNK_DATA *>(o.text.data()), &o.size)),
        HANDLE_CALL("DSGetParentDev", kStream, api.DSGetParentDev(h, o.as_word<void *>())),
        HANDLE_CALL("DSGetNumBufferParts", kStream, api.DSGetNumBufferParts(h, buffer, o.as_word<uint32_t>())),
        HANDLE_CALL("DSGetBufferPartInfo", kStream,
                    api.DSGetBufferPartInfo(h, buffer, 0, BUFFER_PART_INFO_BASE, &o.type, o.text.data(), &o.size)),
        handle_call{"DSAnnounceCompositeBuffer", kStream,
                    [=, this](void *h, outputs &o) {
                        void *segments[1] = {memory};
                        size_t sizes[1] = {64};
                        return api.DSAnnounceCompositeBuffer(h, 1, segments, sizes, nullptr, o.as_word<void *>());
                    }},
        handle_call{"DSGetBufferInfoStacked", kStream,
                    [=, this](void *h, outputs &o) {
                        DS_BUFFER_INFO_STACKED entry{BUFFER_INFO_SIZE, kUnsetType, o.text.data(), o.size, 1};
                        const GC_ERROR result = api.DSGetBufferInfoStacked(h, buffer, &entry, 1);
                        if (entry.iResult != 1 || entry.iSize != o.size) o.type = entry.iType;
                        return result;
                    }},
        handle_call{"DSGetBufferPartInfoStacked", kStream,
                    [=, this](void *h, outputs &o) {
                        DS_BUFFER_PART_INFO_STACKED entry{0, BUFFER_PART_INFO_BASE, 1, kUnsetType, o.text.data(), o.size};
                        const GC_ERROR result = api.DSGetBufferPartInfoStacked(h, buffer, &entry, 1);
                        if (entry.iResult != 1 || entry.iSize != o.size) o.type = entry.iType;
                        return result;
                    }},
        HANDLE_CALL("DSGetNumFlows", kStream, api.DSGetNumFlows(h, o.as_word<uint32_t>())),
        HANDLE_CALL("DSGetFlowInfo", kStream,
                    api.DSGetFlowInfo(h, 0, FLOW_INFO_SIZE, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("DSGetNumBufferSegments", kStream,
                    api.DSGetNumBufferSegments(h, buffer, o.as_word<uint32_t>())),
        HANDLE_CALL("DSGetBufferSegmentInfo", kStream,
                    api.DSGetBufferSegmentInfo(h, buffer, 0, SEGMENT_INFO_BASE, &o.type, o.text.data(), &o.size)),
        // Ports: any module's handle is a port.
        HANDLE_CALL("GCReadPort", kAnyModule, api.GCReadPort(h, 0, o.text.data(), &o.size)),
        handle_call{"GCWritePort", kAnyModule,
                    [=, this](void *h, outputs &) {
                        size_t size = 4;
                        return api.GCWritePort(h, 0x6000, memory, &size);
                    }},
        HANDLE_CALL("GCGetPortURL", kAnyModule, api.GCGetPortURL(h, o.chars(), &o.size)),
        HANDLE_CALL("GCGetPortInfo", kAnyModule,
                    api.GCGetPortInfo(h, PORT_INFO_ID, &o.type, o.text.data(), &o.size)),
        HANDLE_CALL("GCGetNumPortURLs", kAnyModule, api.GCGetNumPortURLs(h, o.as_word<uint32_t>())),
        HANDLE_CALL("GCGetPortURLInfo", kAnyModule,
                    api.GCGetPortURLInfo(h, 0, URL_INFO_URL, &o.type, o.text.data(), &o.size)),
        handle_call{"GCReadPortStacked", kAnyModule,
                    [=, this](void *h, outputs &o) {
                        PORT_REGISTER_STACK_ENTRY entry{0, o.text.data(), 4};
                        size_t count = 1;
                        return api.GCReadPortStacked(h, &entry, &count);
                    }},
        handle_call{"GCWritePortStacked", kAnyModule,
                    [=, this](void *h, outputs &) {
                        PORT_REGISTER_STACK_ENTRY entry{0x6000, memory, 4};
                        size_t count = 1;
                        return api.GCWritePortStacked(h, &entry, &count);
                    }},
        // Events
        HANDLE_CALL("GCRegisterEvent", kStream, api.GCRegisterEvent(h, EVENT_NEW_BUFFER, o.as_word<void *>())),
        HANDLE_CALL("GCUnregisterEvent", kStream, api.GCUnregisterEvent(h, EVENT_NEW_BUFFER)),
        HANDLE_CALL("EventGetData", kEvent, api.EventGetData(h, o.text.data(), &o.size, 0)),
        ANY_HANDLE_CALL("EventGetInfo", api.EventGetInfo(h, EVENT_NUM_IN_QUEUE, &o.type, o.text.data(), &o.size)),
        ANY_HANDLE_CALL("EventGetDataInfo",
                        api.EventGetDataInfo(h, memory, 16, EVENT_DATA_ID, &o.type, o.text.data(), &o.size)),
        ANY_HANDLE_CALL("EventFlush", api.EventFlush(h)),
        ANY_HANDLE_CALL("EventKill", api.EventKill(h)),
        // Feature access by name: any module's handle.
        HANDLE_CALL("kv_genapi_call_command", kAnyModule, api.kv_genapi_call_command(h, "AcquisitionStop")),
        HANDLE_CALL("kv_genapi_set_string", kAnyModule, api.kv_genapi_set_string(h, "DeviceUserID", "x")),
        HANDLE_CALL("kv_genapi_get_string", kAnyModule,
                    api.kv_genapi_get_string(h, "DeviceVendorName", o.chars(), &o.size64)),
        HANDLE_CALL("kv_genapi_set_integer", kAnyModule, api.kv_genapi_set_integer(h, "Width", 64)),
        HANDLE_CALL("kv_genapi_get_integer", kAnyModule, api.kv_genapi_get_integer(h, "Width", o.as_word<int64_t>())),
        HANDLE_CALL("kv_genapi_set_float", kAnyModule, api.kv_genapi_set_float(h, "ExposureTime", 100.0)),
        HANDLE_CALL("kv_genapi_get_float", kAnyModule,
                    api.kv_genapi_get_float(h, "ExposureTime", o.as_word<double>())),
        HANDLE_CALL("kv_genapi_set_register", kAnyModule,
                    kv.kv_genapi_set_register(h, "InterfaceSelectorReg", memory, 4)),
        HANDLE_CALL("kv_genapi_get_register", kAnyModule,
                    kv.kv_genapi_get_register(h, "InterfaceSelectorReg", o.text.data(), &o.size64)),
        HANDLE_CALL("kv_get_access", kAnyModule, kv.kv_get_access(h, "Width", o.as_word<uint32_t>())),
        HANDLE_CALL("kv_get_integer_info", kAnyModule,
                    kv.kv_get_integer_info(h, "Width", o.as_word<int64_t>(), o.numbers<int64_t>(),
                                           o.numbers<int64_t>() + 1, o.numbers<int64_t>() + 2)),
        HANDLE_CALL("kv_get_float_info", kAnyModule,
                    kv.kv_get_float_info(h, "ExposureTime", o.as_word<double>(), o.numbers<double>(),
                                         o.numbers<double>() + 1, o.numbers<double>() + 2)),
        HANDLE_CALL("kv_get_enum_info", kAnyModule, kv.kv_get_enum_info(h, "PixelFormat", &o.current, &o.entries)),
        handle_call{"kv_get_features", kAnyModule,
                    [=, this](void *h, outputs &o) {
                        kv_feature_entry list[4] = {};
                        kv_feature_entry *entries = list;
                        uint64_t count = 4;
                        const GC_ERROR result = kv.kv_get_features(h, &entries, &count);
                        if (count != 4 || entries != list) o.size = count;
                        return result;
                    }},
        HANDLE_CALL("kv_get_xml_info", kAnyModule,
                    kv.kv_get_xml_info(h, static_cast<kv_xml_info *>(o.text.data()))),
        HANDLE_CALL("kv_get_xml", kAnyModule, kv.kv_get_xml(h, 0, o.text.data(), &o.size64)),
        HANDLE_CALL("kv_node_register", kAnyModule, kv.kv_node_register(h, "Width", callback, o.as_word<void *>())),
        handle_call{"kv_get_nodes", kAnyModule,
                    [=, this](void *h, outputs &o) {
                        kv_node_entry list[4] = {};
                        kv_node_entry *entries = list;
                        uint64_t count = 4;
                        const GC_ERROR result = kv.kv_get_nodes(h, "Root", &entries, &count);
                        if (count != 4 || entries != list) o.size = count;
                        return result;
                    }},
        HANDLE_CALL("kv_get_node_info", kAnyModule,
                    kv.kv_get_node_info(h, "Width", static_cast<kv_node_info *>(o.text.data()))),
        handle_call{"kv_get_enum_array", kAnyModule,
                    [=, this](void *h, outputs &o) {
                        kv_enum_entry current{}, list[2] = {};
                        kv_enum_entry *entries = list;
                        uint32_t count = 2;
                        const GC_ERROR result = kv.kv_get_enum_array(h, "PixelFormat", &current, &entries, &count);
                        if (count != 2 || entries != list || current.text_size != 0) o.size = count;
                        return result;
                    }},
        HANDLE_CALL("kv_get_node_state", kAnyModule, kv.kv_get_node_state(h, "Width", o.as_word<uint8_t>())),
        HANDLE_CALL("kv_genapi_save_ini", kAnyModule, api.kv_genapi_save_ini(h, settings)),
        handle_call{"kv_genapi_load_ini", kAnyModule,
                    [=, this](void *h, outputs &o) {
                        uint32_t count = 7;
                        const GC_ERROR result =
                            api.kv_genapi_load_ini(h, settings, o.as_word<kv_settings_record *>(), &count);
                        if (count != 7) o.size = count;
                        return result;
                    }},
        HANDLE_CALL("kv_register_event_cb", kAnyModule,
                    api.kv_register_event_cb(h, EVENT_NEW_BUFFER, nullptr, nullptr)),
        // The registration clears the simulator handle it refuses (a
        // documented answer): only another value counts as written.
        handle_call{"kv_sim_register_handle", kDevice | kStream,
                    [=, this](void *h, outputs &o) {
                        uint64_t sim = 7;
                        const GC_ERROR result = api.kv_sim_register_handle(h, &sim);
                        if (result == GC_ERR_SUCCESS || (sim != 7 && sim != 0)) *o.as_word<uint64_t>() = sim;
                        return result;
                    }},
    };
}

std::vector<pointer_call> HostileInput::PointerCalls() {
    std::vector<pointer_call> rows;
    const auto add = [&rows](std::string name, bool may_succeed, std::function<GC_ERROR(outputs &)> call) {
        rows.push_back({std::move(name), may_succeed, std::move(call)});
    };
    const char *iface_id = iface_id_.c_str();
    void *memory = memory_.data();
    BUFFER_HANDLE buffer = session_.buffers.front();
    DS_HANDLE bare = other_.stream;  // device1's stream, no buffer announced
    EVENT_HANDLE event = session_.event;

    // Library and system
    REFUSED("GCGetInfo(null size)", api.GCGetInfo(TL_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("GCGetInfo(null type)", api.GCGetInfo(TL_INFO_ID, nullptr, o.text.data(), &o.size));
    MAY_SUCCEED("GCGetInfo(null buffer)", api.GCGetInfo(TL_INFO_ID, &o.type, nullptr, &o.size));
    REFUSED("GCGetLastError(null code)", api.GCGetLastError(nullptr, o.chars(), &o.size));
    REFUSED("GCGetLastError(null size)", api.GCGetLastError(o.as_word<GC_ERROR>(), o.chars(), nullptr));
    MAY_SUCCEED("GCGetLastError(null text)", api.GCGetLastError(o.as_word<GC_ERROR>(), nullptr, &o.size));
    REFUSED("TLOpen(null)", api.TLOpen(nullptr));
    REFUSED("TLGetInfo(null size)", api.TLGetInfo(system_, TL_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("TLGetInfo(null type)", api.TLGetInfo(system_, TL_INFO_ID, nullptr, o.text.data(), &o.size));
    MAY_SUCCEED("TLGetInfo(null buffer)", api.TLGetInfo(system_, TL_INFO_ID, &o.type, nullptr, &o.size));
    REFUSED("TLGetNumInterfaces(null)", api.TLGetNumInterfaces(system_, nullptr));
    REFUSED("TLGetInterfaceID(null size)", api.TLGetInterfaceID(system_, 0, o.chars(), nullptr));
    MAY_SUCCEED("TLGetInterfaceID(null buffer)", api.TLGetInterfaceID(system_, 0, nullptr, &o.size));
    REFUSED("TLGetInterfaceInfo(null ID)",
            api.TLGetInterfaceInfo(system_, nullptr, INTERFACE_INFO_ID, &o.type, o.text.data(), &o.size));
    REFUSED(
        "TLGetInterfaceInfo(unknown ID)",
        api.TLGetInterfaceInfo(system_, "no such card", INTERFACE_INFO_ID, &o.type, o.text.data(), &o.size));
    REFUSED("TLGetInterfaceInfo(null size)",
            api.TLGetInterfaceInfo(system_, iface_id, INTERFACE_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("TLGetInterfaceInfo(null type)", api.TLGetInterfaceInfo(system_, iface_id, INTERFACE_INFO_ID,
                                                                        nullptr, o.text.data(), &o.size));
    REFUSED("TLOpenInterface(null ID)", api.TLOpenInterface(system_, nullptr, o.as_word<void *>()));
    REFUSED("TLOpenInterface(unknown ID)", api.TLOpenInterface(system_, "", o.as_word<void *>()));
    REFUSED("TLOpenInterface(null handle)", api.TLOpenInterface(system_, iface_id, nullptr));
    MAY_SUCCEED("TLUpdateInterfaceList(null flag)", api.TLUpdateInterfaceList(system_, nullptr, 100));
    // Interface
    REFUSED("IFGetInfo(null size)",
            api.IFGetInfo(iface_, INTERFACE_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("IFGetInfo(null type)",
                api.IFGetInfo(iface_, INTERFACE_INFO_ID, nullptr, o.text.data(), &o.size));
    REFUSED("IFGetNumDevices(null)", api.IFGetNumDevices(iface_, nullptr));
    REFUSED("IFGetDeviceID(null size)", api.IFGetDeviceID(iface_, 0, o.chars(), nullptr));
    MAY_SUCCEED("IFGetDeviceID(null buffer)", api.IFGetDeviceID(iface_, 0, nullptr, &o.size));
    REFUSED("IFGetDeviceID(index past the list)", api.IFGetDeviceID(iface_, 2, o.chars(), &o.size));
    MAY_SUCCEED("IFUpdateDeviceList(null flag)", api.IFUpdateDeviceList(iface_, nullptr, 100));
    REFUSED("IFGetDeviceInfo(null ID)",
            api.IFGetDeviceInfo(iface_, nullptr, DEVICE_INFO_ID, &o.type, o.text.data(), &o.size));
    REFUSED("IFGetDeviceInfo(unknown ID)",
            api.IFGetDeviceInfo(iface_, "device9", DEVICE_INFO_ID, &o.type, o.text.data(), &o.size));
    REFUSED("IFGetDeviceInfo(null size)",
            api.IFGetDeviceInfo(iface_, "device0", DEVICE_INFO_ID, &o.type, o.text.data(), nullptr));
    REFUSED("IFOpenDevice(null ID)",
            api.IFOpenDevice(iface_, nullptr, DEVICE_ACCESS_EXCLUSIVE, o.as_word<void *>()));
    REFUSED("IFOpenDevice(unknown ID)",
            api.IFOpenDevice(iface_, "device9", DEVICE_ACCESS_EXCLUSIVE, o.as_word<void *>()));
    REFUSED("IFOpenDevice(null handle)",
            api.IFOpenDevice(iface_, "device2", DEVICE_ACCESS_EXCLUSIVE, nullptr));
    REFUSED("IFGetParentTL(null)", api.IFGetParentTL(iface_, nullptr));
    // Device
    REFUSED("DevGetPort(null)", api.DevGetPort(device_, nullptr));
    REFUSED("DevGetNumDataStreams(null)", api.DevGetNumDataStreams(device_, nullptr));
    REFUSED("DevGetDataStreamID(null size)", api.DevGetDataStreamID(device_, 0, o.chars(), nullptr));
    MAY_SUCCEED("DevGetDataStreamID(null buffer)", api.DevGetDataStreamID(device_, 0, nullptr, &o.size));
    REFUSED("DevGetDataStreamID(index past the list)",
            api.DevGetDataStreamID(device_, 1, o.chars(), &o.size));
    REFUSED("DevOpenDataStream(null ID)", api.DevOpenDataStream(device_, nullptr, o.as_word<void *>()));
    REFUSED("DevOpenDataStream(unknown ID)", api.DevOpenDataStream(device_, "stream9", o.as_word<void *>()));
    REFUSED("DevOpenDataStream(null handle)", api.DevOpenDataStream(device_, "stream0", nullptr));
    REFUSED("DevGetInfo(null size)",
            api.DevGetInfo(device_, DEVICE_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("DevGetInfo(null type)",
                api.DevGetInfo(device_, DEVICE_INFO_ID, nullptr, o.text.data(), &o.size));
    REFUSED("DevGetParentIF(null)", api.DevGetParentIF(device_, nullptr));
    // Data stream, through the exports and through the exported members
    REFUSED("DSAnnounceBuffer(null memory)",
            api.DSAnnounceBuffer(bare, nullptr, 64, nullptr, o.as_word<void *>()));
    REFUSED("DSAnnounceBuffer(size 0)", api.DSAnnounceBuffer(bare, memory, 0, nullptr, o.as_word<void *>()));
    REFUSED("DSAnnounceBuffer(null handle)", api.DSAnnounceBuffer(bare, memory, 64, nullptr, nullptr));
    REFUSED("DSAllocAndAnnounceBuffer(size 0)",
            api.DSAllocAndAnnounceBuffer(bare, 0, nullptr, o.as_word<void *>()));
    REFUSED("DSAllocAndAnnounceBuffer(size SIZE_MAX)",
            api.DSAllocAndAnnounceBuffer(bare, SIZE_MAX, nullptr, o.as_word<void *>()));
    REFUSED("DSAllocAndAnnounceBuffer(null handle)",
            api.DSAllocAndAnnounceBuffer(bare, 64, nullptr, nullptr));
    REFUSED("DSFlushQueue(unknown operation)", api.DSFlushQueue(stream_, 77));
    REFUSED("DSGetInfo(null size)", api.DSGetInfo(stream_, STREAM_INFO_ID, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("DSGetInfo(null type)",
                api.DSGetInfo(stream_, STREAM_INFO_ID, nullptr, o.text.data(), &o.size));
    REFUSED("DSGetBufferInfo(null size)",
            api.DSGetBufferInfo(stream_, buffer, BUFFER_INFO_SIZE, &o.type, o.text.data(), nullptr));
    MAY_SUCCEED("DSGetBufferInfo(null type)",
                api.DSGetBufferInfo(stream_, buffer, BUFFER_INFO_SIZE, nullptr, o.text.data(), &o.size));
    REFUSED("DSGetParentDev(null)", api.DSGetParentDev(stream_, nullptr));
    REFUSED("GCRegisterEvent(null)", api.GCRegisterEvent(bare, EVENT_NEW_BUFFER, nullptr));
    REFUSED("GCRegisterEvent(unknown event)", api.GCRegisterEvent(bare, 77, o.as_word<void *>()));
    REFUSED("GCUnregisterEvent(unknown event)", api.GCUnregisterEvent(stream_, 77));
    REFUSED("EventGetData(null buffer)", api.EventGetData(event, nullptr, &o.size, 0));
    REFUSED("EventGetData(null size)", api.EventGetData(event, o.text.data(), nullptr, 0));
    REFUSED("member DSAnnounceBuffer(null memory)",
            member.AnnounceBuffer(bare, nullptr, 64, nullptr, o.as_word<void *>()));
    REFUSED("member DSAnnounceBuffer(null handle)",
            member.AnnounceBuffer(bare, memory, 64, nullptr, nullptr));
    REFUSED("member DSAllocAndAnnounceBuffer(size 0)",
            member.AllocAndAnnounceBuffer(bare, 0, nullptr, o.as_word<void *>()));
    REFUSED("member DSAllocAndAnnounceBuffer(size SIZE_MAX)",
            member.AllocAndAnnounceBuffer(bare, SIZE_MAX, nullptr, o.as_word<void *>()));
    REFUSED("member DSFlushQueue(unknown operation)", member.FlushQueue(stream_, -5));
    REFUSED("member DSGetInfo(null size)",
            member.GetInfo(stream_, STREAM_INFO_ID, &o.type, o.text.data(), nullptr));
    REFUSED("member DSGetInfo(unknown command)",
            member.GetInfo(stream_, 1000, &o.type, o.text.data(), &o.size));
    REFUSED("member DSGetBufferInfo(null size)",
            member.GetBufferInfo(stream_, buffer, BUFFER_INFO_SIZE, &o.type, o.text.data(), nullptr));
    REFUSED("member DSGetParentDev(null)", member.GetParentDev(stream_, nullptr));
    REFUSED("member DSStopAcquisition(not started)", member.StopAcquisition(stream_, 12345));
    REFUSED("member DSStartAcquisition(no buffer)", member.StartAcquisition(bare, 0, 1));

    // Ports and feature access by name on each module's handle: every
    // pointer the call needs null in turn.
    const char *name = "Width";
    for (const auto &[module_name, module] : ModuleHandles()) {
        void *h = module;
        const std::string on = "(" + module_name + ", ";
        REFUSED("GCReadPort" + on + "null buffer)", api.GCReadPort(h, 0, nullptr, &o.size));
        REFUSED("GCReadPort" + on + "null size)", api.GCReadPort(h, 0, o.text.data(), nullptr));
        REFUSED("GCWritePort" + on + "null buffer)", api.GCWritePort(h, 0, nullptr, &o.size));
        REFUSED("GCWritePort" + on + "null size)", api.GCWritePort(h, 0, memory, nullptr));
        REFUSED("GCGetPortURL" + on + "null size)", api.GCGetPortURL(h, o.chars(), nullptr));
        MAY_SUCCEED("GCGetPortURL" + on + "null buffer)", api.GCGetPortURL(h, nullptr, &o.size));
        REFUSED("GCGetPortInfo" + on + "null size)",
                api.GCGetPortInfo(h, PORT_INFO_MODULE, &o.type, o.text.data(), nullptr));
        MAY_SUCCEED("GCGetPortInfo" + on + "null type)",
                    api.GCGetPortInfo(h, PORT_INFO_MODULE, nullptr, o.text.data(), &o.size));
        REFUSED("GCGetNumPortURLs" + on + "null)", api.GCGetNumPortURLs(h, nullptr));
        REFUSED("GCGetPortURLInfo" + on + "null size)",
                api.GCGetPortURLInfo(h, 0, URL_INFO_URL, &o.type, o.text.data(), nullptr));
        MAY_SUCCEED("GCGetPortURLInfo" + on + "null type)",
                    api.GCGetPortURLInfo(h, 0, URL_INFO_URL, nullptr, o.text.data(), &o.size));

        REFUSED("kv_genapi_call_command" + on + "null name)", api.kv_genapi_call_command(h, nullptr));
        REFUSED("kv_genapi_set_string" + on + "null name)", api.kv_genapi_set_string(h, nullptr, "1"));
        REFUSED("kv_genapi_set_string" + on + "null text)", api.kv_genapi_set_string(h, name, nullptr));
        REFUSED("kv_genapi_get_string" + on + "null name)",
                api.kv_genapi_get_string(h, nullptr, o.chars(), &o.size64));
        REFUSED("kv_genapi_get_string" + on + "null buffer)",
                api.kv_genapi_get_string(h, name, nullptr, &o.size64));
        REFUSED("kv_genapi_get_string" + on + "null size)",
                api.kv_genapi_get_string(h, name, o.chars(), nullptr));
        REFUSED("kv_genapi_get_string" + on + "unknown name)",
                api.kv_genapi_get_string(h, "NoSuchFeature", o.chars(), &o.size64));
        REFUSED("kv_genapi_set_integer" + on + "null name)", api.kv_genapi_set_integer(h, nullptr, 1));
        REFUSED("kv_genapi_get_integer" + on + "null name)",
                api.kv_genapi_get_integer(h, nullptr, o.as_word<int64_t>()));
        REFUSED("kv_genapi_get_integer" + on + "null value)", api.kv_genapi_get_integer(h, name, nullptr));
        REFUSED("kv_genapi_set_float" + on + "null name)", api.kv_genapi_set_float(h, nullptr, 1.0));
        REFUSED("kv_genapi_get_float" + on + "null name)",
                api.kv_genapi_get_float(h, nullptr, o.as_word<double>()));
        REFUSED("kv_genapi_get_float" + on + "null value)", api.kv_genapi_get_float(h, name, nullptr));
        REFUSED("kv_genapi_set_register" + on + "null name)",
                kv.kv_genapi_set_register(h, nullptr, memory, 4));
        REFUSED("kv_genapi_set_register" + on + "null bytes)",
                kv.kv_genapi_set_register(h, name, nullptr, 4));
        REFUSED("kv_genapi_get_register" + on + "null name)",
                kv.kv_genapi_get_register(h, nullptr, o.text.data(), &o.size64));
        REFUSED("kv_genapi_get_register" + on + "null bytes)",
                kv.kv_genapi_get_register(h, name, nullptr, &o.size64));
        REFUSED("kv_genapi_get_register" + on + "null size)",
                kv.kv_genapi_get_register(h, name, o.text.data(), nullptr));
        REFUSED("kv_get_access" + on + "null name)", kv.kv_get_access(h, nullptr, o.as_word<uint32_t>()));
        REFUSED("kv_get_access" + on + "null mode)", kv.kv_get_access(h, name, nullptr));
        REFUSED("kv_get_integer_info" + on + "null name)",
                kv.kv_get_integer_info(h, nullptr, o.as_word<int64_t>(), nullptr, nullptr, nullptr));
        REFUSED("kv_get_integer_info" + on + "null value)",
                kv.kv_get_integer_info(h, name, nullptr, o.numbers<int64_t>(), o.numbers<int64_t>() + 1,
                                       o.numbers<int64_t>() + 2));
        MAY_SUCCEED("kv_get_integer_info" + on + "null limits)",
                    kv.kv_get_integer_info(h, name, o.as_word<int64_t>(), nullptr, nullptr, nullptr));
        REFUSED("kv_get_float_info" + on + "null value)",
                kv.kv_get_float_info(h, "ExposureTime", nullptr, o.numbers<double>(), o.numbers<double>() + 1,
                                     o.numbers<double>() + 2));
        REFUSED("kv_get_enum_info" + on + "null name)",
                kv.kv_get_enum_info(h, nullptr, &o.current, &o.entries));
        REFUSED("kv_get_enum_info" + on + "null current)",
                kv.kv_get_enum_info(h, "PixelFormat", nullptr, &o.entries));
        REFUSED("kv_get_enum_info" + on + "null entries)",
                kv.kv_get_enum_info(h, "PixelFormat", &o.current, nullptr));
        REFUSED("kv_get_features" + on + "null count)",
                kv.kv_get_features(h, o.as_word<kv_feature_entry *>(), nullptr));
        MAY_SUCCEED("kv_get_features" + on + "null list)", kv.kv_get_features(h, nullptr, &o.size64));
        REFUSED("kv_get_xml_info" + on + "null)", kv.kv_get_xml_info(h, nullptr));
        REFUSED("kv_get_xml" + on + "null size)", kv.kv_get_xml(h, 0, o.text.data(), nullptr));
        MAY_SUCCEED("kv_get_xml" + on + "null buffer)", kv.kv_get_xml(h, 0, nullptr, &o.size64));
        REFUSED("kv_node_register" + on + "null name)", kv.kv_node_register(
                                                            h, nullptr, [](void *) {}, o.as_word<void *>()));
        REFUSED("kv_node_register" + on + "null callback)",
                kv.kv_node_register(h, name, nullptr, o.as_word<void *>()));
        REFUSED("kv_node_register" + on + "null node)", kv.kv_node_register(
                                                            h, name, [](void *) {}, nullptr));
        REFUSED("kv_get_nodes" + on + "null category)",
                kv.kv_get_nodes(h, nullptr, o.as_word<kv_node_entry *>(), &o.size64));
        REFUSED("kv_get_nodes" + on + "null count)",
                kv.kv_get_nodes(h, "Root", o.as_word<kv_node_entry *>(), nullptr));
        MAY_SUCCEED("kv_get_nodes" + on + "null list)", kv.kv_get_nodes(h, "Root", nullptr, &o.size64));
        REFUSED("kv_get_node_info" + on + "null name)",
                kv.kv_get_node_info(h, nullptr, static_cast<kv_node_info *>(o.text.data())));
        REFUSED("kv_get_node_info" + on + "null info)", kv.kv_get_node_info(h, name, nullptr));
        REFUSED("kv_get_enum_array" + on + "null name)",
                kv.kv_get_enum_array(h, nullptr, o.numbers<kv_enum_entry>(), o.as_word<kv_enum_entry *>(),
                                     o.as_second<uint32_t>()));
        REFUSED("kv_get_enum_array" + on + "null current)",
                kv.kv_get_enum_array(h, "PixelFormat", nullptr, o.as_word<kv_enum_entry *>(),
                                     o.as_second<uint32_t>()));
        REFUSED("kv_get_enum_array" + on + "null list)",
                kv.kv_get_enum_array(h, "PixelFormat", o.numbers<kv_enum_entry>(), nullptr,
                                     o.as_second<uint32_t>()));
        REFUSED("kv_get_enum_array" + on + "null count)",
                kv.kv_get_enum_array(h, "PixelFormat", o.numbers<kv_enum_entry>(),
                                     o.as_word<kv_enum_entry *>(), nullptr));
        REFUSED("kv_get_node_state" + on + "null name)",
                kv.kv_get_node_state(h, nullptr, o.as_word<uint8_t>()));
        REFUSED("kv_get_node_state" + on + "null state)", kv.kv_get_node_state(h, name, nullptr));
        REFUSED("kv_genapi_save_ini" + on + "null path)", api.kv_genapi_save_ini(h, nullptr));
        REFUSED("kv_genapi_save_ini" + on + "path in no directory)",
                api.kv_genapi_save_ini(h, L"/nonexistent-pelorin-dir/settings.ini"));
        REFUSED(
            "kv_genapi_load_ini" + on + "null path)",
            api.kv_genapi_load_ini(h, nullptr, o.as_word<kv_settings_record *>(), o.as_second<uint32_t>()));
        REFUSED("kv_genapi_load_ini" + on + "missing file)",
                api.kv_genapi_load_ini(h, L"/nonexistent-pelorin-dir/settings.ini", nullptr, nullptr));
        REFUSED("kv_sim_register_handle" + on + "null)", api.kv_sim_register_handle(h, nullptr));
    }

    // Simulator hooks: null pointers on a registered handle, and handles
    // that were never registered.
    const uint64_t sim = sim_;
    REFUSED("kv_sim_get_xml(null size)", api.kv_sim_get_xml(sim, 0, o.text.data(), nullptr));
    REFUSED("kv_sim_get_xml(unknown file)", api.kv_sim_get_xml(sim, 9, o.text.data(), &o.size64));
    REFUSED("kv_sim_find(null name)", api.kv_sim_find(sim, nullptr, o.as_word<uint64_t>()));
    REFUSED("kv_sim_find(null module)", api.kv_sim_find(sim, "Width", nullptr));
    for (const uint64_t unknown : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}, uint64_t{0xDEADBEEF}, sim + 1,
                                   uint64_t{reinterpret_cast<uintptr_t>(device_)}}) {
        const std::string on = "(unregistered " + std::to_string(unknown) + ")";
        REFUSED("kv_sim_unregister_handle" + on, api.kv_sim_unregister_handle(unknown));
        REFUSED("kv_sim_get_xml" + on, api.kv_sim_get_xml(unknown, 0, o.text.data(), &o.size64));
        REFUSED("kv_sim_find" + on, api.kv_sim_find(unknown, "Width", o.as_word<uint64_t>()));
    }
    return rows;
}

#undef HANDLE_CALL
#undef ANY_HANDLE_CALL
#undef REFUSED
#undef MAY_SUCCEED

std::vector<info_call> HostileInput::InfoCalls() {
    std::vector<info_call> rows = {
        {"GCGetInfo", TL_INFO_GENTL_VER_MINOR,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) { return api.GCGetInfo(c, t, b, s); }},
        {"TLGetInfo", TL_INFO_GENTL_VER_MINOR,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.TLGetInfo(system_, c, t, b, s);
         }},
        {"TLGetInterfaceInfo", INTERFACE_INFO_TLTYPE,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.TLGetInterfaceInfo(system_, iface_id_.c_str(), c, t, b, s);
         }},
        {"IFGetInfo", INTERFACE_INFO_TLTYPE,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.IFGetInfo(iface_, c, t, b, s);
         }},
        {"IFGetDeviceInfo(open device)", DEVICE_INFO_TIMESTAMP_FREQUENCY,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.IFGetDeviceInfo(iface_, "device0", c, t, b, s);
         }},
        {"IFGetDeviceInfo(closed device)", DEVICE_INFO_TIMESTAMP_FREQUENCY,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.IFGetDeviceInfo(iface_, "device1", c, t, b, s);
         }},
        {"DevGetInfo", DEVICE_INFO_TIMESTAMP_FREQUENCY,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.DevGetInfo(device_, c, t, b, s);
         }},
        {"DSGetInfo", STREAM_INFO_BUF_ALIGNMENT,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.DSGetInfo(stream_, c, t, b, s);
         }},
        {"DSGetBufferInfo", BUFFER_INFO_IS_COMPOSITE,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return api.DSGetBufferInfo(stream_, session_.buffers.front(), c, t, b, s);
         }},
        {"member DSGetInfo", STREAM_INFO_BUF_ALIGNMENT,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return member.GetInfo(stream_, c, t, b, s);
         }},
        {"member DSGetBufferInfo", BUFFER_INFO_IS_COMPOSITE,
         [this](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
             return member.GetBufferInfo(stream_, session_.buffers.front(), c, t, b, s);
         }},
    };
    for (const auto &[name, port] : ModuleHandles()) {
        void *p = port;
        rows.push_back({"GCGetPortInfo(" + name + ")", PORT_INFO_PORTNAME,
                        [this, p](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                            return api.GCGetPortInfo(p, c, t, b, s);
                        }});
        rows.push_back({"GCGetPortURLInfo(" + name + ")", URL_INFO_FILENAME,
                        [this, p](int32_t c, INFO_DATATYPE *t, void *b, size_t *s) {
                            return api.GCGetPortURLInfo(p, 0, c, t, b, s);
                        }});
    }
    return rows;
}

std::vector<sized_call> HostileInput::SizedCalls() {
    // Register addresses: module tag, register number, FFFF, sub-code.
    const auto reg = [](uint64_t tag, uint64_t number, uint64_t sub = 1) {
        return tag << 48 | number << 32 | 0xFFFF0000ULL | sub;
    };
    const auto read_port = [this](void *port, uint64_t address) {
        return [this, port, address](void *b, size_t *s) { return api.GCReadPort(port, address, b, s); };
    };
    const auto with_size64 = [](std::function<GC_ERROR(void *, uint64_t *)> call) {
        return [call](void *b, size_t *s) {
            uint64_t size = *s;
            const GC_ERROR result = call(b, &size);
            *s = static_cast<size_t>(size);
            return result;
        };
    };
    void *remote = camera_;
    return {
        {"GCGetLastError",
         [this](void *b, size_t *s) {
             GC_ERROR code = 0;
             return api.GCGetLastError(&code, static_cast<char *>(b), s);
         }},
        {"TLGetInterfaceID",
         [this](void *b, size_t *s) { return api.TLGetInterfaceID(system_, 0, static_cast<char *>(b), s); },
         false, true},
        {"IFGetDeviceID",
         [this](void *b, size_t *s) { return api.IFGetDeviceID(iface_, 1, static_cast<char *>(b), s); },
         false, true},
        {"DevGetDataStreamID",
         [this](void *b, size_t *s) { return api.DevGetDataStreamID(device_, 0, static_cast<char *>(b), s); },
         false, true},
        {"GCGetPortURL(camera port)",
         [this, remote](void *b, size_t *s) { return api.GCGetPortURL(remote, static_cast<char *>(b), s); }},
        {"GCGetPortURL(interface)",
         [this](void *b, size_t *s) { return api.GCGetPortURL(iface_, static_cast<char *>(b), s); }},
        {"GCReadPort(system, description file)", read_port(system_, reg(0x1E, 0))},
        {"GCReadPort(system, ID)", read_port(system_, reg(0x1E, 11))},
        {"GCReadPort(interface, description file)", read_port(iface_, reg(0x2E, 0))},
        {"GCReadPort(interface, ID)", read_port(iface_, reg(0x2E, 9))},
        {"GCReadPort(interface, card register)", read_port(iface_, 0x10), true},
        {"GCReadPort(device, description file)", read_port(device_, reg(0x3E, 0))},
        {"GCReadPort(device, ID)", read_port(device_, reg(0x3E, 1))},
        {"GCReadPort(device, card register)", read_port(device_, 0x10), true},
        {"GCReadPort(stream, ID)", read_port(stream_, reg(0x4E, 1))},
        {"GCReadPort(camera port, bootstrap)", read_port(remote, 0x0), true},
        {"GCReadPort(camera port, device vendor)", read_port(remote, 0x2000), true},
        {"GCReadPort(camera port, end of memory)", read_port(remote, 0xFFFFFFF0ULL), true},
        {"GCReadPort(camera port, beyond 32 bits)", read_port(remote, 0x100000000ULL), true},
        {"kv_genapi_get_string(camera port)", with_size64([this, remote](void *b, uint64_t *s) {
             return api.kv_genapi_get_string(remote, "DeviceModelName", static_cast<char *>(b), s);
         })},
        {"kv_genapi_get_string(system)", with_size64([this](void *b, uint64_t *s) {
             return api.kv_genapi_get_string(system_, "TLPath", static_cast<char *>(b), s);
         })},
        {"kv_genapi_get_register(system)", with_size64([this](void *b, uint64_t *s) {
             return kv.kv_genapi_get_register(system_, "InterfaceSelectorReg", b, s);
         })},
        {"kv_get_xml(camera port)",
         with_size64([this, remote](void *b, uint64_t *s) { return kv.kv_get_xml(remote, 0, b, s); })},
        {"kv_get_xml(interface)",
         with_size64([this](void *b, uint64_t *s) { return kv.kv_get_xml(iface_, 0, b, s); })},
        {"kv_sim_get_xml(simulator file)",
         with_size64([this](void *b, uint64_t *s) { return api.kv_sim_get_xml(sim_, 0, b, s); })},
        {"kv_sim_get_xml(camera file)",
         with_size64([this](void *b, uint64_t *s) { return api.kv_sim_get_xml(sim_, 1, b, s); })},
    };
}

// ---------------------------------------------------------------------------
// The sweeps

// Null, random, closed and foreign handles on every export that takes a
// handle: before initialisation, with modules closed one level after the
// other, and with the whole tree open beside them.
TEST_F(HostileInput, HandlesOfNoOpenModuleOrOfAnotherKindAreRefused) {
    const std::vector<named_handle> garbage = garbage_handles(&some_int_, heap_block_.data());
    SweepHandles(garbage, "before GCInitLib");

    // A first tree, closed again level by level.
    ASSERT_NO_FATAL_FAILURE(OpenTree());
    std::vector<named_handle> stale = garbage;
    const auto add_stale = [&stale](std::string name, void *value) {
        stale.push_back({"closed " + name, value, kNoModule});
    };
    BUFFER_HANDLE revoked = nullptr;
    ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 64, nullptr, &revoked), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSRevokeBuffer(stream_, revoked, nullptr, nullptr), GC_ERR_SUCCESS);
    add_stale("buffer (revoked)", revoked);
    // device1's stream first, its device still open.
    add_stale("stream", other_.stream);
    add_stale("stream's buffer", other_.buffers.front());
    add_stale("stream's event", other_.event);
    ASSERT_EQ(api.DSClose(other_.stream), GC_ERR_SUCCESS);
    other_.stream = other_.event = nullptr;
    other_.buffers.clear();
    SweepHandles(stale, "stream closed");
    add_stale("device", other_.device);
    add_stale("camera port", other_.camera);
    ASSERT_EQ(api.DevClose(other_.device), GC_ERR_SUCCESS);
    other_.device = other_.camera = nullptr;
    SweepHandles(stale, "device closed");
    // device0's tree and the interface.
    add_stale("device0", session_.device);
    add_stale("device0's camera port", session_.camera);
    add_stale("device0's stream", session_.stream);
    add_stale("device0's buffer", session_.buffers.front());
    add_stale("device0's event", session_.event);
    add_stale("interface", iface_);
    ASSERT_EQ(api.IFClose(iface_), GC_ERR_SUCCESS);  // closes the devices below it too
    session_.forget();
    iface_ = device_ = camera_ = stream_ = nullptr;
    SweepHandles(stale, "interface closed");
    add_stale("system", system_);
    ASSERT_EQ(api.TLClose(system_), GC_ERR_SUCCESS);
    system_ = nullptr;
    SweepHandles(stale, "system closed");
    api.GCCloseLib();
    SweepHandles(stale, "library closed");

    // A new tree: every closed handle, garbage value and handle of another
    // kind is refused beside it. Closed addresses now taken by new modules
    // of the same kind are left out.
    ASSERT_NO_FATAL_FAILURE(OpenTree());
    std::vector<named_handle> candidates = stale;
    for (const named_handle &live : LiveHandles()) candidates.push_back(live);
    SweepHandles(candidates, "tree open");

    // Buffer handles that name no buffer of this stream.
    std::vector<named_handle> buffers = stale;
    for (const named_handle &live : LiveHandles())
        if (live.value != session_.buffers.front()) buffers.push_back(live);
    const uint8_t *base = nullptr;
    size_t size = sizeof base;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    ASSERT_EQ(api.DSGetBufferInfo(stream_, session_.buffers.front(), BUFFER_INFO_BASE, &type, &base, &size),
              GC_ERR_SUCCESS);
    buffers.push_back({"a buffer's memory", const_cast<uint8_t *>(base), kNoModule});
    const std::vector<std::pair<std::string, std::function<GC_ERROR(void *, outputs &)>>> buffer_calls = {
        {"DSQueueBuffer", [this](void *b, outputs &) { return api.DSQueueBuffer(stream_, b); }},
        {"DSRevokeBuffer",
         [this](void *b, outputs &o) {
             return api.DSRevokeBuffer(stream_, b, o.as_word<void *>(), o.as_second<void *>());
         }},
        {"DSGetBufferInfo",
         [this](void *b, outputs &o) {
             return api.DSGetBufferInfo(stream_, b, BUFFER_INFO_BASE, &o.type, o.text.data(), &o.size);
         }},
        {"member DSQueueBuffer", [this](void *b, outputs &) { return member.QueueBuffer(stream_, b); }},
        {"member DSRevokeBuffer",
         [this](void *b, outputs &o) {
             return member.RevokeBuffer(stream_, b, o.as_word<void *>(), o.as_second<void *>(), false);
         }},
        {"member DSGetBufferInfo",
         [this](void *b, outputs &o) {
             return member.GetBufferInfo(stream_, b, BUFFER_INFO_BASE, &o.type, o.text.data(), &o.size);
         }},
    };
    for (const auto &[name, call] : buffer_calls) {
        for (const named_handle &handle : buffers) {
            outputs out;
            const GC_ERROR result = call(handle.value, out);
            ExpectRefused(result, name + "(" + handle.name + ")");
            EXPECT_TRUE(out.untouched()) << name << "(" << handle.name << ") wrote through its pointers";
        }
    }
    ExpectFramesStillArrive();
}

// Every pointer a call needs, null in turn; names and IDs that name
// nothing; unknown operations and events; a buffer of SIZE_MAX bytes.
TEST_F(HostileInput, NullPointersAndUnknownNamesAreRefused) {
    ASSERT_NO_FATAL_FAILURE(OpenTree());
    ASSERT_EQ(api.DSClose(other_.stream), GC_ERR_SUCCESS);  // device1's stream again, with no buffer
    other_.stream = other_.event = nullptr;
    other_.buffers.clear();
    ASSERT_EQ(api.DevOpenDataStream(other_.device, "stream0", &other_.stream), GC_ERR_SUCCESS);
    for (const pointer_call &row : PointerCalls()) {
        outputs out;
        const GC_ERROR result = row.call(out);
        ++calls_;
        if (row.may_succeed) {
            EXPECT_TRUE(result == GC_ERR_SUCCESS || is_error_code(result))
                << row.name << " answered " << result;
        } else {
            EXPECT_TRUE(is_error_code(result)) << row.name << " answered " << result;
        }
        EXPECT_TRUE(out.within_bounds()) << row.name << " wrote beyond its outputs";
        if (result != GC_ERR_SUCCESS) {
            EXPECT_TRUE(out.text.unchanged()) << row.name << " refused, but wrote its buffer";
        }
    }
    // Nothing was announced on device1's stream by the refused calls.
    EXPECT_EQ(member.StartAcquisition(other_.stream, 0, 1), GC_ERR_BUFFER_TOO_SMALL);
    ExpectFramesStillArrive();
}

// Every info query with unknown commands, and each known command with
// buffers of 0 and 1 bytes and with SIZE_MAX as the size it is told; then
// the calls that copy texts, files and register bytes the same way.
TEST_F(HostileInput, InfoAndCopyCallsKeepToTheBufferTheyAreGiven) {
    ASSERT_NO_FATAL_FAILURE(OpenTree());
    ASSERT_EQ(other_.close(), GC_ERR_SUCCESS);  // device1 answers from the interface's records
    const int32_t unknown_commands[] = {-1, 999, 1000, 1001, 4096, INT32_MAX, INT32_MIN};
    constexpr size_t kLarge = 64 * 1024;
    guarded_bytes empty(0), one(1), large(kLarge);
    for (const info_call &row : InfoCalls()) {
        const auto probe = [&](int32_t command, guarded_bytes &buffer, size_t told, bool must_refuse,
                               const char *what) {
            buffer.refill();
            size_t size = told;
            INFO_DATATYPE type = kUnsetType;
            const GC_ERROR result = row.call(command, &type, buffer.data(), &size);
            const std::string call = row.name + "(" + std::to_string(command) + ", " + what + ")";
            if (must_refuse) {
                ExpectRefused(result, call);
            } else {
                ++calls_;
                EXPECT_TRUE(result == GC_ERR_SUCCESS || is_error_code(result))
                    << call << " answered " << result;
            }
            EXPECT_TRUE(buffer.unchanged_beyond(buffer.capacity())) << call << " wrote past the buffer";
            if (result == GC_ERR_SUCCESS) {
                EXPECT_LE(size, buffer.capacity()) << call;
                EXPECT_TRUE(buffer.unchanged_beyond(size)) << call << " wrote more than it reports";
            } else {
                EXPECT_TRUE(buffer.unchanged()) << call << " refused, but wrote its buffer";
            }
            return result;
        };
        for (int32_t command : unknown_commands) probe(command, large, kLarge, true, "unknown command");
        probe(row.last + 1, large, kLarge, true, "the first unknown command");
        for (int32_t command = 0; command <= row.last; ++command) {
            // What the value needs, from a size query.
            size_t needed = 0;
            INFO_DATATYPE type = kUnsetType;
            const GC_ERROR queried = row.call(command, &type, nullptr, &needed);
            ++calls_;
            EXPECT_TRUE(queried == GC_ERR_SUCCESS || is_error_code(queried))
                << row.name << "(" << command << ") size query";
            probe(command, empty, 0, true, "0 bytes");
            probe(command, one, 1, queried != GC_ERR_SUCCESS || needed > 1, "1 byte");
            const GC_ERROR huge = probe(command, large, SIZE_MAX, false, "SIZE_MAX bytes");
            if (queried == GC_ERR_SUCCESS) {
                EXPECT_EQ(huge, GC_ERR_SUCCESS) << row.name << "(" << command << ")";
            }
        }
    }

    // Texts, files and register bytes: 0 and 1 bytes, SIZE_MAX told of a
    // buffer larger than anything the library holds, and an honest large
    // buffer for the calls that clear the whole buffer they are told of.
    constexpr size_t kHuge = 4 * 1024 * 1024;
    guarded_bytes huge(kHuge);
    for (const sized_call &row : SizedCalls()) {
        const auto probe = [&](guarded_bytes &buffer, size_t told, const char *what) {
            buffer.refill();
            size_t size = told;
            const GC_ERROR result = row.call(buffer.data(), &size);
            const std::string call = row.name + "(" + what + ")";
            ++calls_;
            EXPECT_TRUE(result == GC_ERR_SUCCESS ||
                        (row.port_codes ? is_port_error_code(result) : is_error_code(result)))
                << call << " answered " << result;
            EXPECT_TRUE(buffer.unchanged_beyond(buffer.capacity())) << call << " wrote past the buffer";
            if (result == GC_ERR_SUCCESS && size <= buffer.capacity() && !row.zeroes_whole_buffer) {
                EXPECT_TRUE(buffer.unchanged_beyond(size)) << call << " wrote more than it reports";
            }
            return result;
        };
        const GC_ERROR none = probe(empty, 0, "0 bytes");
        EXPECT_NE(none, GC_ERR_SUCCESS) << row.name << " copied nothing into 0 bytes and succeeded";
        probe(one, 1, "1 byte");
        if (row.zeroes_whole_buffer) {
            probe(huge, kHuge, "4 MiB");
        } else {
            probe(huge, SIZE_MAX, "SIZE_MAX bytes");
        }
    }

    // Port writes the registers refuse: the description file register of
    // each module and camera memory beyond 32 bits, 0, 1 and SIZE_MAX bytes.
    const std::vector<std::pair<std::string, std::pair<void *, uint64_t>>> writes = {
        {"system", {system_, 0x001E0000FFFF0001ULL}}, {"interface", {iface_, 0x002E0000FFFF0001ULL}},
        {"device", {device_, 0x003E0000FFFF0001ULL}}, {"stream", {stream_, 0x004E0000FFFF0001ULL}},
        {"camera port", {camera_, 0x100000000ULL}},
    };
    for (const auto &[name, target] : writes) {
        for (const size_t told : {size_t{0}, size_t{1}, SIZE_MAX}) {
            size_t size = told;
            const GC_ERROR result = api.GCWritePort(target.first, target.second, memory_.data(), &size);
            ExpectRefused(result, "GCWritePort(" + name + ", " + std::to_string(told) + " bytes)", true);
        }
    }
    ExpectFramesStillArrive();
}

// EventGetData copies the new-buffer data only into a buffer that holds it,
// and a refused call leaves the delivered buffer to the next good call.
TEST_F(HostileInput, EventDataGoesOnlyIntoABufferThatHoldsIt) {
    ASSERT_NO_FATAL_FAILURE(OpenTree());
    ASSERT_EQ(session_.start(), GC_ERR_SUCCESS);
    // The buffers waiting for delivery; with none queued, no frame comes.
    const auto waiting = [&] { return awaiting_delivery(api, stream_); };
    for (int i = 0; i < 500 && waiting() < session_.buffers.size(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(waiting(), session_.buffers.size()) << "the camera filled every buffer";

    guarded_bytes data(sizeof(EVENT_NEW_BUFFER_DATA));
    for (const size_t told : {size_t{0}, size_t{1}, sizeof(EVENT_NEW_BUFFER_DATA) - 1}) {
        guarded_bytes small(told);
        size_t size = told;
        const GC_ERROR result = api.EventGetData(session_.event, small.data(), &size, 2000);
        ExpectRefused(result, "EventGetData(" + std::to_string(told) + " bytes)");
        EXPECT_TRUE(small.unchanged()) << "EventGetData wrote into " << told << " bytes";
    }
    for (int i = 0; i < 2; ++i) {
        ExpectRefused(api.EventGetData(session_.event, data.data(), nullptr, 2000),
                      "EventGetData(null size)");
        EXPECT_TRUE(data.unchanged()) << "EventGetData wrote without a size";
    }
    // The refused calls took no buffer: all of them still wait.
    EXPECT_EQ(waiting(), session_.buffers.size());
    // Without a buffer for the data the call takes a filled buffer and
    // writes nothing; flushing the output queue to the input gives it back.
    size_t untouched = 12345;
    ASSERT_EQ(api.EventGetData(session_.event, nullptr, &untouched, 2000), GC_ERR_SUCCESS);
    ++calls_;
    EXPECT_EQ(untouched, 12345u);
    EXPECT_EQ(waiting(), session_.buffers.size() - 1);
    // The consumer takes the other filled buffers too, so that every buffer
    // is out of the queues: a buffer still in the output queue would also
    // be queued again by the flush below and be filled while it waits.
    for (size_t i = 1; i < session_.buffers.size(); ++i) {
        EVENT_NEW_BUFFER_DATA taken{};
        size_t taken_size = sizeof taken;
        ASSERT_EQ(api.EventGetData(session_.event, &taken, &taken_size, 2000), GC_ERR_SUCCESS);
    }
    ASSERT_EQ(waiting(), 0u);
    ASSERT_EQ(api.DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_TO_INPUT), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    // The buffers go on carrying whole frames.
    EXPECT_EQ(session_.grab(8), 8);
    size_t size = SIZE_MAX;
    data.refill();
    ASSERT_EQ(api.EventGetData(session_.event, data.data(), &size, 5000), GC_ERR_SUCCESS);
    ++calls_;
    EXPECT_EQ(size, sizeof(EVENT_NEW_BUFFER_DATA));
    EXPECT_TRUE(data.unchanged_beyond(sizeof(EVENT_NEW_BUFFER_DATA)));
    EVENT_NEW_BUFFER_DATA delivered{};
    std::memcpy(&delivered, data.data(), sizeof delivered);
    EXPECT_NE(std::find(session_.buffers.begin(), session_.buffers.end(), delivered.BufferHandle),
              session_.buffers.end());
    EXPECT_TRUE(session_.holds_camera_frame(delivered.BufferHandle));
    EXPECT_EQ(api.DSQueueBuffer(stream_, delivered.BufferHandle), GC_ERR_SUCCESS);
    EXPECT_EQ(session_.stop(), GC_ERR_SUCCESS);
    ExpectFramesStillArrive();
}

}  // namespace
