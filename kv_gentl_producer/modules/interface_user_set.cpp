// The interface user set: the interface's features saved to and loaded from
// JSON settings files in the user-set directory beside the library.
#include "card/interface_description.h"
#include "diag/log.h"
#include "features/settings_file.h"
#include "modules/cgentl_interface.h"
#include "modules/interface_settings.h"
#include "modules/user_set_files.h"
#include "nodemap/node_map.h"

using pelorin::diag::kInfo;
using pelorin::diag::kWarn;

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
    const int result = pelorin::user_sets::load(nodeMap.get(), UserSetFile(from_user_set));
    if (!nodeMap) LOG_ANY(kWarn, "%s: no node map, user set not applied\n", id_.c_str());
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
    return pelorin::user_sets::save(nodeMap.get(), cardContext.user_set_dir, UserSetFile(true));
}
