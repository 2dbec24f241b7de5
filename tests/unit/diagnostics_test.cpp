// Log filters, the log-file writer's backlog and the library lock order check.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "diag/log.h"
#include "diag/log_writer.h"
#include "entry/library_state.h"

using namespace pelorin;

namespace {

std::string logged(uint32_t level, uint32_t language, const char *text) {
    testing::internal::CaptureStdout();
    LogMessage(level, language, nullptr, 0, "%s", text);
    return testing::internal::GetCapturedStdout();
}

struct RestoreLogSettings {
    ~RestoreLogSettings() {
        diag::set_log_level(diag::kInfo);
        diag::set_log_language(diag::kChinese);
    }
};

}  // namespace

TEST(LogMessage, LevelAndLanguageFilters) {
    RestoreLogSettings restore;
    // Initial settings: Chinese, info and above.
    EXPECT_EQ(logged(diag::kError, diag::kChinese, "zh\n"), "[ERROR] zh\n");
    EXPECT_EQ(logged(diag::kError, diag::kEnglish, "en\n"), "");
    EXPECT_EQ(logged(diag::kDebug, diag::kAnyLanguage, "trace\n"), "");
    EXPECT_EQ(logged(diag::kWarn, diag::kAnyLanguage, "w\n"), "[WARN]  w\n");
    EXPECT_EQ(logged(7, diag::kAnyLanguage, "odd\n"), "[INFO]  odd\n");  // unknown level

    diag::set_log_level(diag::kDebug);
    EXPECT_EQ(logged(diag::kDebug, diag::kAnyLanguage, "trace\n"), "[DEBUG] trace\n");
    EXPECT_EQ(logged(0, diag::kAnyLanguage, "zero\n"), "");
    diag::set_log_level(diag::kAll);
    EXPECT_EQ(logged(0, diag::kAnyLanguage, "zero\n"), "[INFO]  zero\n");

    diag::set_log_language(diag::kEnglish);
    EXPECT_EQ(logged(diag::kInfo, diag::kChinese, "zh\n"), "");
    EXPECT_EQ(logged(diag::kInfo, diag::kEnglish, "en\n"), "[INFO]  en\n");

    // Long messages are formatted whole.
    const std::string long_text(5000, 'x');
    EXPECT_EQ(logged(diag::kInfo, diag::kAnyLanguage, long_text.c_str()), "[INFO]  " + long_text);
}

TEST(LogWriter, LinesBeforeTheFileOpensAreWrittenWhenItDoes) {
    log_relase();
    const size_t before = diag::log_backlog_size();
    logInfo("[INFO]  early line\n", "gentl_base", 358);
    logDebug("[DEBUG] early debug\n", "gentl_base", 355);
    EXPECT_GE(diag::log_backlog_size(), before > diag::kLogBacklogCapacity - 2 ? before : before + 2);

    char path[] = "/tmp/pelorin-writer-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(log_init(path, LOG_LEVEL_INFO, false), 0);
    EXPECT_EQ(diag::log_backlog_size(), 0u);
    logError("[ERROR] late line\n", "gentl_base", 364);
    log_relase();

    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    const std::string text = content.str();
    EXPECT_NE(text.find("[INFO]  early line"), std::string::npos) << text;
    EXPECT_EQ(text.find("early debug"), std::string::npos);  // below the file's level
    EXPECT_NE(text.find("[ERROR] late line"), std::string::npos);
    EXPECT_LT(text.find("early line"), text.find("late line"));
    std::remove(path);

    EXPECT_EQ(log_init("/nonexistent-dir/x/log.txt", LOG_LEVEL_INFO, false), -1);
    EXPECT_EQ(log_init(nullptr, LOG_LEVEL_INFO, false), -1);
}

TEST(LockOrder, InOrderAndReentrantLockingIsSilentOutOfOrderIsCaught) {
    LibraryState &lib = library();
    testing::internal::CaptureStdout();
    {
        CGenTLAutoLock api(lib.ApiLock);
        CGenTLAutoLock open_close(lib.OpenCloseLock);
        CGenTLAutoLock again(lib.ApiLock);  // re-entry of a held lock is fine
        CGenTLAutoLock event(lib.EventLock);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(lib.ApiLock.held_by_this_thread());

    auto out_of_order = [&] {
        CGenTLAutoLock open_close(lib.OpenCloseLock);
        CGenTLAutoLock api(lib.ApiLock);
    };
#ifdef NDEBUG
    testing::internal::CaptureStdout();
    out_of_order();
    EXPECT_NE(testing::internal::GetCapturedStdout().find("lock order violation: ApiLock"),
              std::string::npos);
#else
    EXPECT_DEATH(out_of_order(), "library lock taken out of order");
#endif
}
