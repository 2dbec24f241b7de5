// How the library finds its directory through the GenTL path variables and
// reads the module description files below it.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "gentl_base/error_codes.h"
#include "modules/tl_info.h"
#include "nodemap/module_files.h"

namespace {

namespace fs = std::filesystem;
using pelorin::nodemap::FindCtiDirectory;
using pelorin::nodemap::ReadModuleXmlFile;
using pelorin::nodemap::split_path_list;

void write_file(const fs::path &path, const std::string &content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// A scratch tree with a directory holding the library and one without; the
// path variables and the library directory are restored afterwards.
class LibraryDirectory : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/pelorin-path-XXXXXX";
        root_ = mkdtemp(name);
        write_file(root_ / "with/pelorin_cxp.cti", "");
        write_file(root_ / "with/xml/cxp/Module_1_0_0.zip", "PK-description");
        fs::create_directories(root_ / "without");
        save("GENICAM_GENTL64_PATH", saved_first_);
        save("GENICAM_GENTL64_PATH_2ND", saved_second_);
        saved_directory_ = pelorin::library_directory();
    }
    void TearDown() override {
        restore("GENICAM_GENTL64_PATH", saved_first_);
        restore("GENICAM_GENTL64_PATH_2ND", saved_second_);
        pelorin::set_library_directory(saved_directory_.c_str());
        fs::remove_all(root_);
    }

    static void save(const char *name, std::vector<std::string> &slot) {
        if (const char *value = getenv(name)) slot.push_back(value);
    }
    static void restore(const char *name, const std::vector<std::string> &slot) {
        if (slot.empty())
            unsetenv(name);
        else
            setenv(name, slot.front().c_str(), 1);
    }

    fs::path root_;
    std::string saved_directory_;
    std::vector<std::string> saved_first_, saved_second_;
};

TEST(GenTLPathList, SplitsAtBothSeparators) {
    EXPECT_EQ(split_path_list("/a:/b;/c"), (std::vector<std::string>{"/a", "/b", "/c"}));
    EXPECT_EQ(split_path_list("/a::/b"), (std::vector<std::string>{"/a", "", "/b"}));
    EXPECT_EQ(split_path_list("/a:"), (std::vector<std::string>{"/a"}));
    EXPECT_EQ(split_path_list(""), (std::vector<std::string>{}));
}

TEST_F(LibraryDirectory, TheFirstListedDirectoryHoldingTheLibraryWins) {
    const std::string with = (root_ / "with").string();
    const std::string without = (root_ / "without").string();
    setenv("GENICAM_GENTL64_PATH",
           (root_.string() + "/missing:" + without + ";" + with + "//:" + without).c_str(), 1);
    ASSERT_EQ(FindCtiDirectory(), 0);
    EXPECT_EQ(std::string(pelorin::library_directory()), with + "/");

    size_t size = 0;
    ASSERT_EQ(ReadModuleXmlFile("Module_1_0_0.zip", nullptr, &size), 0);
    EXPECT_EQ(size, 14u);
    char bytes[32] = {};
    size = 4;
    EXPECT_EQ(ReadModuleXmlFile("Module_1_0_0.zip", bytes, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 14u);
    size = sizeof bytes;
    ASSERT_EQ(ReadModuleXmlFile("Module_1_0_0.zip", bytes, &size), 0);
    EXPECT_EQ(std::string(bytes, size), "PK-description");
    EXPECT_EQ(ReadModuleXmlFile("Missing_1_0_0.zip", nullptr, &size), -1);

    // Listed directories without the library: not found, and the second
    // variable is not consulted while the first is set.
    setenv("GENICAM_GENTL64_PATH", without.c_str(), 1);
    setenv("GENICAM_GENTL64_PATH_2ND", with.c_str(), 1);
    EXPECT_EQ(FindCtiDirectory(), -1);

    unsetenv("GENICAM_GENTL64_PATH");
    pelorin::set_library_directory("");
    testing::internal::CaptureStdout();
    EXPECT_EQ(FindCtiDirectory(), 0);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("GENICAM_GENTL64_PATH Get NULL"), std::string::npos) << log;
    EXPECT_EQ(std::string(pelorin::library_directory()), with + "/");

    unsetenv("GENICAM_GENTL64_PATH_2ND");
    EXPECT_EQ(FindCtiDirectory(), -1);
    setenv("GENICAM_GENTL64_PATH", (std::string(2000, 'd') + ":" + with).c_str(), 1);
    EXPECT_EQ(FindCtiDirectory(), 0);  // an overlong entry is skipped
}

}  // namespace
