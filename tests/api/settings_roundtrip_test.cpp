// Settings files of a real device through the exported API: the camera's
// and the device port's features saved, changed, and restored by loading.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "api_fixture.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::private_gentl_dir;

class SettingsRoundTrip : public DeviceTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};

    // Sets every feature of `values` ("name=value"), each as text.
    void Set(void *handle, std::initializer_list<std::pair<const char *, const char *>> values) {
        for (const auto &[name, value] : values)
            ASSERT_EQ(api.kv_genapi_set_string(handle, name, value), 0) << name << "=" << value;
    }
    std::string Text(void *handle, const char *name) {
        char text[256] = {};
        uint64_t size = sizeof text;
        EXPECT_EQ(api.kv_genapi_get_string(handle, name, text, &size), 0) << name;
        return text;
    }
    std::wstring Path(const char *file) {
        const std::string path = (dir_.path() / file).string();
        return std::wstring(path.begin(), path.end());
    }
    std::string Saved(void *handle, const char *file) {
        EXPECT_EQ(api.kv_genapi_save_ini(handle, Path(file).c_str()), 0) << file;
        std::stringstream text;
        text << std::ifstream(dir_.path() / file).rdbuf();
        return text.str();
    }
    // Loads `file` and checks that every member of it now holds its value;
    // the number of members.
    uint32_t Restore(void *handle, const char *file) {
        kv_settings_record *records = nullptr;
        uint32_t count = 0;
        EXPECT_EQ(api.kv_genapi_load_ini(handle, Path(file).c_str(), &records, &count), 0) << file;
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(records[i].result, 0) << records[i].key;
        return count;
    }
};

TEST_F(SettingsRoundTrip, CameraAndDeviceFeaturesComeBackFromTheirFiles) {
    OpenCamera();
    Set(camera_, {{"Width", "2048"}, {"Height", "1500"}, {"OffsetX", "64"}, {"PixelFormat", "Mono12"},
                  {"ExposureTime", "2500.5"}, {"TriggerMode", "On"}});
    Set(device_, {{"AreaScanFramesPerBuffer", "4"}, {"RemoteReadStride", "256"},
                  {"TriggerPulseWidth", "12.5"}});
    const std::string camera_file = Saved(camera_, "camera.json");
    const std::string device_file = Saved(device_, "device.json");
    EXPECT_NE(camera_file.find("\"Width\":2048"), std::string::npos) << camera_file;
    EXPECT_NE(camera_file.find("\"PixelFormat\":\"Mono12\""), std::string::npos) << camera_file;
    EXPECT_NE(device_file.find("\"RemoteReadStride\":256"), std::string::npos) << device_file;

    // Width 2048 fits again only once OffsetX is back: the loader's second pass.
    Set(camera_, {{"OffsetX", "0"}, {"Width", "1024"}, {"OffsetX", "4096"}, {"Height", "600"},
                  {"PixelFormat", "Mono8"}, {"ExposureTime", "100"}, {"TriggerMode", "Off"}});
    Set(device_, {{"AreaScanFramesPerBuffer", "1"}, {"RemoteReadStride", "100"},
                  {"TriggerPulseWidth", "3"}});
    const uint32_t camera_members = Restore(camera_, "camera.json");
    const uint32_t device_members = Restore(device_, "device.json");
    EXPECT_GE(camera_members, 8u);
    EXPECT_GE(device_members, 5u);
    EXPECT_EQ(Text(camera_, "Width"), "2048");
    EXPECT_EQ(Text(camera_, "OffsetX"), "64");
    EXPECT_EQ(Text(camera_, "PixelFormat"), "Mono12");
    EXPECT_EQ(Text(device_, "RemoteReadStride"), "256");
    double exposure = 0;
    ASSERT_EQ(api.kv_genapi_get_float(camera_, "ExposureTime", &exposure), 0);
    EXPECT_NEAR(exposure, 2500.5, 1e-3);
    // Every saved feature holds what was saved: saving again gives the same files.
    EXPECT_EQ(Saved(camera_, "camera_again.json"), camera_file);
    EXPECT_EQ(Saved(device_, "device_again.json"), device_file);
    std::printf("restored %u camera and %u device features\n", camera_members, device_members);
}

}  // namespace
