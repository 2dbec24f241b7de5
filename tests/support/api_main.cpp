// Test main of the API tests. With --pelorin-child=MODE the binary acts as a
// separate consumer process for the multi-process cases instead of running
// tests:
//   init      GCInitLib, print its result, GCCloseLib
//   hold      GCInitLib, print its result, then wait (until killed)
//   crash     GCInitLib, print its result, then crash with SIGSEGV
//   abort     GCInitLib, print its result, then abort()
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "producer_api.h"

namespace {

// A real fault: the sanitizers must not turn it into a report and an exit.
// The pointer is read from a volatile object, so the compiler cannot see it is null.
int *volatile g_null_pointer = nullptr;
__attribute__((no_sanitize("undefined", "address"), noinline)) void crash_on_null_store() {
    *g_null_pointer = 42;
}

int run_as_child(const std::string &mode) {
    alarm(30);  // a child never outlives a stuck test
    ProducerApi &api = ProducerApi::get();
    const GC_ERROR result = api.GCInitLib();
    std::printf("GCInitLib=%d\n", result);
    std::fflush(stdout);
    if (mode == "init") {
        api.GCCloseLib();
        return 0;
    }
    if (mode == "hold") {
        for (;;) pause();
    }
    if (mode == "crash") crash_on_null_store();
    if (mode == "abort") std::abort();
    return 2;
}

}  // namespace

// The producer finds its own directory through the GenTL path; the tests
// point it at the build's library unless the caller chose a path.
void use_built_library_directory() {
    std::string directory = PELORIN_CTI_PATH;
    directory.erase(directory.find_last_of('/'));
    setenv("GENICAM_GENTL64_PATH", directory.c_str(), 0);
}

int main(int argc, char **argv) {
    use_built_library_directory();
    constexpr const char *kChildFlag = "--pelorin-child=";
    if (argc == 2 && std::strncmp(argv[1], kChildFlag, std::strlen(kChildFlag)) == 0)
        return run_as_child(argv[1] + std::strlen(kChildFlag));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
