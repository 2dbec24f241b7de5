#include "modules/device_record.h"

#include <array>
#include <cstring>
#include <string>

#include "gentl_base/copy_info.h"

namespace {

std::array<device_record, kDetectedCameraCards * kSlotsPerCard> &detected_table() {
    static std::array<device_record, kDetectedCameraCards * kSlotsPerCard> table;
    return table;
}

// A record field as text: up to its first NUL, or the whole field when the
// camera filled it to the last byte.
template <size_t N>
std::string field_text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

constexpr uint64_t kTimestampFrequency = 1000000;

}  // namespace

CGentlCritical &DeviceLock() {
    static CGentlCritical lock(CGentlCritical::kUnranked, "DeviceLock");
    return lock;
}

device_record *detected_camera(uint32_t card_index, uint32_t slot_index) {
    if (card_index >= kDetectedCameraCards || slot_index >= kSlotsPerCard) return nullptr;
    return &detected_table()[card_index * kSlotsPerCard + slot_index];
}

void reset_device_record(device_record &record) { record = device_record{}; }

void set_record_id(device_record &record, const char *id) {
    std::memset(record.id_text, 0, sizeof record.id_text);
    if (id != nullptr) std::memcpy(record.id_text, id, strnlen(id, 8));
}

GC_ERROR AnswerDeviceInfo(const device_record &record, DEVICE_INFO_CMD iInfoCmd,
                          INFO_DATATYPE *piType, void *pBuffer, size_t *piSize) {
    using pelorin::CopyInfoNumber;
    using pelorin::CopyInfoString;
    auto text = [&](const std::string &value) {
        return CopyInfoString(value.c_str(), piType, pBuffer, piSize);
    };
    switch (iInfoCmd) {
    case DEVICE_INFO_ID: return text(field_text(record.id_text));
    case DEVICE_INFO_VENDOR: return text(field_text(record.vendor_name));
    case DEVICE_INFO_MODEL: return text(field_text(record.model_name));
    case DEVICE_INFO_TLTYPE: return text("CXP");
    case DEVICE_INFO_DISPLAYNAME:
        return text(field_text(record.vendor_name) + " " + field_text(record.model_name) + "(" +
                    field_text(record.id_text) + ")");
    case DEVICE_INFO_ACCESS_STATUS:
        return CopyInfoNumber<int32_t>(INFO_DATATYPE_INT32, static_cast<int32_t>(record.access_status),
                                       piType, pBuffer, piSize);
    case DEVICE_INFO_USER_DEFINED_NAME: return text(field_text(record.user_id));
    case DEVICE_INFO_SERIAL_NUMBER: return text(field_text(record.serial_number));
    case DEVICE_INFO_VERSION: return text(field_text(record.device_version));
    case DEVICE_INFO_TIMESTAMP_FREQUENCY:
        return CopyInfoNumber<uint64_t>(INFO_DATATYPE_UINT64, kTimestampFrequency, piType, pBuffer,
                                        piSize);
    default: return GC_ERR_NOT_IMPLEMENTED;
    }
}
