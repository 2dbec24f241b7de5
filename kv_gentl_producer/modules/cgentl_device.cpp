#include "modules/cgentl_device.h"

#include "gentl_base/error_codes.h"
#include "modules/cgentl_data_stream.h"
#include "diag/log.h"
#include "modules/device_record.h"

using pelorin::NotImplementedYet;

CGentlDevice::CGentlDevice(CGentlInterface *parent) : parent_(parent) {}

CGentlDevice::~CGentlDevice() { Close(); }

bool CGentlDevice::Open(const char *id, CGentlInterface::device_slot *slot, uint32_t card_index,
                        const link_config &config, const conn_settings &settings) {
    CGenTLAutoLock guard(DeviceLock());
    if (id == nullptr || slot == nullptr) return false;
    if (!device_id_.empty()) return true;
    link_config_ = config;
    conn_settings_ = settings;
    if (link_connect(&context_, card_index, link_config_, conn_settings_, false) != 0) {
        LOG_ANY(pelorin::diag::kError, "Create Device%d Error\n", static_cast<int>(config.slot_index));
        return false;
    }
    connection_config_ = conn_settings_.result;
    device_id_ = id;
    slot_ = slot;
    card_index_ = card_index;
    return true;
}

GC_ERROR CGentlDevice::Close() {
    CGenTLAutoLock guard(critical_);
    for (CGentlDataStream *stream : streams_) delete stream;
    streams_.clear();
    remote_port_token_ = 0;
    if (!device_id_.empty()) {
        dma_stop(&context_);
        link_disconnect(&context_);
    }
    device_id_.clear();
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDevice::DevGetParentIF(IF_HANDLE *phIface) {
    if (phIface == nullptr) return GC_ERR_INVALID_PARAMETER;
    *phIface = parent_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDevice::DevGetPort(PORT_HANDLE *) { return NotImplementedYet("DevGetPort"); }
GC_ERROR CGentlDevice::DevGetNumDataStreams(uint32_t *) {
    return NotImplementedYet("DevGetNumDataStreams");
}
GC_ERROR CGentlDevice::DevGetDataStreamID(uint32_t, char *, size_t *) {
    return NotImplementedYet("DevGetDataStreamID");
}
GC_ERROR CGentlDevice::DevOpenDataStream(const char *, DS_HANDLE *) {
    return NotImplementedYet("DevOpenDataStream");
}
GC_ERROR CGentlDevice::DevGetInfo(DEVICE_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("DevGetInfo");
}
GC_ERROR CGentlDevice::ReadPort(int, uint64_t, void *, size_t *) {
    return NotImplementedYet("device ReadPort");
}
GC_ERROR CGentlDevice::WritePort(int, uint64_t, const void *, size_t *) {
    return NotImplementedYet("device WritePort");
}
GC_ERROR CGentlDevice::GetNumPortURLs(int, uint32_t *) {
    return NotImplementedYet("device GCGetNumPortURLs");
}
GC_ERROR CGentlDevice::GetPortURLInfo(int, uint32_t, URL_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("device GCGetPortURLInfo");
}
GC_ERROR CGentlDevice::GetPortInfo(int, PORT_INFO_CMD, INFO_DATATYPE *, void *, size_t *) {
    return NotImplementedYet("device GCGetPortInfo");
}
