// What the producer reads of the camera behind a connected link device.
#pragma once

struct card_context;
struct device_record;

// The camera's identity into `record`: its Revision (as the connection found
// it), DeviceVendorName, DeviceModelName, DeviceVersion, DeviceSerialNumber
// and DeviceUserID in wire order; a field whose read fails keeps its value.
// Without `identity_only` the seven bootstrap words 0x0000-0x0018 follow.
// 0; -1001 without context or record.
int read_remote_features(card_context *context, device_record *record, bool identity_only);
