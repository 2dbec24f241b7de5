// Crash handler: the dump file a crashing process leaves behind, and the way it
// still ends. Every crash happens in a forked child working in a temporary
// directory of its own.

#include "diag/crash_handler.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string MakeTempDir(const std::string &tag) {
    std::string pattern = (fs::temp_directory_path() / ("crash_" + tag + "_XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) return {};
    return pattern;
}

struct ChildEnd {
    bool signaled = false;
    int signal = 0;
    int exit_code = -1;
};

// Forks a child that installs the handler in `dir` and runs `crash`; waits for it.
ChildEnd CrashInChild(const std::string &dir, void (*crash)()) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);  // never hang the suite
        const rlimit no_core{0, 0};
        ::setrlimit(RLIMIT_CORE, &no_core);
        if (::chdir(dir.c_str()) != 0) ::_exit(90);
        if (CrashHandlerInstalled()) ::_exit(91);
        InstallCrashHandler();
        if (!CrashHandlerInstalled()) ::_exit(92);
        crash();
        ::_exit(93);  // the crash did not end the process
    }
    ChildEnd end;
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return end;
    end.signaled = WIFSIGNALED(status);
    end.signal = end.signaled ? WTERMSIG(status) : 0;
    end.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return end;
}

// Not instrumented: the undefined-behaviour sanitizer would report the null
// store itself instead of letting the hardware fault happen.
__attribute__((no_sanitize("undefined"))) void NullPointerWrite() {
    volatile int *volatile target = nullptr;  // volatile: neither the null nor the store can be optimised away
    *target = 42;
}

void CallAbort() { std::abort(); }

volatile bool g_never = false;  // keeps the recursion below from being provably endless

__attribute__((noinline)) int RecurseForever(int depth) {
    if (g_never) return depth;
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    asm volatile("" ::: "memory");
    return RecurseForever(depth + 1) + frame[0];
}

void OverflowStack() { (void)RecurseForever(0); }

// The dump files in `dir`, with the local time their names stand for.
struct DumpFile {
    fs::path path;
    time_t named_time = 0;
};

// Whether `name` has the shape "Test_(####-##-## ##_##_##).dmp", # a digit.
bool IsDumpName(const std::string &name) {
    static const std::string kShape = "Test_(####-##-## ##_##_##).dmp";
    if (name.size() != kShape.size()) return false;
    for (size_t i = 0; i < name.size(); ++i) {
        const bool ok = kShape[i] == '#' ? std::isdigit(static_cast<unsigned char>(name[i])) != 0
                                         : name[i] == kShape[i];
        if (!ok) return false;
    }
    return true;
}

std::vector<DumpFile> DumpFilesIn(const std::string &dir) {
    std::vector<DumpFile> found;
    for (const auto &entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        if (!IsDumpName(name)) continue;
        std::tm local{};
        local.tm_year = std::stoi(name.substr(6, 4)) - 1900;
        local.tm_mon = std::stoi(name.substr(11, 2)) - 1;
        local.tm_mday = std::stoi(name.substr(14, 2));
        local.tm_hour = std::stoi(name.substr(17, 2));
        local.tm_min = std::stoi(name.substr(20, 2));
        local.tm_sec = std::stoi(name.substr(23, 2));
        local.tm_isdst = -1;
        found.push_back({entry.path(), std::mktime(&local)});
    }
    return found;
}

// The rest of the line that starts with `key` (at the start of a line), or nothing.
std::optional<std::string> LineValue(const std::string &dump, const std::string &key) {
    size_t begin = key.size();
    if (dump.compare(0, key.size(), key) != 0) {
        const size_t at = dump.find("\n" + key);
        if (at == std::string::npos) return std::nullopt;
        begin = at + 1 + key.size();
    }
    const size_t end = dump.find('\n', begin);
    if (end == std::string::npos) return std::nullopt;
    return dump.substr(begin, end - begin);
}

