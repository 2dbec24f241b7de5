// GCInitLib against the emulated bus: a failed enumeration leaves the library
// uninitialised, releases the guard and can be retried in the same process.
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include <cstdlib>

#include "diag/crash_handler.h"
#include "diag/instance_guard.h"
#include "emulator/pcie_bus.h"
#include "private_runtime_dir.h"
#include "gentl_base/error_codes.h"
#include "pelorin/gentl.h"

namespace {

class LibraryInitTest : public testing::Test {
protected:
    void SetUp() override {
        char dir_template[] = "/tmp/pelorin-init-XXXXXX";
        dir_ = mkdtemp(dir_template);
        setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    }
    void TearDown() override {
        GCCloseLib();
        pelorin::emu::pcie_bus::system_bus().reset();
        unlink(pelorin::diag::InstanceLockPath().c_str());
        rmdir(dir_.c_str());
        unsetenv("XDG_RUNTIME_DIR");
    }
    std::string dir_;
};

}  // namespace

TEST_F(LibraryInitTest, FailedEnumerationReleasesTheGuardAndCanBeRetried) {
    pelorin::testing_support::use_private_runtime_dir();
    pelorin::emu::pcie_bus::system_bus().set_cards({});
    testing::internal::CaptureStdout();
    EXPECT_EQ(GCInitLib(), GC_ERR_ERROR);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("\xD5\xD2\xB5\xBD"), std::string::npos) << out;  // GBK text of the no-card message
    EXPECT_EQ(pelorin::LastError(), GC_ERR_ERROR);
    EXPECT_TRUE(CrashHandlerInstalled());  // installed whatever the enumeration gave

    // Still uninitialised: TLOpen answers -1002.
    TL_HANDLE system = nullptr;
    EXPECT_EQ(TLOpen(&system), GC_ERR_NOT_INITIALIZED);

    // The guard was given back, so the retry succeeds once a card is there.
    pelorin::emu::pcie_bus::system_bus().reset();
    EXPECT_EQ(GCInitLib(), GC_ERR_SUCCESS);
    setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 0);
    EXPECT_EQ(TLOpen(&system), GC_ERR_SUCCESS);
    EXPECT_EQ(TLClose(system), GC_ERR_SUCCESS);
}
