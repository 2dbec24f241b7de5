#include "modules/user_set_files.h"

#include <filesystem>
#include <system_error>

#include "diag/log.h"
#include "features/settings_persistence.h"
#include "nodemap/node_map.h"
#include "pelorin/gentl.h"

using pelorin::diag::kWarn;
using pelorin::features::feature_access;
using pelorin::features::feature_entry;

namespace {

// The features a user set holds: all that a settings file of the module
// holds except the user-set controls themselves, so that loading a set never
// changes which set is selected or which one the interface loads at open.
class user_set_features final : public feature_access {
public:
    explicit user_set_features(feature_access &all) : all_(all) {}

    int top_level_features(std::vector<feature_entry> &out) override {
        return all_.top_level_features(out);
    }
    int category_nodes(const std::string &category, std::vector<std::string> &out) override {
        const int result = all_.category_nodes(category, out);
        std::erase_if(out, [](const std::string &name) { return name.starts_with("UserSet"); });
        return result;
    }
    int access_mode(const std::string &name, uint32_t &mode) override {
        return all_.access_mode(name, mode);
    }
    int interface_type(const std::string &name, uint32_t &type) override {
        return all_.interface_type(name, type);
    }
    int get_integer(const std::string &name, int64_t &value) override {
        return all_.get_integer(name, value);
    }
    int set_integer(const std::string &name, int64_t value) override {
        return all_.set_integer(name, value);
    }
    int get_float(const std::string &name, double &value) override {
        return all_.get_float(name, value);
    }
    int set_float(const std::string &name, double value) override {
        return all_.set_float(name, value);
    }
    int get_string(const std::string &name, std::string &value) override {
        return all_.get_string(name, value);
    }
    int set_string(const std::string &name, const std::string &value) override {
        return all_.set_string(name, value);
    }
    int execute(const std::string &name) override { return all_.execute(name); }

private:
    feature_access &all_;
};

}  // namespace

namespace pelorin::user_sets {

int load(CNodeMapRef *map, const std::string &path) {
    if (map == nullptr) return GC_ERR_NOT_AVAILABLE;
    pelorin::features::node_map_features features(*map);
    return pelorin::features::load_settings(features, path, nullptr);
}

int save(CNodeMapRef *map, const std::string &directory, const std::string &path) {
    if (map == nullptr) return GC_ERR_NOT_AVAILABLE;
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) LOG_ANY(kWarn, "user-set directory %s: %s\n", directory.c_str(), error.message().c_str());
    pelorin::features::node_map_features all(*map);
    user_set_features features(all);
    return pelorin::features::save_settings(features, path);
}

}  // namespace pelorin::user_sets
