// Handle resolution over a module tree built in memory.
#include <gtest/gtest.h>

#include <cstdlib>

#include "entry/handle_resolver.h"
#include "entry/library_state.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "modules/cgentl_interface.h"
#include "modules/ctl_system.h"

using namespace pelorin;

namespace {

// A device whose remote-port token can be set, as DevGetPort will.
class TokenDevice : public CGentlDevice {
public:
    using CGentlDevice::CGentlDevice;
    void issue_token(uintptr_t token) { remote_port_token_ = token; }
    void attach_stream(CGentlDataStream *stream) { stream_places().push_back(stream); }
    void detach_streams() { stream_places().clear(); }
};

class ResolveHandleTest : public testing::Test {
protected:
    void SetUp() override {
        LibraryState &lib = library();
        system_ = new CTLSystem;
        setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 0);
        ASSERT_TRUE(system_->Init(1024));
        lib.TheSystem = system_;
        lib.LibInitialized = 1;
        // Two interface slots, the first one not open.
        iface_ = new CGentlInterface(system_);
        system_->interface_list().push_back({"", 0, nullptr});
        system_->interface_list().push_back({"", 1, iface_});
        device_ = new TokenDevice(iface_);
        iface_->device_list().push_back({"device0", 0, nullptr});
        iface_->device_list().push_back({"device1", 1, device_});
        stream_ = new CGentlDataStream;
        device_->attach_stream(stream_);
    }
    void TearDown() override {
        LibraryState &lib = library();
        lib.LibInitialized = 0;
        lib.TheSystem = nullptr;
        delete system_;  // closes interface, device and stream
    }

    CTLSystem *system_ = nullptr;
    CGentlInterface *iface_ = nullptr;
    TokenDevice *device_ = nullptr;
    CGentlDataStream *stream_ = nullptr;
};

}  // namespace

TEST_F(ResolveHandleTest, EachModuleResolvesToItsLevelAndOwner) {
    void *owner = nullptr;
    EXPECT_EQ(ResolveHandle(system_, &owner), kLevelSystem);
    EXPECT_EQ(owner, system_);
    EXPECT_EQ(ResolveHandle(iface_, &owner), kLevelInterface);
    EXPECT_EQ(owner, iface_);
    EXPECT_EQ(ResolveHandle(device_, &owner), kLevelDevice);
    EXPECT_EQ(owner, device_);
    EXPECT_EQ(ResolveHandle(stream_, &owner), kLevelDataStream);
    EXPECT_EQ(owner, device_);  // a stream is owned by its device

    // The remote port token only resolves once issued.
    const uintptr_t token = 0x00FFFF0000001234ull;
    EXPECT_EQ(ResolveHandle(reinterpret_cast<void *>(token), &owner), kLevelNone);
    EXPECT_EQ(owner, nullptr);
    device_->issue_token(token);
    EXPECT_EQ(ResolveHandle(reinterpret_cast<void *>(token), &owner), kLevelRemoteDevice);
    EXPECT_EQ(owner, device_);
}

TEST_F(ResolveHandleTest, UnknownClosedAndUninitialisedHandlesResolveToNothing) {
    void *owner = reinterpret_cast<void *>(0x1);
    EXPECT_EQ(ResolveHandle(nullptr, &owner), kLevelNone);
    EXPECT_EQ(ResolveHandle(reinterpret_cast<void *>(0xDEADBEEF), &owner), kLevelNone);

    // A closed stream is just a value afterwards.
    device_->detach_streams();
    EXPECT_EQ(ResolveHandle(stream_, &owner), kLevelNone);
    delete stream_;

    // Not initialised: -1 and the owner is left untouched.
    library().LibInitialized = 0;
    owner = reinterpret_cast<void *>(0x77);
    EXPECT_EQ(ResolveHandle(system_, &owner), kLevelNone);
    EXPECT_EQ(owner, reinterpret_cast<void *>(0x77));
}
