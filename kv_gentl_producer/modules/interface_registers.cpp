// The interface register space: what the interface description file reads
// and writes through the interface port.
//
// Addresses (64 bits):
//   0x2E nnnn FFFF ssss  interface register nnnn; sub-code 0x0001 the value,
//                        0x0011 / 0x0081 the byte length of a string value.
//                        Registers of the selected device answer at their
//                        address + 0x1000 x DeviceSelector.
//   0x2E 0000 FFFE iiii  link settings and card sensors
//   0x2E 0000 FFFD iiii  fibre-card options
//   0x2D 0000 FFFE iiii  interface user sets
//   up to 0xFFFFFFFF     card registers
#include <cstring>

#include "card/interface_description.h"
#include "diag/log.h"
#include "features/settings_file.h"
#include "modules/cgentl_interface.h"
#include "modules/port_answers.h"
#include "modules/register_copy.h"
#include "nodemap/module_files.h"

using pelorin::CopyRegisterLength;
using pelorin::CopyRegisterNumber;
using pelorin::CopyRegisterText;
using pelorin::diag::kError;
using pelorin::diag::kInfo;

namespace {

constexpr uint64_t kInterfaceTag = 0x002E000000000000ULL;
constexpr uint64_t kUserSetTag = 0x002D000000000000ULL;

constexpr uint64_t if_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return kInterfaceTag | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
constexpr uint64_t link_setting(uint32_t item) { return kInterfaceTag | 0xFFFE0000ULL | item; }
constexpr uint64_t fiber_setting(uint32_t item) { return kInterfaceTag | 0xFFFD0000ULL | item; }
constexpr uint64_t user_set_register(uint32_t item) { return kUserSetTag | 0xFFFE0000ULL | item; }

// Length items: 0x0011 for the card's texts, 0x0081 for the others.
constexpr uint32_t kCardTextLength = 0x0011;
constexpr uint32_t kTextLength = 0x0081;
constexpr uint64_t kSelectorStride = 0x1000;

enum interface_register : uint32_t {
    kRegXmlFile = 0x0,
    kRegUpdateList = 0x1,
    kRegDeviceCount = 0x2,
    kRegDeviceVendor = 0x3,
    kRegDeviceModel = 0x4,
    kRegDeviceAccess = 0x5,
    kRegProductText = 0x6,
    kRegCardName = 0x7,
    kRegBlank = 0x8,
    kRegInterfaceId = 0x9,
    kRegDeviceId = 0xA,
    kRegFirmwareVersion = 0xB,
    kRegAttribute = 0xC,
    kRegDeviceSelector = 0xD,
    kRegVendor = 0xE,
    kRegModel = 0xF,
    kRegIdentifier = 0x10,
};

enum link_setting_item : uint32_t {
    kLinkConfiguration = 0x0010,
    kDeviceSlots = 0x0020,
    kCxpMode = 0x0030,
    kMaxSlots = 0x0100,
    kTemperatureBase = 0x0300,
    kSupplyBase = 0x0400,
};
constexpr uint32_t kSensorCount = 4;
constexpr uint32_t kTemperatureRegister = 0x330;
constexpr uint32_t kSupplyRegister = 0x340;

enum fiber_item : uint32_t { kIsFiberCard = 0x0001, kFiberOptionA = 0x0010, kFiberOptionB = 0x0011 };

enum user_set_item : uint32_t {
    kUserSetSelector = 0x0000,
    kUserSetLoad = 0x0004,
    kUserSetSave = 0x0008,
    kUserSetDefault = 0x000C,
    kUserSet1Available = 0x0010,
    kUserSet2Available = 0x0014,
    kUserSetFlag = 0x0020,
    kUserSetsEnabled = 0xFFFF,
};

constexpr uint64_t kLargestCardAddress = 0xFFFFFFFFULL;
constexpr uint64_t kRegisterUpdateTimeout = 5000;
constexpr size_t kSelectedTextCapacity = 128;

}  // namespace

GC_ERROR CGentlInterface::ReadPort(uint64_t iAddress, void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!deviceIds || description_ == nullptr) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    return ReadRegister(iAddress, pBuffer, piSize);
}

GC_ERROR CGentlInterface::WritePort(uint64_t iAddress, const void *pBuffer, size_t *piSize) {
    CGenTLAutoLock guard(critical_);
    if (!deviceIds || description_ == nullptr) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr || *piSize == 0) return GC_ERR_INVALID_PARAMETER;
    return WriteRegister(iAddress, pBuffer, *piSize);
}

