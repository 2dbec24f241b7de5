#include "modules/remote_features.h"

#include <cstdio>
#include <cstring>

#include "card/card_context.h"
#include "link/cxp_device.h"
#include "modules/device_record.h"
#include "pelorin/gentl.h"

namespace {

constexpr uint32_t kIdentityStride = 128;

// One identity field read in wire order; the field keeps its value when the
// read fails.
template <size_t N>
void read_text(card_context *context, uint32_t address, char (&field)[N]) {
    char text[N] = {};
    uint64_t size = N;
    if (camera_read(context, address, text, &size, 0, true, kIdentityStride) == 0)
        std::memcpy(field, text, N);
}

}  // namespace

int read_remote_features(card_context *context, device_record *record, bool identity_only) {
    if (context == nullptr || record == nullptr) {
        std::printf("read_remote_features read error, pcie=%d, features=%d\n", context != nullptr,
                    record != nullptr);
        return GC_ERR_ERROR;
    }
    if (context->link_device != nullptr) {
        uint32_t supported = 0, used = 0;
        context->link_device->get_version(record->revision, supported, used);
    }
    read_text(context, 0x2000, record->vendor_name);
    read_text(context, 0x2020, record->model_name);
    read_text(context, 0x2070, record->device_version);
    read_text(context, 0x20B0, record->serial_number);
    read_text(context, 0x20C0, record->user_id);
    if (!identity_only) {
        for (uint32_t i = 0; i < 7; ++i) {
            uint64_t size = 4;
            camera_read(context, 4 * i, record->bootstrap + 4 * i, &size, 0, true, kIdentityStride);
        }
    }
    return 0;
}
