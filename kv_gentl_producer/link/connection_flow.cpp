#include "link/connection_flow.h"

#include "diag/log.h"
#include "modules/device_record.h"

using pelorin::diag::kDebug;

// No CoaXPress link device exists yet to connect through, so a probe finds
// no camera: the slot's record is put back to its empty state, and the slot
// is listed with empty identity texts.
void probe_device(uint32_t card_index, const link_config &config, conn_settings &settings) {
    CGenTLAutoLock guard(DeviceLock());
    settings.result = 0;
    device_record *record = detected_camera(card_index, config.slot_index);
    if (record != nullptr) reset_device_record(*record);
    LOG_ANY(kDebug, "probe card %u slot %u (links 0x%X): no link device, slot empty\n", card_index,
            config.slot_index, config.link_mask);
}
