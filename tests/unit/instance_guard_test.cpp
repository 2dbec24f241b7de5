// Single-instance guard: the flock-based "Pelorin Cxp" lock, within one
// process and between processes.

#include "diag/instance_guard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>

#include "diag/log.h"

namespace {

namespace fs = std::filesystem;

constexpr const char *kAlreadyRunning = "The program is already running, program exiting!";
constexpr const char *kCannotCreate = "Error in creating mutex, program exiting!";

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs `body` with standard output (where the log writes) sent to `file`.
void WithStdoutTo(const std::string &file, const std::function<void()> &body) {
    std::fflush(stdout);
    const int target = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(target, 0);
    const int saved = ::dup(STDOUT_FILENO);
    ASSERT_GE(saved, 0);
    ::dup2(target, STDOUT_FILENO);
    ::close(target);
    body();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
}

// True when some open file description holds the lock: a fresh description of
// our own cannot take it (flock conflicts between descriptions, even in one process).
bool LockHeldOnPath(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return false;
    const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);  // also drops the lock if we just took it
    return held;
}

// One byte each way between parent and child.
struct Channel {
    int fds[2] = {-1, -1};
    Channel() { EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0); }
    ~Channel() {
        for (int fd : fds)
            if (fd >= 0) ::close(fd);
    }
    void Send(char c) const { EXPECT_EQ(::write(fds[1], &c, 1), 1); }
    // The byte received, or nothing when the other side closed or failed.
    std::optional<char> Receive() const {
        char c = 0;
        return ::read(fds[0], &c, 1) == 1 ? std::optional<char>(c) : std::nullopt;
    }
};

int WaitForExitCode(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Each test runs with XDG_RUNTIME_DIR on a directory of its own, so it never
// meets the lock of a real producer or of another test run.
class InstanceGuardTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char *old = std::getenv("XDG_RUNTIME_DIR")) saved_runtime_dir_ = old;
        saved_log_level_ = pelorin::diag::log_level();
        pelorin::diag::set_log_level(pelorin::diag::kInfo);

        const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string pattern =
            (fs::temp_directory_path() / (std::string("guard_") + info->name() + "_XXXXXX")).string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1), 0);
        lock_path_ = dir_ + "/Pelorin Cxp.lock";
    }

    void TearDown() override {
        ReleaseInstanceMutex();
        if (saved_runtime_dir_) {
            ::setenv("XDG_RUNTIME_DIR", saved_runtime_dir_->c_str(), 1);
        } else {
            ::unsetenv("XDG_RUNTIME_DIR");
        }
        pelorin::diag::set_log_level(saved_log_level_);
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    std::string dir_;
    std::string lock_path_;

private:
    std::optional<std::string> saved_runtime_dir_;
    uint32_t saved_log_level_ = pelorin::diag::kInfo;
};

TEST_F(InstanceGuardTest, AcquireReleaseAndReacquireInOneProcess) {
    EXPECT_EQ(pelorin::diag::InstanceLockPath(), lock_path_);
    EXPECT_FALSE(fs::exists(lock_path_));

    ASSERT_TRUE(AcquireInstanceMutex());
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(lock_path_)));
    EXPECT_TRUE(LockHeldOnPath(lock_path_));

    EXPECT_TRUE(AcquireInstanceMutex()) << "a second acquire by the owner succeeds";
    EXPECT_TRUE(LockHeldOnPath(lock_path_));

    ReleaseInstanceMutex();
    EXPECT_FALSE(LockHeldOnPath(lock_path_));
    EXPECT_TRUE(fs::exists(lock_path_)) << "the lock file is left in place";
    ReleaseInstanceMutex();  // not held: nothing happens
    EXPECT_FALSE(LockHeldOnPath(lock_path_));

    ASSERT_TRUE(AcquireInstanceMutex());
    EXPECT_TRUE(LockHeldOnPath(lock_path_));
    ReleaseInstanceMutex();
    EXPECT_FALSE(LockHeldOnPath(lock_path_));
}