GC_ERROR CGentlInterface::ReadSelectedDeviceText(DEVICE_INFO_CMD command, bool length_item,
                                                 void *pBuffer, size_t *piSize) {
    char id[kSelectedTextCapacity] = {};
    size_t id_size = sizeof id;
    GC_ERROR result = deviceIds->Get(deviceSelector, id, &id_size);
    if (result != GC_ERR_SUCCESS) return result;
    id[sizeof id - 1] = 0;
    char text[kSelectedTextCapacity] = {};
    if (command != DEVICE_INFO_ID) {
        size_t text_size = sizeof text;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        result = IFGetDeviceInfo(id, command, &type, text, &text_size);
        if (result != GC_ERR_SUCCESS) return result;
        text[sizeof text - 1] = 0;
    } else {
        std::memcpy(text, id, sizeof text);
    }
    return length_item ? CopyRegisterLength(text, pBuffer, piSize)
                       : CopyRegisterText(text, pBuffer, piSize);
}

GC_ERROR CGentlInterface::ReadSensor(uint32_t card_address, float scale, void *pBuffer,
                                     size_t *piSize) {
    if (*piSize < sizeof(float)) {
        *piSize = sizeof(float);
        return GC_ERR_BUFFER_TOO_SMALL;
    }
    uint32_t raw = 0;
    const int result = card_read_reg(&cardContext, card_address, &raw, sizeof raw);
    if (result != 0) raw = 0;
    const float value = static_cast<float>(raw & 0xFFFF) * scale;
    CopyRegisterNumber(value, pBuffer, piSize);
    return result;
}

GC_ERROR CGentlInterface::ReadRegister(uint64_t address, void *pBuffer, size_t *piSize) {
    const interface_description &d = *description_;
    const uint64_t selected = kSelectorStride * deviceSelector;

    if (address == if_register(kRegXmlFile))
        return pelorin::ReadDescriptionRegister(pelorin::nodemap::kInterfaceXmlFile, "interface",
                                                pBuffer, piSize);
    if (address == if_register(kRegUpdateList)) return GC_ERR_SUCCESS;
    if (address == if_register(kRegDeviceCount))
        return CopyRegisterNumber(static_cast<uint16_t>(ArrangeDeviceSlots()), pBuffer, piSize);

    // Registers of the device chosen by DeviceSelector.
    const struct {
        uint32_t number;
        DEVICE_INFO_CMD command;
    } selected_texts[] = {{kRegDeviceVendor, DEVICE_INFO_VENDOR},
                          {kRegDeviceModel, DEVICE_INFO_MODEL},
                          {kRegDeviceId, DEVICE_INFO_ID}};
    for (const auto &item : selected_texts) {
        if (address == if_register(item.number) + selected)
            return ReadSelectedDeviceText(item.command, false, pBuffer, piSize);
        if (address == if_register(item.number, kTextLength) + selected)
            return ReadSelectedDeviceText(item.command, true, pBuffer, piSize);
    }
    if (address == if_register(kRegDeviceAccess) + selected) {
        char id[kSelectedTextCapacity] = {};
        size_t id_size = sizeof id;
        const GC_ERROR result = deviceIds->Get(deviceSelector, id, &id_size);
        if (result != GC_ERR_SUCCESS) return result;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        return IFGetDeviceInfo(id, DEVICE_INFO_ACCESS_STATUS, &type, pBuffer, piSize);
    }

    // Texts of the card and the interface.
    const struct {
        uint32_t number;
        uint32_t length_code;
        const char *text;
    } texts[] = {{kRegProductText, kCardTextLength, d.product_text.c_str()},
                 {kRegCardName, kCardTextLength, d.name.c_str()},
                 {kRegBlank, kCardTextLength, " "},
                 {kRegInterfaceId, kTextLength, id_.c_str()},
                 {kRegFirmwareVersion, kCardTextLength, d.version.c_str()},
                 {kRegVendor, kTextLength, d.vendor.c_str()},
                 {kRegModel, kTextLength, d.model.c_str()},
                 {kRegIdentifier, kTextLength, d.identifier.c_str()}};
    for (const auto &item : texts) {
        if (address == if_register(item.number)) return CopyRegisterText(item.text, pBuffer, piSize);
        if (address == if_register(item.number, item.length_code))
            return CopyRegisterLength(item.text, pBuffer, piSize);
    }
    if (address == if_register(kRegAttribute)) return CopyRegisterNumber(d.attribute, pBuffer, piSize);
    if (address == if_register(kRegDeviceSelector))
        return CopyRegisterNumber(static_cast<uint16_t>(deviceSelector), pBuffer, piSize);

    // Link settings and sensors.
    if (address == link_setting(kLinkConfiguration)) {
        if (deviceSelector >= kMaxDeviceSlots) deviceSelector = 0;
        return CopyRegisterNumber(linkConfig[deviceSelector], pBuffer, piSize);
    }
    if (address == link_setting(kDeviceSlots)) return CopyRegisterNumber(d.device_slots, pBuffer, piSize);
    if (address == link_setting(kCxpMode)) {
        if (d.device_slots < 2) cxpMode = 0;
        return CopyRegisterNumber(cxpMode, pBuffer, piSize);
    }
    if (address == link_setting(kMaxSlots))
        return CopyRegisterNumber(uint64_t{kMaxDeviceSlots}, pBuffer, piSize);
    for (uint32_t i = 0; i < kSensorCount; ++i) {
        if (address == link_setting(kTemperatureBase + i))
            return ReadSensor(kTemperatureRegister + i, 1.25f / 1000.0f, pBuffer, piSize);
        if (address == link_setting(kSupplyBase + i))
            return ReadSensor(kSupplyRegister + i, 1.0f / 1000.0f, pBuffer, piSize);
    }
    if (address == fiber_setting(kIsFiberCard))
        return CopyRegisterNumber(uint32_t{family == 3 ? 1u : 0u}, pBuffer, piSize);
    if (address == fiber_setting(kFiberOptionA))
        return CopyRegisterNumber(uint32_t{fiberOptionA}, pBuffer, piSize);
    if (address == fiber_setting(kFiberOptionB))
        return CopyRegisterNumber(uint32_t{fiberOptionB}, pBuffer, piSize);

    // User sets.
    const struct {
        uint32_t item;
        uint32_t value;
    } user_set_values[] = {{kUserSetSelector, userSet.selector},
                           {kUserSetLoad, 1},
                           {kUserSetSave, 1},
                           {kUserSetDefault, userSet.default_set},
                           {kUserSet1Available, userSet.set1_available},
                           {kUserSet2Available, userSet.set2_available},
                           {kUserSetFlag, userSet.flag},
                           {kUserSetsEnabled, cardContext.open_user_set}};
    for (const auto &item : user_set_values)
        if (address == user_set_register(item.item)) return CopyRegisterNumber(item.value, pBuffer, piSize);

    if (address <= kLargestCardAddress)
        return card_read_reg(&cardContext, static_cast<uint32_t>(address), pBuffer, *piSize);
    return GC_ERR_INVALID_ADDRESS;
}