bool IsHexWord(const std::string &text) {
    if (text.size() != 18 || text.compare(0, 2, "0x") != 0) return false;
    for (size_t i = 2; i < text.size(); ++i)
        if (!std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    return true;
}

class CrashHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = MakeTempDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_FALSE(dir_.empty());
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    // Crashes a child with `crash`, expects it to end by `signal`, and returns
    // the text of the one dump file it left, named within a few seconds of now.
    std::string CrashAndReadDump(void (*crash)(), int signal) {
        const time_t before = std::time(nullptr);
        const ChildEnd end = CrashInChild(dir_, crash);
        const time_t after = std::time(nullptr);
        EXPECT_TRUE(end.signaled) << "exit code " << end.exit_code;
        EXPECT_EQ(end.signal, signal) << strsignal(end.signal);

        const std::vector<DumpFile> dumps = DumpFilesIn(dir_);
        EXPECT_EQ(dumps.size(), 1u);
        if (dumps.size() != 1) return {};
        EXPECT_GE(dumps[0].named_time, before - 2) << dumps[0].path;
        EXPECT_LE(dumps[0].named_time, after + 2) << dumps[0].path;
        return ReadFile(dumps[0].path);
    }

    // What every dump holds whatever the signal.
    static void ExpectCommonSections(const std::string &dump) {
        EXPECT_EQ(dump.rfind("Pelorin Cxp crash dump\n", 0), 0u);
#if defined(__x86_64__)
        for (const char *reg : {"  RIP ", "  RSP ", "  RBP ", "  RAX ", "  R15 "}) {
            const auto value = LineValue(dump, reg);
            ASSERT_TRUE(value.has_value()) << reg;
            EXPECT_TRUE(IsHexWord(*value)) << reg << *value;
        }
#endif
        const size_t maps = dump.find("\nmemory map (/proc/self/maps):\n");
        ASSERT_NE(maps, std::string::npos);
        EXPECT_NE(dump.find("[stack]", maps), std::string::npos);

        const size_t trace = dump.find("\nbacktrace (", maps);
        ASSERT_NE(trace, std::string::npos) << "backtrace follows the memory map";
        EXPECT_GT(std::stoi(dump.substr(trace + 12)), 1) << "frames";
        // backtrace_symbols_fd lines end with the frame address in brackets.
        const size_t frame = dump.find("[0x", trace);
        ASSERT_NE(frame, std::string::npos);
        const size_t close = dump.find("]\n", frame);
        ASSERT_NE(close, std::string::npos);
        for (size_t i = frame + 3; i < close; ++i)
            EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(dump[i]))) << dump.substr(frame, 40);
        EXPECT_NE(dump.find("\nend of dump\n", trace), std::string::npos) << "dump was cut short";
    }

    std::string dir_;
};

TEST_F(CrashHandlerTest, SegmentationFaultWritesDumpAndEndsBySigsegv) {
    const std::string dump = CrashAndReadDump(NullPointerWrite, SIGSEGV);
    ASSERT_FALSE(dump.empty());
    EXPECT_NE(dump.find("signal: " + std::to_string(SIGSEGV) + " (SIGSEGV)\n"), std::string::npos)
        << dump.substr(0, 400);
    EXPECT_NE(dump.find("(SEGV_MAPERR: address not mapped)\n"), std::string::npos);
    EXPECT_EQ(LineValue(dump, "fault address: "), std::optional<std::string>("0x0000000000000000"));
    ExpectCommonSections(dump);
}

TEST_F(CrashHandlerTest, AbortWritesDumpAndEndsBySigabrt) {
    const std::string dump = CrashAndReadDump(CallAbort, SIGABRT);
    ASSERT_FALSE(dump.empty());
    EXPECT_NE(dump.find("signal: " + std::to_string(SIGABRT) + " (SIGABRT)\n"), std::string::npos)
        << dump.substr(0, 400);
    EXPECT_NE(dump.find("(SI_TKILL)"), std::string::npos) << "abort() signals its own thread";
    const auto sender = LineValue(dump, "sent by pid: ");
    const auto pid = LineValue(dump, "pid: ");
    ASSERT_TRUE(sender.has_value());
    ASSERT_TRUE(pid.has_value());
    EXPECT_GT(std::stol(*pid), 0);
    EXPECT_EQ(*sender, *pid) << "the process signalled itself";
    EXPECT_FALSE(LineValue(dump, "fault address: ").has_value()) << "no address for a sent signal";
    ExpectCommonSections(dump);
}

// The handler runs on the alternate stack, so even a thread whose own stack is
// exhausted gets its dump.
TEST_F(CrashHandlerTest, StackOverflowInTheInstallingThreadIsDumped) {
    const std::string dump = CrashAndReadDump(OverflowStack, SIGSEGV);
    ASSERT_FALSE(dump.empty());
    EXPECT_NE(dump.find("(SIGSEGV)\n"), std::string::npos) << dump.substr(0, 400);
    ExpectCommonSections(dump);
}

TEST_F(CrashHandlerTest, UnwritableDirectoryStillEndsByTheSignal) {
    // The child's working directory is removed before the crash: no dump can be
    // created, and the process must still end by its signal without hanging.
    const ChildEnd end = CrashInChild(dir_, [] {
        char cwd[4096];
        if (::getcwd(cwd, sizeof cwd) == nullptr || ::rmdir(cwd) != 0) ::_exit(94);
        NullPointerWrite();
    });
    EXPECT_TRUE(end.signaled) << "exit code " << end.exit_code;
    EXPECT_EQ(end.signal, SIGSEGV);
    EXPECT_FALSE(fs::exists(dir_));
}

