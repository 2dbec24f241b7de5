// The settings file beside the library: defaults, values, writes that keep
// the rest of the file, and malformed content.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "features/settings_file.h"

namespace {

namespace fs = std::filesystem;
using pelorin::features::LinkConfigName;
using pelorin::features::settings_file;

class SettingsFile : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pelorin-ini-XXXXXX";
        dir_ = mkdtemp(name);
        path_ = (dir_ / "pelorin_cxp_ini.dll").string();
    }
    void TearDown() override { fs::remove_all(dir_); }

    void write(const std::string &text) { std::ofstream(path_, std::ios::binary) << text; }
    std::string content() const {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    fs::path dir_;
    std::string path_;
};

TEST_F(SettingsFile, MissingFileOrKeyGivesTheDefault) {
    settings_file missing(path_);
    EXPECT_FALSE(missing.exists());
    EXPECT_EQ(missing.read_int("Interface", "CXP_Mode", 1), 1);

    write("; link settings\r\n[Interface]\r\nCXP_Mode=3\r\nCxpLinkConfiguration_A=0x40058\r\n"
          "TivraDefault = -1\r\n[SystemInfo]\r\nOpenUserSet=1 ; on\r\nopen_userset_if_0=abc\r\n");
    settings_file file(path_);
    EXPECT_TRUE(file.exists());
    EXPECT_EQ(file.read_int("Interface", "CXP_Mode", 1), 3);
    EXPECT_EQ(file.read_int("Interface", "CxpLinkConfiguration_A", 0), 0x40058);
    EXPECT_EQ(file.read_int("Interface", "TivraDefault", 2), -1);
    EXPECT_EQ(file.read_int("Interface", "CxpLinkConfiguration_B", 7), 7);
    EXPECT_EQ(file.read_int("SystemInfo", "OpenUserSet", 0), 1);
    EXPECT_EQ(file.read_int("Missing", "OpenUserSet", 5), 5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(file.read_int("SystemInfo", "open_userset_if_0", 0), 0);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("open_userset_if_0 = \"abc\" is not an integer"), std::string::npos) << log;
}

TEST_F(SettingsFile, WritingAKeyKeepsTheOtherKeysAndComments) {
    write("# written by the installer\n[Interface]\n# mode of standard cards\nCXP_Mode=1\n"
          "[SystemInfo]\nOpenUserSet=0\n");
    {
        settings_file file(path_);
        ASSERT_TRUE(file.write_int("SystemInfo", "open_userset_if_2", 1));
        ASSERT_TRUE(file.write_int("Interface", "CXP_Mode", 2));
    }
    const std::string text = content();
    EXPECT_NE(text.find("# written by the installer"), std::string::npos) << text;
    EXPECT_NE(text.find("# mode of standard cards"), std::string::npos) << text;
    settings_file reread(path_);
    EXPECT_EQ(reread.read_int("Interface", "CXP_Mode", 1), 2);
    EXPECT_EQ(reread.read_int("SystemInfo", "OpenUserSet", 9), 0);
    EXPECT_EQ(reread.read_int("SystemInfo", "open_userset_if_2", 0), 1);

    // A missing file is created by the first write.
    fs::remove(path_);
    settings_file fresh(path_);
    ASSERT_TRUE(fresh.write_int("SystemInfo", "OpenUserSet", 1));
    EXPECT_EQ(settings_file(path_).read_int("SystemInfo", "OpenUserSet", 0), 1);
}

TEST_F(SettingsFile, MalformedContentGivesDefaultsAndIsNeverOverwritten) {
    const std::string garbage = "CXP_Mode=3 before any section\n[Interface\n\x01\x02\n";
    write(garbage);
    testing::internal::CaptureStdout();
    settings_file file(path_);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(file.exists());
    EXPECT_TRUE(file.malformed());
    EXPECT_NE(log.find("cannot be read"), std::string::npos) << log;
    EXPECT_EQ(file.read_int("Interface", "CXP_Mode", 1), 1);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(file.write_int("Interface", "CXP_Mode", 2));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(content(), garbage);

    // A file that cannot be written.
    fs::remove(path_);
    settings_file unwritable((dir_ / "no/such/dir/pelorin_cxp_ini.dll").string());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(unwritable.write_int("Interface", "CXP_Mode", 2));
    testing::internal::GetCapturedStdout();
}

TEST(LinkConfiguration, NamesEveryCodeOfTheTable) {
    EXPECT_STREQ(LinkConfigName(0), "Default");
    EXPECT_STREQ(LinkConfigName(1), "Auto");
    const char *rates[] = {"CXP1", "CXP3", "CXP6", "CXP10", "CXP12"};
    const uint32_t codes[] = {0x28, 0x38, 0x48, 0x50, 0x58};
    for (uint32_t links = 1; links <= 4; ++links)
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(std::string(LinkConfigName(links << 16 | codes[i])),
                      std::string(rates[i]) + "_X" + std::to_string(links));
    for (uint32_t unknown : {0x2u, 0x10029u, 0x50058u, 0x00058u, 0xFFFFFFFFu})
        EXPECT_STREQ(LinkConfigName(unknown), "Unknown configuration") << std::hex << unknown;
}

}  // namespace

namespace {

// The documented example is a valid settings file with the defaults.
TEST(SettingsFileExample, ParsesAndHoldsTheDefaults) {
    pelorin::features::settings_file example(PELORIN_SOURCE_DIR "/docs/pelorin_cxp_ini.example");
    ASSERT_TRUE(example.exists());
    EXPECT_FALSE(example.malformed());
    EXPECT_EQ(example.read_int("Interface", "TivraDefault", -5), 2);
    EXPECT_EQ(example.read_int("Interface", "CXP_Mode", -5), 1);
    EXPECT_EQ(example.read_int("Interface", "CxpLinkConfiguration_D", -5), 0);
    EXPECT_EQ(example.read_int("SystemInfo", "OpenUserSet", -5), 0);
}

}  // namespace
