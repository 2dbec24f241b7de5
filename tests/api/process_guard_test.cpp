// Process-level guards through the exported API: one process at a time, the
// guard released when its holder dies, and the crash dump of a crashing consumer.
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "api_fixture.h"

namespace {

std::vector<std::string> files_in(const std::string &dir) {
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *entry = readdir(d))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(d);
    }
    return names;
}

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

TEST_F(ProducerTest, SecondProcessIsRefusedWhileTheFirstHoldsTheGuard) {
    InitLib();
    int status = 0;
    std::string out = run_child("init", "", &status);
    EXPECT_NE(out.find("GCInitLib=-1004"), std::string::npos) << out;
    EXPECT_NE(out.find("The program is already running, program exiting!"), std::string::npos) << out;

    ASSERT_EQ(api.GCCloseLib(), GC_ERR_SUCCESS);
    out = run_child("init", "", &status);
    EXPECT_NE(out.find("GCInitLib=0"), std::string::npos) << out;

    // Within one process GCInitLib after GCCloseLib takes the guard again.
    EXPECT_EQ(api.GCInitLib(), GC_ERR_SUCCESS);
}

TEST_F(ProducerTest, GuardIsReleasedWhenItsHolderDies) {
    std::string first_line;
    const pid_t holder = spawn_child("hold", &first_line);
    ASSERT_GT(holder, 0);
    const bool holding = first_line == "GCInitLib=0";
    EXPECT_TRUE(holding) << first_line;
    if (holding) {
        EXPECT_EQ(api.GCInitLib(), GC_ERR_RESOURCE_IN_USE);
    }

    kill(holder, SIGKILL);  // dies without GCCloseLib
    int status = 0;
    waitpid(holder, &status, 0);
    EXPECT_EQ(api.GCInitLib(), GC_ERR_SUCCESS);
}

TEST_F(ProducerTest, CrashingConsumerLeavesADumpAndDiesOfItsSignal) {
    for (const char *mode : {"crash", "abort"}) {
        char dir_template[] = "/tmp/pelorin-crash-XXXXXX";
        const std::string dir = mkdtemp(dir_template);
        const std::time_t before = std::time(nullptr);
        int status = 0;
        const std::string out = run_child(mode, dir, &status);
        const std::time_t after = std::time(nullptr);
        EXPECT_NE(out.find("GCInitLib=0"), std::string::npos) << out;
        ASSERT_TRUE(WIFSIGNALED(status)) << mode;
        EXPECT_EQ(WTERMSIG(status), std::string(mode) == "crash" ? SIGSEGV : SIGABRT);

        const std::vector<std::string> files = files_in(dir);
        ASSERT_EQ(files.size(), 1u) << mode;
        // Test_(YYYY-MM-DD HH_MM_SS).dmp in local time, between before and after.
        std::tm stamp{};
        ASSERT_NE(strptime(files[0].c_str(), "Test_(%Y-%m-%d %H_%M_%S).dmp", &stamp), nullptr)
            << files[0];
        stamp.tm_isdst = -1;
        const std::time_t written = std::mktime(&stamp);
        EXPECT_GE(written, before - 1);
        EXPECT_LE(written, after + 1);

        const std::string dump = read_text(dir + "/" + files[0]);
        EXPECT_NE(dump.find(std::string(mode) == "crash" ? "SIGSEGV" : "SIGABRT"), std::string::npos);
        EXPECT_NE(dump.find("[stack]"), std::string::npos);  // the memory map is there
        std::remove((dir + "/" + files[0]).c_str());
        rmdir(dir.c_str());
    }
}
