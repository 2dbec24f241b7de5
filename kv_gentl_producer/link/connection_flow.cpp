#include "link/connection_flow.h"

#include <array>
#include <cstdio>
#include <string>

#include "card/card_context.h"
#include "card/card_identity.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"
#include "features/settings_file.h"
#include "link/cxp_device.h"
#include "modules/device_record.h"
#include "modules/remote_features.h"

using pelorin::diag::kAnyLanguage;
using pelorin::diag::kChinese;
using pelorin::diag::kEnglish;
using pelorin::diag::kInfo;
namespace msg_zh = pelorin::msg_zh;

namespace {

constexpr uint32_t kMaxCards = 8;
constexpr uint32_t kConnectAttempts = 3;
constexpr uint32_t kFallbackConfig = 0x10038;  // one link at CXP-3
constexpr const char *kSeparator = "------------------------------------------------------\n";

const char *rate_name(uint32_t rate) {
    switch (rate) {
    case kCxp1: return "CXP1\n";
    case kCxp2: return "CXP2\n";
    case kCxp3: return "CXP3\n";
    case kCxp5: return "CXP5\n";
    case kCxp6: return "CXP6\n";
    case kCxp10: return "CXP10\n";
    case kCxp12: return "CXP12\n";
    default: return "CXP0\n";
    }
}

void log_english(const char *format, const char *name, int value = 0) {
    LogMessage(kInfo, kAnyLanguage, nullptr, 0, format, name, value);
}

// One line per link: the link letter, the camera connection it carries and
// whether it is the master. `clear` uses the wording of a demoted report.
void log_link_report(const char *name, const cxp_link_state &state, uint32_t links, bool clear) {
    for (uint32_t i = 0; i < links && i < kMaxCardLinks; ++i) {
        const cxp_link_info &info = state.link_info[i];
        const char link = static_cast<char>('a' + i);
        const char camera = info.status != 0 ? static_cast<char>('A' + info.connection_id) : '*';
        const bool master = state.master_found && state.master_link == i;
        LogMessage(kInfo, kChinese, nullptr, 0, msg_zh::kLinkReport, name, link, camera,
                   info.status != 0 ? (clear ? msg_zh::kLinkClear : msg_zh::kLinkDetected) : "...",
                   master ? msg_zh::kMasterLink : "");
        LogMessage(kInfo, kEnglish, nullptr, 0, "%s: Link %c connect camera id CH-%c:%s  %s\n",
                   name, link, camera,
                   info.status != 0 ? (clear ? "check detected" : "detected") : "...",
                   master ? "master link" : "");
    }
}

// The speed line, in the language the log is set to.
void log_speed(const char *name, uint32_t rate, const char *english_prefix) {
    const bool chinese = pelorin::diag::log_language() == kChinese;
    const std::string line = std::string(chinese ? msg_zh::kCxpSpeed : english_prefix) + rate_name(rate);
    LogMessage(kInfo, pelorin::diag::log_language(), nullptr, 0, line.c_str(), name);
}

void log_version(const char *name, uint32_t revision) {
    LOG_PAIR(kInfo, msg_zh::kCxpVersion, "%s: CXP Version: CXP%d.%d\n", name,
             static_cast<int>(revision >> 16), static_cast<int>(revision & 0xFFFF));
}

// The card's link count from its boot record (4 when it names more than 8).
uint32_t card_link_count(card_context &context) {
    std::array<uint8_t, pelorin::card::kBootRecordSize> bytes{};
    uint32_t links = 4;
    if (pcie_get_boot_info(context.pcie_device, bytes))
        links = pelorin::card::load_le32(bytes, boot_record::kLinkCountOffset);
    return links > kMaxCardLinks ? 4 : links;
}

}  // namespace

