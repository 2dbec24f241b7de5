// Log language and level through the producer API. The messages come from a
// real call: IFOpenDevice logs its outcome as a Chinese/English pair.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "api_fixture.h"

namespace {

// "连接 cam0 相机失败(-1006)!\n" in GBK.
const std::string kChineseOpenError =
    "[ERROR] \xC1\xAC\xBD\xD3 cam0 \xCF\xE0\xBB\xFA\xCA\xA7\xB0\xDC(-1006)!\n";
const std::string kEnglishOpenError = "[ERROR] Open cam0 error(-1006)!\n";

std::string open_device_output(ProducerApi &api) {
    testing::internal::CaptureStdout();
    DEV_HANDLE device = nullptr;
    EXPECT_EQ(api.IFOpenDevice(reinterpret_cast<IF_HANDLE>(0x10), "cam0", DEVICE_ACCESS_CONTROL,
                               &device),
              GC_ERR_INVALID_HANDLE);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST_F(ProducerTest, MessagePairsFollowTheLanguageSetting) {
    InitLib();
    // Default: Chinese only, as GBK bytes.
    std::string out = open_device_output(api);
    EXPECT_NE(out.find(kChineseOpenError), std::string::npos) << out;
    EXPECT_EQ(out.find("Open cam0"), std::string::npos);

    api.kv_set_language(0);
    out = open_device_output(api);
    EXPECT_NE(out.find(kEnglishOpenError), std::string::npos) << out;
    EXPECT_EQ(out.find(kChineseOpenError), std::string::npos);

    api.kv_set_language(7);  // anything else: both, Chinese first
    out = open_device_output(api);
    const size_t chinese = out.find(kChineseOpenError);
    const size_t english = out.find(kEnglishOpenError);
    ASSERT_NE(chinese, std::string::npos) << out;
    ASSERT_NE(english, std::string::npos) << out;
    EXPECT_LT(chinese, english);
}

TEST_F(ProducerTest, LogFileReceivesLinesAtTheChosenLevel) {
    InitLib();
    api.kv_set_language(0);
    char path_template[] = "/tmp/pelorin-log-XXXXXX";
    const int fd = mkstemp(path_template);
    ASSERT_GE(fd, 0);
    close(fd);

    testing::internal::CaptureStdout();
    EXPECT_EQ(api.kv_init_log(path_template, 4), GC_ERR_SUCCESS);  // errors only
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");  // the info start line is below the new level

    out = open_device_output(api);
    EXPECT_NE(out.find(kEnglishOpenError), std::string::npos);
    EXPECT_EQ(out.find("[INFO]"), std::string::npos);  // the info "\n" line is dropped
    EXPECT_EQ(api.kv_uninit_log(), GC_ERR_SUCCESS);

    std::ifstream in(path_template);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_NE(content.str().find("[ERROR] Open cam0 error(-1006)!"), std::string::npos)
        << content.str();
    std::remove(path_template);

    // Debugger mode: no path. The start line reports it, at the info level.
    testing::internal::CaptureStdout();
    EXPECT_EQ(api.kv_init_log(nullptr, 2), GC_ERR_SUCCESS);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "[INFO]  Start log(windbg mode):0\n");
    EXPECT_EQ(api.kv_uninit_log(), GC_ERR_SUCCESS);
}
