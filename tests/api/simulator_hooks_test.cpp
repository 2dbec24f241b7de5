// The simulator hooks through the exported API: registering devices and data
// streams, the handle checks, the two description files and the module whose
// node map knows a feature.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "api_fixture.h"

namespace {

constexpr uint64_t kSimulatorOffset = 0x001A0000FFFF0000ULL;
void *const kGarbage = reinterpret_cast<void *>(0xDEADBEEF);

uint64_t value_of(const void *handle) { return reinterpret_cast<uintptr_t>(handle); }

class SimulatorHooks : public DeviceTest {
protected:

    void OpenStream() {
        OpenDevice();
        if (!HasFatalFailure()) OpenDataStream();
    }
    uint64_t Register(void *handle) {
        uint64_t sim = 0;
        EXPECT_EQ(api.kv_sim_register_handle(handle, &sim), GC_ERR_SUCCESS);
        return sim;
    }
    // The whole description file `which` of `sim`, after a size query.
    std::vector<uint8_t> SimXml(uint64_t sim, uint32_t which) {
        uint64_t size = 0;
        EXPECT_EQ(api.kv_sim_get_xml(sim, which, nullptr, &size), GC_ERR_SUCCESS);
        std::vector<uint8_t> bytes(size);
        EXPECT_EQ(api.kv_sim_get_xml(sim, which, bytes.data(), &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, bytes.size());
        return bytes;
    }
    // The module that kv_sim_find answers for `name`, or 0 with a failure.
    uint64_t Find(uint64_t sim, const char *name) {
        uint64_t module = 7;
        const GC_ERROR result = api.kv_sim_find(sim, name, &module);
        EXPECT_EQ(result, GC_ERR_SUCCESS) << name;
        return result == GC_ERR_SUCCESS ? module : 0;
    }
};

TEST_F(SimulatorHooks, RegisterDevicesAndStreamsOnceAndRefuseOtherHandles) {
    InitLib();
    EXPECT_EQ(api.kv_sim_unregister_handle(1), GC_ERR_NOT_INITIALIZED);  // no system
    EXPECT_EQ(api.kv_sim_get_xml(1, 0, nullptr, nullptr), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.kv_sim_find(1, nullptr, nullptr), GC_ERR_NOT_INITIALIZED);
    api.GCCloseLib();
    OpenStream();

    const uint64_t stream_sim = Register(stream_);
    EXPECT_EQ(stream_sim, value_of(stream_) + kSimulatorOffset);
    uint64_t sim = 7;
    EXPECT_EQ(api.kv_sim_register_handle(stream_, &sim), GC_ERR_INVALID_ADDRESS);
    EXPECT_EQ(sim, stream_sim);
    const uint64_t device_sim = Register(device_);
    EXPECT_EQ(device_sim, value_of(device_) + kSimulatorOffset);

    // Only devices and streams; the hooks leave the last error alone.
    int64_t value = 0;
    EXPECT_EQ(api.kv_genapi_get_integer(kGarbage, "Width", &value), GC_ERR_NOT_AVAILABLE);
    for (void *other : {static_cast<void *>(iface_), static_cast<void *>(system_), kGarbage}) {
        sim = 7;
        EXPECT_EQ(api.kv_sim_register_handle(other, &sim), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(sim, 0u);
    }
    EXPECT_EQ(api.kv_sim_register_handle(nullptr, &sim), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_register_handle(device_, nullptr), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_unregister_handle(0), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_get_xml(device_sim, 0, nullptr, nullptr), GC_ERR_INVALID_HANDLE);
    uint64_t size = 0, module = 0;
    EXPECT_EQ(api.kv_sim_get_xml(0, 0, nullptr, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_find(device_sim, nullptr, &module), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_find(device_sim, "Width", nullptr), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_get_xml(device_sim + 1, 0, nullptr, &size), GC_ERR_INVALID_ADDRESS);
    EXPECT_EQ(LastError().first, GC_ERR_NOT_AVAILABLE);

    // Unregistered: the handle is unknown.
    EXPECT_EQ(api.kv_sim_unregister_handle(device_sim), GC_ERR_SUCCESS);
    EXPECT_EQ(api.kv_sim_get_xml(device_sim, 0, nullptr, &size), GC_ERR_INVALID_ADDRESS);
    EXPECT_EQ(api.kv_sim_unregister_handle(device_sim), GC_ERR_INVALID_HANDLE);

    // A stream closed after registration: its handle stays registered but
    // reaches no module until it is unregistered.
    ASSERT_EQ(api.DSClose(stream_), GC_ERR_SUCCESS);
    EXPECT_EQ(api.kv_sim_get_xml(stream_sim, 0, nullptr, &size), GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.kv_sim_find(stream_sim, "StreamID", &module), GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.kv_sim_unregister_handle(stream_sim), GC_ERR_SUCCESS);
}

TEST_F(SimulatorHooks, AnswerTheDescriptionFilesAndTheModuleOfAFeature) {
    OpenStream();
    const uint64_t device_sim = Register(device_);
    const uint64_t stream_sim = Register(stream_);

    // The simulator's own file, as the build put it beside the library.
    std::string path = cti_path();
    path.erase(path.find_last_of('/') + 1);
    std::ifstream file(path + "xml/cxp/Lumora_Cxplinkl_TLSim_1_1_0.zip", std::ios::binary);
    const std::vector<uint8_t> on_disk{std::istreambuf_iterator<char>(file), {}};
    const std::vector<uint8_t> own = SimXml(stream_sim, 0);
    ASSERT_GT(own.size(), 2u);
    EXPECT_EQ(std::string(own.begin(), own.begin() + 2), "PK");
    EXPECT_EQ(own, on_disk);
    std::vector<uint8_t> small(own.size() - 1);
    uint64_t size = small.size();
    EXPECT_EQ(api.kv_sim_get_xml(stream_sim, 0, small.data(), &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, own.size());
    EXPECT_EQ(api.kv_sim_get_xml(stream_sim, 7, nullptr, &size), GC_ERR_NOT_IMPLEMENTED);

    // Before DevGetPort the camera has neither port nor node map.
    uint64_t module = 7;
    EXPECT_EQ(api.kv_sim_get_xml(device_sim, 1, nullptr, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.kv_sim_find(device_sim, "Width", &module), KV_ERR_FEATURE_NOT_FOUND);
    EXPECT_EQ(module, 0u);

    // The camera's file is what its port's URL names.
    PORT_HANDLE remote = nullptr;
    ASSERT_EQ(api.DevGetPort(device_, &remote), GC_ERR_SUCCESS);
    char url[256] = {};
    size_t url_size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(remote, url, &url_size), GC_ERR_SUCCESS);
    unsigned long long address = 0, length = 0;
    ASSERT_EQ(std::sscanf(url, "local:%*[^;];%llx;%llx", &address, &length), 2) << url;
    std::vector<uint8_t> through_port(length);
    size_t read = through_port.size();
    ASSERT_EQ(api.GCReadPort(remote, address, through_port.data(), &read), GC_ERR_SUCCESS);
    const std::vector<uint8_t> camera = SimXml(stream_sim, 1);
    EXPECT_EQ(camera, through_port);
    EXPECT_EQ(std::string(camera.begin(), camera.begin() + 2), "PK");

    // Device, camera, interface, system, then the data stream.
    EXPECT_EQ(Find(device_sim, "DeviceID"), value_of(device_));
    EXPECT_EQ(Find(device_sim, "Width"), value_of(remote));
    EXPECT_EQ(Find(stream_sim, "Width"), value_of(remote));
    EXPECT_EQ(Find(device_sim, "InterfaceID"), value_of(iface_));
    EXPECT_EQ(Find(device_sim, "TLVendorName"), value_of(system_));
    EXPECT_EQ(Find(stream_sim, "StreamID"), value_of(stream_));
    EXPECT_EQ(Find(device_sim, "StreamID"), value_of(device_));
    module = 7;
    EXPECT_EQ(api.kv_sim_find(device_sim, "NoSuchFeature", &module), KV_ERR_FEATURE_NOT_FOUND);
    EXPECT_EQ(module, 0u);
}

}  // namespace
