// Single-instance guard over an exclusive flock(2) on "<runtime dir>/Pelorin Cxp.lock".
//
// Lock ownership and fork: flock locks belong to the open file description, not
// to the process. O_CLOEXEC keeps the descriptor out of exec'd programs, but a
// child forked without exec shares the parent's lock through its inherited copy
// of the descriptor: while that copy stays open the lock survives the parent's
// death, and an unlock through it would release the parent's lock. The guard
// therefore remembers which process acquired it. In a forked child the
// inherited descriptor is only closed, never unlocked: ReleaseInstanceMutex()
// does just that, and AcquireInstanceMutex() drops it and then competes for the
// lock like any other process (and is refused while the parent holds it).
// Until the child makes one of these calls (or execs, or exits) its copy keeps
// the lock alive.
//
// The lock file itself is never removed: unlinking a lock file while another
// process may be opening it would let two processes lock two different files.

#include "diag/instance_guard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "diag/log.h"

namespace pelorin::diag {
namespace {

constexpr const char *kMutexName = "Pelorin Cxp";
constexpr const char *kFallbackDir = "/tmp";

std::mutex g_guard_mutex;
int g_lock_fd = -1;       // open, locked descriptor while the guard is held
pid_t g_lock_owner = 0;   // process that took the lock through g_lock_fd

bool IsUsableRuntimeDir(const char *dir) {
    // Only an absolute path naming an existing directory is taken.
    if (dir == nullptr || dir[0] != '/') return false;
    struct stat st {};
    return ::stat(dir, &st) == 0 && S_ISDIR(st.st_mode);
}

void CloseDescriptor(int fd) {
    // close(2) must not be retried on EINTR on Linux: the descriptor is gone either way.
    (void)::close(fd);
}

// Opens (creating when needed) the lock file; -1 with errno set on failure.
int OpenLockFile(const std::string &path) {
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0 && errno == EACCES) {
        // The file may belong to another user (a shared /tmp with a restrictive
        // umask, or fs.protected_regular refusing O_CREAT on it). flock needs no
        // write access, so a read-only descriptor still counts for the guard.
        fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    }
    if (fd < 0) return -1;

    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        const int saved = errno;
        CloseDescriptor(fd);
        errno = saved;
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        // A FIFO, device or socket placed under the lock name is not a lock file.
        CloseDescriptor(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

}  // namespace

std::string InstanceLockPath() {
    const char *runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string path = IsUsableRuntimeDir(runtime) ? std::string(runtime) : std::string(kFallbackDir);
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    path += '/';
    path += kMutexName;
    path += ".lock";
    return path;
}

}  // namespace pelorin::diag

bool AcquireInstanceMutex() {
    using namespace pelorin::diag;
    std::lock_guard<std::mutex> hold(g_guard_mutex);

    if (g_lock_fd >= 0) {
        if (g_lock_owner == ::getpid()) return true;  // already ours
        // Inherited across fork: close our copy without unlocking the parent's lock.
        CloseDescriptor(g_lock_fd);
        g_lock_fd = -1;
        g_lock_owner = 0;
    }

    const std::string path = InstanceLockPath();
    const int fd = OpenLockFile(path);
    if (fd < 0) {
        const int err = errno;
        LOG_ANY(kDebug, "instance lock file \"%s\" cannot be opened: %s\n", path.c_str(),
                std::strerror(err));
        LOG_ANY(kError, "Error in creating mutex, program exiting!\n");
        return false;
    }

    int rc;
    do {
        rc = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        const int err = errno;
        CloseDescriptor(fd);
        if (err == EWOULDBLOCK) {
            LOG_ANY(kError, "The program is already running, program exiting!\n");
        } else {
            LOG_ANY(kDebug, "instance lock file \"%s\" cannot be locked: %s\n", path.c_str(),
                    std::strerror(err));
            LOG_ANY(kError, "Error in creating mutex, program exiting!\n");
        }
        return false;
    }

    g_lock_fd = fd;
    g_lock_owner = ::getpid();
    return true;
}

void ReleaseInstanceMutex() {
    using namespace pelorin::diag;
    std::lock_guard<std::mutex> hold(g_guard_mutex);
    if (g_lock_fd < 0) return;
    // Only the process that took the lock unlocks it; a forked child just drops its copy.
    if (g_lock_owner == ::getpid()) (void)::flock(g_lock_fd, LOCK_UN);
    CloseDescriptor(g_lock_fd);
    g_lock_fd = -1;
    g_lock_owner = 0;
}
