#include "modules/cgentl_device.h"

#include "gentl_base/error_codes.h"
#include "modules/cgentl_data_stream.h"

using pelorin::NotImplementedYet;

CGentlDevice::CGentlDevice(CGentlInterface *parent) : parent_(parent) {}

CGentlDevice::~CGentlDevice() { Close(); }

GC_ERROR CGentlDevice::Close() {
    CGenTLAutoLock guard(critical_);
    for (CGentlDataStream *stream : streams_) delete stream;
    streams_.clear();
    remote_port_token_ = 0;
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
