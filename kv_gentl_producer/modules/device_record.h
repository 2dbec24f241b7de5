// The identity and settings record of one camera, and the process-wide table
// of the cameras that device-list updates detected: one record per camera
// slot of each of the first eight cards (card index x 4 + slot index). The
// interface answers device info from this table until the device is opened;
// an open device keeps a record of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

struct device_record {
    uint32_t revision = 0;               // camera Revision found by the connection
    uint32_t acq_mode = 1;               // acquisition mode word
    uint32_t scan_lines_setting = 1000;  // line count setting of line-scan mode
    uint32_t isp_shadow = 0;             // ISP mode shadow
    uint32_t scan_lines = 1000;          // line count used in line-scan mode
    uint32_t multiplier = 1;             // images per buffer
    uint32_t frame_height = 0;           // Height x multiplier
    uint32_t isp_shadow_copy = 0;
    uint64_t extra_setting = 0;
    uint32_t read_stride = 100;          // remote read stride in bytes
    uint32_t frame_count = 0;            // reads as at least 1
    uint32_t dma_line_width = 0;
    uint32_t dma_line_count = 0;
    uint32_t access_status = 0;          // DEVICE_ACCESS_STATUS
    uint8_t bootstrap[7 * 4] = {};       // bootstrap registers 0x0000-0x0018, wire order
    char vendor_name[32] = {};
    char model_name[32] = {};
    char device_version[32] = {};
    char serial_number[16] = {};
    char id_text[16] = {};
    char user_id[16] = {};
    uint32_t last_width = 0;
    uint32_t last_height = 0;
};

inline constexpr uint32_t kDetectedCameraCards = 8;
inline constexpr uint32_t kSlotsPerCard = 4;

// Serialises every device open, close and probe of the process, and the
// table of detected cameras.
CGentlCritical &DeviceLock();

// The detected-camera record of `slot_index` on card `card_index`; null for
// a card or slot beyond the table. Callers hold DeviceLock.
device_record *detected_camera(uint32_t card_index, uint32_t slot_index);

// Puts the record back to its state before any detection.
void reset_device_record(device_record &record);

// Copies `id` (at most the first 8 bytes: "device0" ... "device3" and the
// NUL) into the record's ID field.
void set_record_id(device_record &record, const char *id);

// Answers one device info item from `record` (DEVICE_INFO_ID ...
// DEVICE_INFO_TIMESTAMP_FREQUENCY) with the copy-out rule of every info
// query; GC_ERR_NOT_IMPLEMENTED for other items.
GC_ERROR AnswerDeviceInfo(const device_record &record, DEVICE_INFO_CMD iInfoCmd,
                          INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);
