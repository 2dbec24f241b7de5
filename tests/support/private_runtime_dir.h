// Unit tests that initialise the library run as separate processes at the
// same time; each takes the single-instance guard in a runtime directory of
// its own process so that they never refuse each other. The directory is
// removed when the process ends.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace pelorin::testing_support {

inline char g_private_runtime_dir[] = "/tmp/pelorin-runtime-XXXXXX";

inline void use_private_runtime_dir() {
    static const bool made = [] {
        if (mkdtemp(g_private_runtime_dir) == nullptr) return false;
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(g_private_runtime_dir, ignored);
        });
        return true;
    }();
    setenv("XDG_RUNTIME_DIR", made ? g_private_runtime_dir : "/tmp", 1);
}

}  // namespace pelorin::testing_support