TEST_F(CrashHandlerTest, InstallIsIdempotentAndUsesAnAlternateStack) {
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::alarm(20);
        InstallCrashHandler();
        struct sigaction first[5] {};
        const int signals[5] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
        for (int i = 0; i < 5; ++i) ::sigaction(signals[i], nullptr, &first[i]);
        stack_t alt_first{};
        ::sigaltstack(nullptr, &alt_first);

        InstallCrashHandler();
        char result[8] = {};
        for (int i = 0; i < 5; ++i) {
            struct sigaction again {};
            ::sigaction(signals[i], nullptr, &again);
            const bool ok = (first[i].sa_flags & SA_SIGINFO) && (first[i].sa_flags & SA_ONSTACK) &&
                            first[i].sa_sigaction != nullptr &&
                            again.sa_sigaction == first[i].sa_sigaction &&
                            sigismember(&first[i].sa_mask, SIGSEGV) == 1;
            result[i] = ok ? 'y' : 'n';
        }
        stack_t alt_again{};
        ::sigaltstack(nullptr, &alt_again);
        result[5] = (!(alt_first.ss_flags & SS_DISABLE) && alt_first.ss_size >= 16 * 1024 &&
                     alt_again.ss_sp == alt_first.ss_sp)
                        ? 'y'
                        : 'n';
        result[6] = CrashHandlerInstalled() ? 'y' : 'n';
        (void)!::write(report[1], result, 7);
        ::_exit(0);
    }
    ::close(report[1]);
    char result[8] = {};
    EXPECT_EQ(::read(report[0], result, 7), 7);
    ::close(report[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_STREQ(result, "yyyyyyy") << "per signal (SEGV BUS ILL FPE ABRT), alt stack, installed";
}

TEST(CrashDumpName, FollowsTheLocalCalendar) {
    using pelorin::diag::FormatCrashDumpName;
    char name[64];

    // 2024-03-07 06:05:09 UTC seen eight hours east of UTC.
    ASSERT_TRUE(FormatCrashDumpName(1709791509, 8 * 3600, name, sizeof name));
    EXPECT_STREQ(name, "Test_(2024-03-07 14_05_09).dmp");
    // The same moment eight hours west crosses back into the previous day.
    ASSERT_TRUE(FormatCrashDumpName(1709791509, -8 * 3600, name, sizeof name));
    EXPECT_STREQ(name, "Test_(2024-03-06 22_05_09).dmp");

    // Agreement with the C library's calendar over three centuries, leap days,
    // year ends and offsets on both sides of UTC.
    const long offsets[] = {0, 3600, -18000, 19800, 50400, -43200};
    int compared = 0;
    for (int64_t t = -86400LL * 365; t < 86400LL * 365 * 230; t += 86400 * 7 + 3607) {
        for (const long offset : offsets) {
            const time_t local = static_cast<time_t>(t + offset);
            std::tm parts{};
            ASSERT_NE(::gmtime_r(&local, &parts), nullptr);
            char expected[64];
            std::strftime(expected, sizeof expected, "Test_(%Y-%m-%d %H_%M_%S).dmp", &parts);
            ASSERT_TRUE(FormatCrashDumpName(t, offset, name, sizeof name));
            ASSERT_STREQ(name, expected) << "t=" << t << " offset=" << offset;
            ++compared;
        }
    }
    EXPECT_GT(compared, 50000);
    for (const char *day : {"2000-02-29", "2100-02-28", "2024-12-31"}) {
        std::tm parts{};
        ASSERT_NE(::strptime(day, "%Y-%m-%d", &parts), nullptr);
        parts.tm_hour = 23;
        parts.tm_min = 59;
        parts.tm_sec = 59;
        const time_t t = ::timegm(&parts);
        ASSERT_TRUE(FormatCrashDumpName(t, 0, name, sizeof name));
        EXPECT_EQ(std::string(name), std::string("Test_(") + day + " 23_59_59).dmp");
        ASSERT_TRUE(FormatCrashDumpName(t + 1, 0, name, sizeof name));
        EXPECT_EQ(std::string(name).find(day), std::string::npos) << "next day: " << name;
    }

    // Too small a buffer: refused, nothing written.
    char small[16];
    std::memset(small, '#', sizeof small);
    EXPECT_FALSE(FormatCrashDumpName(1709791509, 0, small, sizeof small));
    EXPECT_EQ(small[0], '#');
    EXPECT_FALSE(FormatCrashDumpName(1709791509, 0, nullptr, 64));
    // Exactly large enough: 30 characters and the terminator.
    char exact[31];
    EXPECT_TRUE(FormatCrashDumpName(1709791509, 0, exact, sizeof exact));
    EXPECT_EQ(std::strlen(exact), 30u);
}

}  // namespace