// A child forked while the parent holds the guard shares the parent's lock
// through the inherited descriptor; it must neither count as the owner nor
// be able to unlock the parent's lock.
TEST_F(InstanceGuardTest, ForkedChildOfTheHolderNeitherOwnsNorFreesTheLock) {
    ASSERT_TRUE(AcquireInstanceMutex());

    // The child first releases its inherited copy (which must not unlock the
    // parent's lock) or first tries to acquire with the copy still open.
    for (const bool release_first : {true, false}) {
        SCOPED_TRACE(release_first ? "release, then acquire" : "acquire with the inherited copy");
        Channel to_parent;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::alarm(20);
            std::fflush(stdout);
            const int devnull = ::open("/dev/null", O_WRONLY);
            if (devnull >= 0) ::dup2(devnull, STDOUT_FILENO);
            bool held_after_release = true;
            if (release_first) {
                ReleaseInstanceMutex();
                held_after_release = LockHeldOnPath(lock_path_);
            }
            const bool acquired = AcquireInstanceMutex();
            to_parent.Send(static_cast<char>('0' + (held_after_release ? 1 : 0) + (acquired ? 2 : 0)));
            ReleaseInstanceMutex();
            ::_exit(0);
        }

        EXPECT_EQ(to_parent.Receive(), std::optional<char>('1'))
            << "'1': the parent's lock stayed held and the child was refused";
        EXPECT_EQ(WaitForExitCode(child), 0);
        EXPECT_TRUE(LockHeldOnPath(lock_path_)) << "the child left the parent's lock alone";
    }

    EXPECT_TRUE(AcquireInstanceMutex()) << "the parent still owns the guard";
    ReleaseInstanceMutex();
    EXPECT_FALSE(LockHeldOnPath(lock_path_));
}

TEST_F(InstanceGuardTest, LockPathThatIsNotAPlainFileIsRefused) {
    const std::string outside = dir_ + "/outside_target";
    const std::string log = dir_ + "/stdout.txt";

    struct Case {
        const char *what;
        std::function<void()> make;
    };
    const Case cases[] = {
        {"dangling symlink", [&] { fs::create_symlink(outside, lock_path_); }},
        {"symlink to a regular file",
         [&] {
             std::ofstream(outside) << "keep";
             fs::create_symlink(outside, lock_path_);
         }},
        {"directory", [&] { fs::create_directory(lock_path_); }},
        {"fifo", [&] { ASSERT_EQ(::mkfifo(lock_path_.c_str(), 0600), 0); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::error_code ignored;
        fs::remove(lock_path_, ignored);
        fs::remove(outside, ignored);
        c.make();

        bool acquired = true;
        WithStdoutTo(log, [&] { acquired = AcquireInstanceMutex(); });
        EXPECT_FALSE(acquired);
        EXPECT_NE(ReadFile(log).find(kCannotCreate), std::string::npos) << ReadFile(log);
        EXPECT_EQ(ReadFile(log).find(kAlreadyRunning), std::string::npos);
        if (fs::exists(outside)) {
            EXPECT_EQ(ReadFile(outside), "keep") << "the symlink target is untouched";
        }
        ReleaseInstanceMutex();  // nothing held: harmless
    }
    // A plain file in its place again works.
    std::error_code ignored;
    fs::remove_all(lock_path_, ignored);
    EXPECT_TRUE(AcquireInstanceMutex());
}

TEST_F(InstanceGuardTest, RuntimeDirectoryFallsBackToTmp) {
    using pelorin::diag::InstanceLockPath;
    const std::string in_tmp = "/tmp/Pelorin Cxp.lock";

    EXPECT_EQ(InstanceLockPath(), lock_path_);
    ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", (dir_ + "/").c_str(), 1), 0);
    EXPECT_EQ(InstanceLockPath(), lock_path_) << "a trailing slash is not doubled";

    ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", (dir_ + "/does/not/exist").c_str(), 1), 0);
    EXPECT_EQ(InstanceLockPath(), in_tmp);

    const std::string file = dir_ + "/plain_file";
    std::ofstream(file) << "x";
    ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", file.c_str(), 1), 0);
    EXPECT_EQ(InstanceLockPath(), in_tmp) << "not a directory";

    ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", "relative/dir", 1), 0);
    EXPECT_EQ(InstanceLockPath(), in_tmp) << "only absolute paths are taken";

    ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", "", 1), 0);
    EXPECT_EQ(InstanceLockPath(), in_tmp);

    ASSERT_EQ(::unsetenv("XDG_RUNTIME_DIR"), 0);
    EXPECT_EQ(InstanceLockPath(), in_tmp);
}

}  // namespace
