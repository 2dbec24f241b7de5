// A GenTL directory of one test: links to the built library and its
// description files beside a settings file and user sets of the test's own.
// GENICAM_GENTL64_PATH names it while the object lives, and so does
// PELORIN_CXP_EMULATION its emulated cards once `use_emulation` chose them.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace pelorin::testing_support {

class private_gentl_dir {
public:
    // `library` is the built pelorin_cxp.cti; its xml/ directory is linked too.
    explicit private_gentl_dir(const std::filesystem::path &library) {
        char name[] = "/tmp/pelorin-gentl-XXXXXX";
        root_ = mkdtemp(name);
        std::filesystem::create_symlink(library, root_ / "pelorin_cxp.cti");
        std::filesystem::create_directory_symlink(library.parent_path() / "xml", root_ / "xml");
        const char *saved = getenv("GENICAM_GENTL64_PATH");
        had_path_ = saved != nullptr;
        if (had_path_) saved_path_ = saved;
        setenv("GENICAM_GENTL64_PATH", root_.c_str(), 1);
    }
    ~private_gentl_dir() {
        if (emulating_) unsetenv("PELORIN_CXP_EMULATION");
        if (had_path_)
            setenv("GENICAM_GENTL64_PATH", saved_path_.c_str(), 1);
        else
            unsetenv("GENICAM_GENTL64_PATH");
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    private_gentl_dir(const private_gentl_dir &) = delete;
    private_gentl_dir &operator=(const private_gentl_dir &) = delete;

    const std::filesystem::path &path() const { return root_; }
    std::filesystem::path settings_file() const { return root_ / "pelorin_cxp_ini.dll"; }
    std::filesystem::path user_set_dir() const { return root_ / "userset"; }

    void write_settings(const std::string &text) const { std::ofstream(settings_file()) << text; }
    // Writes `profile` (JSON) as the directory's cards.json and has the
    // library emulate those cards.
    void use_emulation(const std::string &profile) {
        std::ofstream(root_ / "cards.json") << profile;
        setenv("PELORIN_CXP_EMULATION", (root_ / "cards.json").c_str(), 1);
        emulating_ = true;
    }
    std::string read(const std::filesystem::path &file) const {
        std::ifstream in(file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

private:
    std::filesystem::path root_;
    std::string saved_path_;
    bool had_path_ = false;
    bool emulating_ = false;
};

}  // namespace pelorin::testing_support
