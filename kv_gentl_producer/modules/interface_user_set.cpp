// The interface user set: the interface's features saved to and loaded from
// JSON settings files in the user-set directory beside the library.
#include <filesystem>
#include <system_error>

#include "card/interface_description.h"
#include "diag/log.h"
#include "features/settings_file.h"
#include "features/settings_persistence.h"
#include "modules/cgentl_interface.h"
#include "modules/interface_settings.h"
#include "nodemap/node_map.h"

using pelorin::diag::kInfo;
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

std::string CGentlInterface::UserSetFile(bool user_set) const {
    if (user_set)
        return cardContext.user_set_dir + "userset_if_" + std::to_string(description_->card_index);
    return cardContext.user_set_dir +
           (description_->device_slots < 2 ? "default_if_1d1s.json" : "default_if_4d4s.json");
}

int CGentlInterface::LoadUserSet(bool read_key, bool use_user_set) {
    CGenTLAutoLock guard(critical_);
    if (description_ == nullptr || !cardContext.open_user_set) return 0;
    const std::string key = InterfaceUserSetKey(description_->card_index);
    description_->userSetKey = key;
    bool from_user_set = use_user_set;
    if (read_key) {
        const pelorin::features::settings_file settings(cardContext.settings_path);
        from_user_set = settings.read_int("SystemInfo", key.c_str(), 0) != 0;
        userSet.default_set = from_user_set ? 1 : 0;
    }
    int result = GC_ERR_NOT_AVAILABLE;
    if (nodeMap) {
        pelorin::features::node_map_features features(*nodeMap);
        result = pelorin::features::load_settings(features, UserSetFile(from_user_set), nullptr);
    } else {
        LOG_ANY(kWarn, "%s: no node map, user set not applied\n", id_.c_str());
    }
    if (from_user_set)
        LOG_ANY(kInfo, "UserSet load userset_if_%d(%d)\n",
                static_cast<int>(description_->card_index), result);
    else
        LOG_ANY(kInfo, "UserSet load default_if_(%d)\n", result);
    return result;
}

int CGentlInterface::SaveUserSet(bool write_key, bool value, bool save) {
    CGenTLAutoLock guard(critical_);
    if (description_ == nullptr || !cardContext.open_user_set) return 0;
    const std::string key = InterfaceUserSetKey(description_->card_index);
    description_->userSetKey = key;
    if (write_key) {
        pelorin::features::settings_file settings(cardContext.settings_path);
        settings.write_int("SystemInfo", key.c_str(), value ? 1 : 0);
    }
    if (!save || !value) return 0;
    if (!nodeMap) return GC_ERR_NOT_AVAILABLE;
    std::error_code error;
    std::filesystem::create_directories(cardContext.user_set_dir, error);
    if (error)
        LOG_ANY(kWarn, "user-set directory %s: %s\n", cardContext.user_set_dir.c_str(),
                error.message().c_str());
    pelorin::features::node_map_features all(*nodeMap);
    user_set_features features(all);
    return pelorin::features::save_settings(features, UserSetFile(true));
}