GC_ERROR CGentlInterface::WriteRegister(uint64_t address, const void *pBuffer, size_t size) {
    const uint32_t value = pelorin::WrittenWord(pBuffer, size);
    if (address == link_setting(kLinkConfiguration)) {
        if (deviceSelector >= kMaxDeviceSlots) deviceSelector = 0;
        linkConfig[deviceSelector] = value;
        LOG_ANY(kInfo, "set CxpLinkConfiguration:%s\n", pelorin::features::LinkConfigName(value));
        return GC_ERR_SUCCESS;
    }
    if (address == if_register(kRegUpdateList)) {
        IFUpdateDeviceList(nullptr, kRegisterUpdateTimeout);
        return GC_ERR_SUCCESS;
    }
    if (address == if_register(kRegDeviceSelector)) {
        deviceSelector = value;
        return GC_ERR_SUCCESS;
    }
    if (address == link_setting(kCxpMode)) {
        cxpMode = value;
        return GC_ERR_SUCCESS;
    }
    if (address == fiber_setting(kFiberOptionA) || address == fiber_setting(kFiberOptionB)) {
        const uint8_t first = *static_cast<const uint8_t *>(pBuffer);
        (address == fiber_setting(kFiberOptionA) ? fiberOptionA : fiberOptionB) = first;
        return GC_ERR_SUCCESS;
    }
    if (address == user_set_register(kUserSetDefault)) {
        userSet.default_set = value;
        SaveUserSet(true, value != 0, false);
        return GC_ERR_SUCCESS;
    }
    if (address == user_set_register(kUserSetSelector)) {
        const uint32_t largest = (userSet.set1_available == 1 ? 1u : 0u) +
                                 (userSet.set2_available == 1 ? 1u : 0u);
        if (value > largest) return GC_ERR_INVALID_PARAMETER;
        userSet.selector = value;
        return GC_ERR_SUCCESS;
    }
    if (address == user_set_register(kUserSetLoad)) return LoadUserSet(false, userSet.selector != 0);
    if (address == user_set_register(kUserSetSave))
        return SaveUserSet(false, userSet.selector != 0, true);
    if (address <= kLargestCardAddress)
        return card_write_reg(&cardContext, static_cast<uint32_t>(address), pBuffer,
                              static_cast<uint32_t>(size > 0xFFFFFFFFu ? 0xFFFFFFFFu : size));
    return GC_ERR_INVALID_ADDRESS;
}
