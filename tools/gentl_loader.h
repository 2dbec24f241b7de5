// Loading a GenTL producer the way any consumer does: find the .cti, dlopen
// it and resolve its exports into a table of function pointers. The
// command-line tools and the benchmarks use only this header, the public
// headers and libdl.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"

// The exports a tool may call. kv_get_enum_info is left out on purpose: it
// passes C++ objects across the library boundary.
#define PELORIN_TOOL_EXPORTS(X)                                                                 \
    X(GCInitLib) X(GCCloseLib) X(GCGetInfo) X(GCGetLastError) X(GCReadPort) X(GCWritePort)        \
    X(GCGetPortURL) X(GCGetPortInfo) X(GCRegisterEvent) X(GCUnregisterEvent) X(EventGetData)      \
    X(EventKill) X(TLOpen) X(TLClose) X(TLGetInfo) X(TLGetNumInterfaces) X(TLGetInterfaceID)      \
    X(TLGetInterfaceInfo) X(TLOpenInterface) X(TLUpdateInterfaceList) X(IFClose) X(IFGetInfo)     \
    X(IFGetNumDevices) X(IFGetDeviceID) X(IFUpdateDeviceList) X(IFGetDeviceInfo) X(IFOpenDevice)  \
    X(DevGetPort) X(DevGetNumDataStreams) X(DevGetDataStreamID) X(DevOpenDataStream)              \
    X(DevGetInfo) X(DevClose) X(DSAnnounceBuffer) X(DSAllocAndAnnounceBuffer) X(DSFlushQueue)     \
    X(DSStartAcquisition) X(DSStopAcquisition) X(DSGetInfo) X(DSClose) X(DSRevokeBuffer)          \
    X(DSQueueBuffer) X(DSGetBufferInfo) X(kv_genapi_call_command) X(kv_genapi_set_string)         \
    X(kv_genapi_get_string) X(kv_genapi_set_integer) X(kv_genapi_get_integer)                     \
    X(kv_genapi_set_float) X(kv_genapi_get_float) X(kv_get_access) X(kv_get_integer_info)         \
    X(kv_get_float_info) X(kv_get_features) X(kv_get_nodes) X(kv_get_node_info)                   \
    X(kv_get_enum_array) X(kv_set_language)

namespace pelorin_tools {

struct GentlLibrary {
#define PELORIN_DECLARE_EXPORT(name) decltype(&::name) name = nullptr;
    PELORIN_TOOL_EXPORTS(PELORIN_DECLARE_EXPORT)
#undef PELORIN_DECLARE_EXPORT
    void *handle = nullptr;

    // Opens the library and resolves every export; false with the reason in
    // *error when the file cannot be loaded or lacks an export. The
    // producer's directory joins the GenTL path and its log speaks English.
    bool load(const std::string &path, std::string *error);
};

inline void ensure_in_gentl_path(const std::string &producer_path);

inline bool GentlLibrary::load(const std::string &path, std::string *error) {
        ensure_in_gentl_path(path);
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char *reason = dlerror();
            *error = "cannot load " + path + ": " + (reason != nullptr ? reason : "unknown reason");
            return false;
        }
#define PELORIN_RESOLVE_EXPORT(name)                                                  \
    name = reinterpret_cast<decltype(&::name)>(dlsym(handle, #name));                 \
    if (name == nullptr) {                                                            \
        *error = path + " is not a usable producer: it lacks " #name;                 \
        return false;                                                                 \
    }
        PELORIN_TOOL_EXPORTS(PELORIN_RESOLVE_EXPORT)
#undef PELORIN_RESOLVE_EXPORT
        kv_set_language(KV_LANGUAGE_ENGLISH);
        return true;
}

inline constexpr const char *kProducerFileName = "pelorin_cxp.cti";

inline bool is_regular_file(const std::string &path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The first pelorin_cxp.cti in the directories of GENICAM_GENTL64_PATH (split
// at ':' and ';'), or empty.
inline std::string find_in_gentl_path() {
    const char *variable = std::getenv("GENICAM_GENTL64_PATH");
    if (variable == nullptr) return {};
    const std::string list = variable;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find_first_of(":;", start);
        if (end == std::string::npos) end = list.size();
        const std::string directory = list.substr(start, end - start);
        if (!directory.empty() && is_regular_file(directory + "/" + kProducerFileName))
            return directory + "/" + kProducerFileName;
        start = end + 1;
    }
    return {};
}

inline std::string executable_directory() {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return {};
    const std::string executable(path, static_cast<size_t>(length));
    return executable.substr(0, executable.rfind('/'));
}

// The producer a tool loads when the user names none: GENICAM_GENTL64_PATH
// first, then the installed layout beside the tool (<prefix>/bin ->
// <prefix>/lib/gentl/pelorin), then the build tree (build/tools ->
// build/gentl). Empty when none exists.
inline std::string default_producer_path() {
    if (std::string found = find_in_gentl_path(); !found.empty()) return found;
    const std::string here = executable_directory();
    if (here.empty()) return {};
    for (const char *relative : {"/../lib/gentl/pelorin/", "/../gentl/"}) {
        const std::string candidate = here + relative + kProducerFileName;
        if (!is_regular_file(candidate)) continue;
        char resolved[PATH_MAX];
        return ::realpath(candidate.c_str(), resolved) != nullptr ? std::string(resolved) : candidate;
    }
    return {};
}

// The producer opens only libraries that lie in the GenTL path; a producer
// named on the command line gets its directory put in front of it.
inline void ensure_in_gentl_path(const std::string &producer_path) {
    const size_t slash = producer_path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : producer_path.substr(0, slash);
    const char *variable = std::getenv("GENICAM_GENTL64_PATH");
    const std::string list = variable != nullptr ? variable : "";
    ::setenv("GENICAM_GENTL64_PATH", list.empty() ? directory.c_str() : (directory + ":" + list).c_str(), 1);
}

// The producer writes its log lines to the process's standard output, which
// for a tool is its result (a table, JSON, images' paths). This moves them
// aside: descriptor 1 is pointed at standard error (or /dev/null when
// `quiet`), and the returned stream writes to the original standard output.
// Null when the descriptors cannot be set up; the tool then keeps stdout.
inline FILE *separate_producer_log(bool quiet) {
    std::fflush(stdout);
    const int original = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (original < 0) return nullptr;
    const int target = quiet ? ::open("/dev/null", O_WRONLY | O_CLOEXEC) : STDERR_FILENO;
    if (target < 0 || ::dup2(target, STDOUT_FILENO) < 0) {
        ::close(original);
        return nullptr;
    }
    if (quiet) ::close(target);
    FILE *output = ::fdopen(original, "w");
    if (output == nullptr) ::dup2(original, STDOUT_FILENO);
    return output != nullptr ? output : stdout;
}

// The producer's last error as "code text", for messages.
inline std::string last_error(const GentlLibrary &library) {
    GC_ERROR code = GC_ERR_SUCCESS;
    char text[1024] = {};
    size_t size = sizeof text;
    if (library.GCGetLastError == nullptr || library.GCGetLastError(&code, text, &size) != GC_ERR_SUCCESS)
        return "(no error text)";
    return std::to_string(code) + " " + text;
}

}  // namespace pelorin_tools
