// The Device module: one per opened camera, owning its data streams and the
// remote-device port token.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "card/card_context.h"
#include "link/connection_flow.h"
#include "modules/cgentl_interface.h"
#include "pelorin/gentl.h"

class CGentlDataStream;

class CGentlDevice {
public:
    explicit CGentlDevice(CGentlInterface *parent);
    virtual ~CGentlDevice();

    CGentlDevice(const CGentlDevice &) = delete;
    CGentlDevice &operator=(const CGentlDevice &) = delete;

    // Opens the device on `slot` of card `card_index`: connects the camera
    // with the slot's link parameters on a card handle of its own. False for
    // a null ID or slot, or when the camera does not connect. True at once
    // when open.
    bool Open(const char *id, CGentlInterface::device_slot *slot, uint32_t card_index,
              const link_config &config, const conn_settings &settings);
    // Closes and deletes every stream still open.
    GC_ERROR Close();

    GC_ERROR DevGetPort(PORT_HANDLE *phRemoteDevice);
    GC_ERROR DevGetNumDataStreams(uint32_t *piNumDataStreams);
    GC_ERROR DevGetDataStreamID(uint32_t iIndex, char *sDataStreamID, size_t *piSize);
    GC_ERROR DevOpenDataStream(const char *sDataStreamID, DS_HANDLE *phDataStream);
    GC_ERROR DevGetInfo(DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                        size_t *piSize);
    GC_ERROR DevGetParentIF(IF_HANDLE *phIface);

    // Port side: the device's own register space (level 2), the camera behind
    // the remote port (level 3) and the stream register space (level 4).
    GC_ERROR ReadPort(int level, uint64_t iAddress, void *pBuffer, size_t *piSize);
    GC_ERROR WritePort(int level, uint64_t iAddress, const void *pBuffer, size_t *piSize);
    GC_ERROR GetNumPortURLs(int level, uint32_t *piNumURLs);
    GC_ERROR GetPortURLInfo(int level, uint32_t iURLIndex, URL_INFO_CMD iInfoCmd,
                            INFO_DATATYPE *piType, void *pBuffer, size_t *piSize);
    GC_ERROR GetPortInfo(int level, PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                         size_t *piSize);

    // The connection configuration in force ((links << 16) | rate).
    uint32_t connection_config() const { return connection_config_; }
    card_context &context() { return context_; }

    // Remote-device port token; 0 until DevGetPort issued it.
    uintptr_t remote_port_token() const { return remote_port_token_; }
    std::vector<CGentlDataStream *> &stream_list() { return streams_; }
    const std::vector<CGentlDataStream *> &stream_list() const { return streams_; }
    CGentlInterface *parent() const { return parent_; }

protected:
    uintptr_t remote_port_token_ = 0;

private:
    std::string device_id_;
    CGentlInterface::device_slot *slot_ = nullptr;
    uint32_t card_index_ = 0;
    link_config link_config_;
    conn_settings conn_settings_;
    uint32_t connection_config_ = 1;  // "Auto" until connected
    card_context context_;
    CGentlCritical critical_;
    CGentlInterface *parent_;
    std::vector<CGentlDataStream *> streams_;
};
