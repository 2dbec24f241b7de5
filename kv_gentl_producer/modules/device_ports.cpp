// The three ports of a device: its own register space (level 2), the
// camera's memory behind the remote device port (level 3) and the data
// stream's register space (level 4).
//
// Level-2 addresses: 0x3E nnnn FFFF ssss (register nnnn; sub-code 0x0001
// the value, 0x0081 a string's length; the stream ID register adds
// selector << 12), settings at 0x3E0000FFFDxxxx, card registers up to
// 0xFFFFFFFF. Level 4: 0x4E nnnn FFFF ssss.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "card/interface_description.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"
#include "gentl_base/copy_info.h"
#include "modules/cgentl_data_stream.h"
#include "modules/cgentl_device.h"
#include "modules/port_answers.h"
#include "modules/register_copy.h"
#include "nodemap/module_files.h"

using pelorin::CopyRegisterLength;
using pelorin::CopyRegisterNumber;
using pelorin::CopyRegisterText;
using pelorin::diag::kError;

namespace {

constexpr uint64_t device_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x003E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
constexpr uint64_t stream_register(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x004E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
constexpr uint32_t kLengthItem = 0x0081;
constexpr uint64_t kCameraOnline = 0x003E0000FFFD0030ULL;
constexpr uint64_t kCameraRevision = 0x20000001ULL;
constexpr uint32_t kBoardStatusRegister = 0x10;
constexpr uint32_t kStreamStatusRegister = 0x2020;
constexpr uint64_t kLargestCardAddress = 0xFFFFFFFFULL;

constexpr uint32_t kDefaultStride = 100;
constexpr uint32_t kSmallestStride = 64;
constexpr uint32_t kRetryStrides[] = {64, 16};

// Register 0 of a device-side port: the zipped description file.
GC_ERROR read_description(const std::string &file, void *buffer, size_t *size) {
    const int result = pelorin::nodemap::ReadModuleXmlFile(file.c_str(), buffer, size);
    if (result == -1) {
        LOG_ANY(kError, "Device Load %s Error\n", file.c_str());
        return -1;
    }
    return result;
}

}  // namespace

GC_ERROR CGentlDevice::GetNumPortURLs(int level, uint32_t *piNumURLs) {
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piNumURLs == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (level < 2 || level > 4) {
        *piNumURLs = 0;
        return GC_ERR_NOT_AVAILABLE;
    }
    *piNumURLs = 1;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDevice::GetPortURLInfo(int level, uint32_t, URL_INFO_CMD iInfoCmd,
                                      INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    switch (level) {
    case 2:
        return pelorin::AnswerLocalUrlInfo(device_xml_file_.c_str(), "3e0000ffff0001", iInfoCmd,
                                           piType, pBuffer, piSize);
    case 4:
        return pelorin::AnswerLocalUrlInfo(stream_xml_file_.c_str(), "4e0000ffff0001", iInfoCmd,
                                           piType, pBuffer, piSize);
    case 3:
        if (iInfoCmd == URL_INFO_URL)
            return pelorin::CopyInfoString(remote_url_.c_str(), piType, pBuffer, piSize);
        if (iInfoCmd >= URL_INFO_SCHEMA_VER_MAJOR && iInfoCmd <= URL_INFO_FILE_VER_SUBMINOR)
            return pelorin::CopyInfoNumber<int32_t>(INFO_DATATYPE_INT32, 1, piType, pBuffer, piSize);
        return GC_ERR_NOT_IMPLEMENTED;
    default: return GC_ERR_NOT_AVAILABLE;
    }
}

GC_ERROR CGentlDevice::GetPortInfo(int level, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                                   void *pBuffer, size_t *piSize) {
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piType == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (level < 2 || level > 4 || iInfoCmd > PORT_INFO_PORTNAME) return GC_ERR_NOT_AVAILABLE;
    const interface_description *d = parent_ != nullptr ? parent_->description() : nullptr;
    const char *card_vendor = d != nullptr ? d->vendor.c_str() : "";
    const char *card_model = d != nullptr ? d->model.c_str() : "";
    if (level == 3) {
        // The camera's port: big-endian, its own vendor and model.
        auto flag = [&](bool value) {
            return pelorin::CopyInfoNumber<bool8_t>(INFO_DATATYPE_BOOL8, value ? 1 : 0, piType,
                                                    pBuffer, piSize);
        };
        const std::string vendor(record_.vendor_name, strnlen(record_.vendor_name, 32));
        const std::string model(record_.model_name, strnlen(record_.model_name, 32));
        switch (iInfoCmd) {
        case PORT_INFO_VENDOR: return pelorin::CopyInfoString(vendor.c_str(), piType, pBuffer, piSize);
        case PORT_INFO_MODEL: return pelorin::CopyInfoString(model.c_str(), piType, pBuffer, piSize);
        case PORT_INFO_MODULE: return pelorin::CopyInfoString("Device", piType, pBuffer, piSize);
        case PORT_INFO_LITTLE_ENDIAN: return flag(false);
        case PORT_INFO_BIG_ENDIAN: return flag(true);
        case PORT_INFO_VERSION: return pelorin::CopyInfoString("1.0.1", piType, pBuffer, piSize);
        case PORT_INFO_PORTNAME: return pelorin::CopyInfoString("Device", piType, pBuffer, piSize);
        default: break;
        }
        const pelorin::port_identity identity{device_id_.c_str(), "", "", "CXP", "Device", "Device"};
        return pelorin::AnswerPortInfo(identity, iInfoCmd, piType, pBuffer, piSize);
    }
    if (level == 4 && iInfoCmd == PORT_INFO_VERSION)
        return pelorin::CopyInfoString("1.0.0", piType, pBuffer, piSize);
    const pelorin::port_identity identity =
        level == 2 ? pelorin::port_identity{device_id_.c_str(), card_vendor, card_model, "CXP",
                                            "TLDevice", "DevicePort"}
                   : pelorin::port_identity{"stream0", card_vendor, card_model, "CXP",
                                            "TLDataStream", "StreamPort"};
    return pelorin::AnswerPortInfo(identity, iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CGentlDevice::ReadPort(int level, uint64_t iAddress, void *pBuffer, size_t *piSize) {
    if (!is_open() || stream_ids_->Count() == 0) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    switch (level) {
    case 2: return ReadDeviceRegister(iAddress, pBuffer, piSize);
    case 3: {
        if (const GC_ERROR lost = RefuseWhenCameraLost("GCReadPort"); lost != GC_ERR_SUCCESS) return lost;
        return RemoteRead(iAddress, pBuffer, piSize);
    }
    case 4: return ReadStreamRegister(iAddress, pBuffer, piSize);
    default: return GC_ERR_NOT_AVAILABLE;
    }
}

GC_ERROR CGentlDevice::WritePort(int level, uint64_t iAddress, const void *pBuffer,
                                 size_t *piSize) {
    if (!is_open() || stream_ids_->Count() == 0) return GC_ERR_NOT_INITIALIZED;
    if (pBuffer == nullptr || piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    switch (level) {
    case 2: {
        GC_ERROR result = GC_ERR_SUCCESS;
        if (WriteSettingRegister(iAddress, pBuffer, *piSize, result)) return result;
        if (iAddress > kLargestCardAddress) return GC_ERR_INVALID_ADDRESS;
        return card_write_reg(&context_, static_cast<uint32_t>(iAddress), pBuffer,
                              static_cast<uint32_t>(*piSize > 8 ? 8 : *piSize));
    }
    case 3: {
        if (const GC_ERROR lost = RefuseWhenCameraLost("GCWritePort"); lost != GC_ERR_SUCCESS) return lost;
        return WriteCameraMemory(iAddress, pBuffer, *piSize);
    }
    case 4: return GC_ERR_INVALID_ADDRESS;
    default: return GC_ERR_NOT_AVAILABLE;
    }
}

GC_ERROR CGentlDevice::ReadDeviceRegister(uint64_t address, void *pBuffer, size_t *piSize) {
    if (address == device_register(0)) return read_description(device_xml_file_, pBuffer, piSize);
    if (address == device_register(1)) return CopyRegisterText(device_id_.c_str(), pBuffer, piSize);
    if (address == device_register(1, kLengthItem))
        return CopyRegisterLength(device_id_.c_str(), pBuffer, piSize);
    const struct {
        uint32_t number;
        DEVICE_INFO_CMD command;
    } info_registers[] = {{2, DEVICE_INFO_VENDOR}, {3, DEVICE_INFO_MODEL}, {4, DEVICE_INFO_ACCESS_STATUS}};
    for (const auto &item : info_registers) {
        if (address != device_register(item.number) &&
            address != device_register(item.number, kLengthItem))
            continue;
        char value[64] = {};
        size_t size = sizeof value;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        const GC_ERROR result = DevGetInfo(item.command, &type, value, &size);
        if (result != GC_ERR_SUCCESS) return result;
        if (address == device_register(item.number))
            return pelorin::CopyRegisterValue(value, size, pBuffer, piSize);
        return CopyRegisterNumber(static_cast<uint32_t>(size), pBuffer, piSize);
    }
    if (address == device_register(7)) {
        if (*piSize < 2) {
            *piSize = 2;
            return GC_ERR_BUFFER_TOO_SMALL;
        }
        return CopyRegisterNumber(static_cast<uint16_t>(stream_count_), pBuffer, piSize);
    }
    const uint64_t selected = uint64_t{stream_selector_} << 12;
    if (address == device_register(8) + selected || address == device_register(8, kLengthItem) + selected) {
        char id[64] = {};
        size_t size = sizeof id;
        const GC_ERROR result = stream_ids_->Get(stream_selector_, id, &size);
        if (result != GC_ERR_SUCCESS) return result;
        return address == device_register(8) + selected ? CopyRegisterText(id, pBuffer, piSize)
                                                        : CopyRegisterLength(id, pBuffer, piSize);
    }
    if (address == device_register(9)) {
        const uint32_t status = context_read_reg(&context_, kBoardStatusRegister);
        return CopyRegisterNumber((status >> 3) & 0xF, pBuffer, piSize);
    }
    if (address == kStreamStatusRegister)
        return CopyRegisterNumber(context_read_reg(&context_, kStreamStatusRegister) & 0xFFF, pBuffer,
                                  piSize);
    if (address == kCameraOnline)
        return CopyRegisterNumber(uint32_t{camera_is_online(&context_) ? 1u : 0u}, pBuffer, piSize);
    if (address == kCameraRevision) return CopyRegisterNumber(record_.revision, pBuffer, piSize);
    GC_ERROR result = GC_ERR_SUCCESS;
    if (ReadSettingRegister(address, pBuffer, piSize, result)) return result;
    if (address <= kLargestCardAddress)
        return card_read_reg(&context_, static_cast<uint32_t>(address), pBuffer, *piSize);
    return GC_ERR_INVALID_ADDRESS;
}

GC_ERROR CGentlDevice::ReadStreamRegister(uint64_t address, void *pBuffer, size_t *piSize) {
    if (address == stream_register(0)) return read_description(stream_xml_file_, pBuffer, piSize);
    if (address == stream_register(1)) return CopyRegisterText("stream0", pBuffer, piSize);
    if (address == stream_register(1, kLengthItem)) return CopyRegisterLength("stream0", pBuffer, piSize);
    if (address == stream_register(2) || address == stream_register(3)) {
        // Announced buffers and the minimum announce count of the first
        // stream: nothing to answer before the stream is opened.
        if (streams_.empty() || streams_.front() == nullptr) return GC_ERR_NOT_INITIALIZED;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        return streams_.front()->DSGetInfo(
            address == stream_register(2) ? STREAM_INFO_NUM_ANNOUNCED : STREAM_INFO_BUF_ANNOUNCE_MIN,
            &type, pBuffer, piSize);
    }
    return GC_ERR_INVALID_ADDRESS;
}

GC_ERROR CGentlDevice::RemoteRead(uint64_t address, void *pBuffer, size_t *piSize) {
    if (address > kLargestCardAddress) return GC_ERR_INVALID_ADDRESS;
    const uint32_t stride = record_.read_stride >= kSmallestStride
                                ? std::min<uint32_t>(record_.read_stride, kCameraStrideLimit)
                                : kDefaultStride;
    const uint64_t requested = *piSize;
    uint64_t size = requested;
    int result = camera_read(&context_, static_cast<uint32_t>(address), pBuffer, &size, 0, true, stride);
    if (requested >= stride && result != 0) {
        for (uint32_t retry : kRetryStrides) {
            if (result != -3) break;
            size = requested;
            result = camera_read(&context_, static_cast<uint32_t>(address), pBuffer, &size, 0, true, retry);
        }
    }
    if (result == -3)
        LOG_PAIR(kError, pelorin::msg_zh::kCameraXmlCrcError, "Camera Xml Crc Error!\n");
    // The link layer's result as it is (-1 no answer, -2 refused, -3 damaged).
    if (result != 0) return result;
    *piSize = static_cast<size_t>(size);
    return GC_ERR_SUCCESS;
}
