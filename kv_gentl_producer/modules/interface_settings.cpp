#include "modules/interface_settings.h"

#include "diag/log.h"
#include "features/settings_file.h"
#include "modules/tl_info.h"
#include "pelorin/gentl.h"

using pelorin::diag::kDebug;
using pelorin::features::settings_file;

namespace {

constexpr uint32_t kPresetRegister = 0x300;
constexpr uint32_t kPresetValue = 0xAA;

// "TivraDefault": 0 presets the card register, 1 clears it, anything else
// leaves it as the card has it.
void apply_register_preset(card_context &context, int64_t setting) {
    if (setting == 0) context_write_reg(&context, kPresetRegister, kPresetValue);
    if (setting == 1) context_write_reg(&context, kPresetRegister, 0);
}

// The user-set directory below the library directory, with one separator.
std::string user_set_directory() {
    std::string directory = pelorin::library_directory();
    if (!directory.empty() && directory.back() != '/') directory += '/';
    return directory + "userset/";
}

}  // namespace

std::string InterfaceUserSetKey(uint32_t card_index) {
    return "open_userset_if_" + std::to_string(card_index);
}

int ReadInterfaceSettings(card_context &context, uint32_t card_index, uint32_t family,
                          uint32_t &cxp_mode, std::array<uint32_t, kMaxDeviceSlots> &link_config) {
    const bool opened = pcie_open(context.pcie_device, card_index);
    const int result = opened ? 0 : GC_ERR_INVALID_INDEX;
    const settings_file settings(pelorin::features::settings_file_path());
    if (!settings.exists()) {
        LOG_ANY(kDebug, "no settings file %s: interface defaults\n", settings.path().c_str());
        return result;
    }
    apply_register_preset(context, settings.read_int("Interface", "TivraDefault", 2));
    cxp_mode = static_cast<uint32_t>(
        settings.read_int("Interface", family == 1 ? "CXP_Mode" : "CXP_Mode_Enhanced",
                          family == 1 ? 1 : 0));
    static const char *const kLinkKeys[kMaxDeviceSlots] = {
        "CxpLinkConfiguration_A", "CxpLinkConfiguration_B", "CxpLinkConfiguration_C",
        "CxpLinkConfiguration_D"};
    for (size_t i = 0; i < kMaxDeviceSlots; ++i)
        link_config[i] = static_cast<uint32_t>(settings.read_int("Interface", kLinkKeys[i], 0));
    context.open_user_set = settings.read_int("SystemInfo", "OpenUserSet", 0) != 0 ? 1 : 0;
    if (context.open_user_set) {
        context.user_set_dir = user_set_directory();
        context.settings_path = settings.path();
    }
    return result;
}
