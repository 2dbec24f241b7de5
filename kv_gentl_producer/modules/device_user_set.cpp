// The device user set: the device port's features saved to and loaded from
// settings files in the interface's user-set directory. Device N (its slot
// plus 4 x its card's index) keeps "userset_dev_N"; "default_dev.json" is
// the default set; the settings file's key "open_userset_dev_N" says which
// of the two the device loads when it opens.
#include <string>

#include "card/interface_description.h"
#include "diag/log.h"
#include "features/settings_file.h"
#include "modules/cgentl_device.h"
#include "modules/user_set_files.h"

using pelorin::diag::kInfo;

const card_context &CGentlDevice::settings_context() const {
    return parent_ != nullptr ? parent_->context() : context_;
}

uint32_t CGentlDevice::user_set_number() const {
    const uint32_t card = parent_ != nullptr && parent_->description() != nullptr
                              ? parent_->description()->card_index
                              : card_index_;
    return (slot_ != nullptr ? slot_->index : 0) + kSlotsPerCard * card;
}

std::string CGentlDevice::user_set_key() const {
    return "open_userset_dev_" + std::to_string(user_set_number());
}

std::string CGentlDevice::UserSetFile(bool user_set) const {
    const std::string &directory = settings_context().user_set_dir;
    if (user_set) return directory + "userset_dev_" + std::to_string(user_set_number());
    return directory + "default_dev.json";
}

int CGentlDevice::LoadUserSet(bool from_settings_file, bool use_user_set) {
    CGenTLAutoLock guard(DeviceLock());
    const card_context &settings = settings_context();
    if (!settings.open_user_set || !is_open()) return 0;
    if (from_settings_file) {
        const pelorin::features::settings_file file(settings.settings_path);
        const int64_t flag = file.read_int("SystemInfo", user_set_key().c_str(), 0);
        use_user_set = flag != 0;
        userset_default_ = static_cast<uint32_t>(flag);
    }
    const int result = pelorin::user_sets::load(device_map_.get(), UserSetFile(use_user_set));
    if (use_user_set)
        LOG_ANY(kInfo, "UserSet load userset_dev_%d(%d)\n", static_cast<int>(user_set_number()), result);
    else
        LOG_ANY(kInfo, "UserSet load default_dev(%d)\n", result);
    return result;
}

int CGentlDevice::SaveUserSet(bool set_default, bool use_user_set, bool write_file) {
    CGenTLAutoLock guard(DeviceLock());
    const card_context &settings = settings_context();
    if (!settings.open_user_set || !is_open()) return 0;
    if (set_default) {
        pelorin::features::settings_file file(settings.settings_path);
        file.write_int("SystemInfo", user_set_key().c_str(), use_user_set ? 1 : 0);
    }
    if (!write_file || !use_user_set) return 0;
    return pelorin::user_sets::save(device_map_.get(), settings.user_set_dir, UserSetFile(true));
}