int link_connect(card_context *context, uint32_t card_index, link_config &config,
                 conn_settings &settings, bool banner) {
    if (card_index >= kMaxCards) {
        std::printf("Card index is error!\n");
        return -1;
    }
    if (context == nullptr) return -1;
    context->frame_rate = 0;
    if (!pcie_open(context->pcie_device, card_index)) {
        std::printf("Can't create PCIe Device!\n");
        return -1;
    }
    const char *name = card_name(card_index);
    config.link_count = card_link_count(*context);
    context->pcie_device.group_index = config.slot_index;
    context->pcie_device.channel_index = config.slot_index;
    cxp_device *device = nullptr;
    int result = create_link_device(context, config.link_count, config.link_mask, &device);
    if (result != 0) {
        link_disconnect(context);
        return result;
    }
    context->link_device = device;

    cxp_conn_param param = device->get_param();
    if (config.family == 3) {
        param.fiber_option_a = config.fiber_option_a;
        param.fiber_option_b = config.fiber_option_b;
    }
    if (banner) {
        param.stage = 1;
        LOG_ANY(kInfo, "%s", kSeparator);
        LogMessage(kInfo, pelorin::diag::log_language(), nullptr, 0,
                   "%s: Start CXP Driver V%d.%d.%d\n", name, kLinkLayerVersion >> 24,
                   (kLinkLayerVersion >> 16) & 0xFF, kLinkLayerVersion & 0xFFFF);
        LOG_PAIR(kInfo, msg_zh::kPcieLoadIndex, "%s: pcie load index %d\n", name,
                 static_cast<int>(card_index));
    }
    const bool auto_mode = settings.speed_mode == 1;
    if (settings.speed_mode == 0) {
        log_english("%s: Default Mode\n", name);
        param.auto_speed = 1;
    } else if (auto_mode) {
        log_english("%s: Auto Mode\n", name);
        param.auto_speed = 1;
    } else {
        log_english("%s: Assigned Speed Mode\n", name);
        param.auto_speed = 0;
        param.speed = settings.speed_mode;
    }
    if (settings.link_count != 0) {
        log_english("%s: Need %d Link\n", name, static_cast<int>(settings.link_count));
        param.auto_links = 0;
        param.links = settings.link_count;
    } else {
        log_english("%s: Default Link\n", name);
        param.auto_links = 1;
    }
    device->set_param(param);
    LOG_PAIR(kInfo, msg_zh::kInStage, "%s: in stage %d\n", name, static_cast<int>(param.stage));

    result = -1;
    for (uint32_t attempt = 0; attempt < kConnectAttempts; ++attempt) {
        result = link_try_connect(context, auto_mode);
        if (result == 0 || (result == -10 && auto_mode)) break;
        LogMessage(kInfo, kAnyLanguage, nullptr, 0, "%s: Try connect... %d, res(%d)\n", name,
                   static_cast<int>(attempt), result);
    }
    LOG_ANY(kInfo, "%s", kSeparator);

    const cxp_link_state &state = device->get_link_state();
    uint32_t revision = 0, supported = 0, used = 0;
    device->get_version(revision, supported, used);
    if (result == -10) {
        LOG_PAIR(kInfo, msg_zh::kDemoteConnection, "%s: Demote Connection\n", name);
        log_link_report(name, device->get_first_link_state(), config.link_count, true);
        result = 0;
    }
    if (param.stage != 1) {
        log_link_report(name, state, config.link_count, false);
        log_version(name, revision);
        log_speed(name, state.speed, "%s: CXP speed: ");
    }
    if (result == 0) {
        settings.result = (state.links_connected << 16) + state.speed;
        if (param.stage != 1)
            LogMessage(kInfo, kAnyLanguage, nullptr, 0, "%s: Connect to %s\n", name,
                       pelorin::features::LinkConfigName(settings.result));
        return 0;
    }
    link_disconnect(context);
    return result;
}

int link_try_connect(card_context *context, bool allow_demote) {
    if (context == nullptr || context->link_device == nullptr) return -1;
    if (context->link_device->state() == 3) return 0;
    return context->link_device->connect_with_demotion(allow_demote);
}

int link_reconnect(card_context *context, uint32_t config) {
    if (context == nullptr || context->link_device == nullptr) return -1;
    cxp_device &device = *context->link_device;
    cxp_conn_param param = device.get_param();
    param.speed = config & 0xFF;
    param.links = (config >> 16) & 0xF;
    param.auto_speed = 0;
    param.auto_links = 0;
    LogMessage(kInfo, kAnyLanguage, nullptr, 0, "[Reconnect] Assigned Speed Mode: %s\n",
               pelorin::features::LinkConfigName(config));
    device.set_param(param);
    const int result = device.reconnect();
    if (param.stage != 1) {
        const cxp_link_state &state = device.get_link_state();
        LOG_ANY(kInfo, "%s", kSeparator);
        for (uint32_t i = 0; i < param.links && i < kMaxCardLinks; ++i) {
            const cxp_link_info &info = state.link_info[i];
            LogMessage(kInfo, kAnyLanguage, nullptr, 0,
                       "[Reconnect] Link %c connect camera id CH-%c:%s  %s\n",
                       static_cast<char>('a' + i),
                       info.status != 0 ? static_cast<char>('A' + info.connection_id) : '*',
                       info.status != 0 ? "detected" : "...",
                       state.master_found && state.master_link == i ? "master link" : "");
        }
        uint32_t revision = 0, supported = 0, used = 0;
        device.get_version(revision, supported, used);
        LogMessage(kInfo, kAnyLanguage, nullptr, 0, "[Reconnect] CXP Version: CXP%d.%d\n",
                   static_cast<int>(revision >> 16), static_cast<int>(revision & 0xFFFF));
        const std::string speed = std::string("[Reconnect] CXP speed: ") + rate_name(state.speed);
        LogMessage(kInfo, kAnyLanguage, nullptr, 0, "%s", speed.c_str());
        LOG_ANY(kInfo, "%s", kSeparator);
    }
    return result;
}

int link_reconnect_with_fallback(card_context *context, uint32_t config) {
    const int result = link_reconnect(context, config);
    if (result != 0) link_reconnect(context, kFallbackConfig);
    return result;
}

int link_disconnect(card_context *context) {
    if (context == nullptr || !context->pcie_device.is_open()) return -1;
    pcie_dma_stop(context->pcie_device);
    destroy_link_device(context->link_device);
    context->link_device = nullptr;
    pcie_close(context->pcie_device);
    context->frame_rate = 0;
    return 0;
}

void probe_device(uint32_t card_index, const link_config &config, conn_settings &settings) {
    CGenTLAutoLock guard(DeviceLock());
    device_record *record = detected_camera(card_index, config.slot_index);
    if (record != nullptr) reset_device_record(*record);
    card_context context;
    link_config slot = config;
    if (link_connect(&context, card_index, slot, settings, true) != 0) return;
    if (record != nullptr) read_remote_features(&context, record, true);
    link_disconnect(&context);
}
