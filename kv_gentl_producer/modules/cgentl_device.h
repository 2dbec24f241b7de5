// The Device module: one per opened camera, owning its data streams and the
// remote-device port token.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "card/card_context.h"
#include "link/connection_flow.h"
#include "modules/cgentl_interface.h"
#include "modules/cring_auto_mem.h"
#include "modules/device_record.h"
#include "pelorin/gentl.h"

class CGentlDataStream;
class CKvIport;
class CNodeMapRef;

// A data stream place of a device: its ID, its index and the device.
struct stream_slot {
    std::string name;
    uint32_t index = 0;
    CGentlDevice *device = nullptr;
};

// Description file of the device port for a card family code.
const char *DeviceXmlFileFor(uint32_t card_family);

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
    // The device user set, acting only when the interface's "OpenUserSet"
    // setting is on (otherwise 0 and nothing touched). Load: the user set or
    // the default set; `from_settings_file` takes the choice from the
    // settings file's "open_userset_dev_N" key instead. Save: `set_default`
    // writes that key; `write_file` with `use_user_set` saves the user set.
    int LoadUserSet(bool from_settings_file, bool use_user_set);
    int SaveUserSet(bool set_default, bool use_user_set, bool write_file);
    // Tells the card whether to take the camera's pixel packing as it is.
    void send_pixel_format_to_card() { PixelFormatToCard(); }
    // The height a multi-frame buffer uses (Height x multiplier by default).
    void set_frame_height(uint32_t lines) { record_.frame_height = lines; }
    // A closing stream gives its place back (the stream deletes itself).
    void release_stream(uint32_t index);
    // A camera feature's integer value (an enumeration's entry value); false
    // when there is no camera node map or the read fails.
    bool read_camera_integer(const char *name, int64_t &value);

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
    bool is_open() const { return stream_ids_ != nullptr && !device_id_.empty(); }
    const device_record &record() const { return record_; }
    // Node maps of the device port (level 2), the camera (level 3, once
    // DevGetPort built it) and the data stream port (level 4); null when not
    // loaded.
    std::shared_ptr<CNodeMapRef> node_map(int level) const;
    const std::string &xml_file_name(int level) const;
    const std::string &remote_url() const { return remote_url_; }

    // Remote-device port token; 0 until DevGetPort issued it.
    uintptr_t remote_port_token() const { return remote_port_token_; }
    // One place per stream of the device; null where the stream is not open.
    const std::vector<CGentlDataStream *> &stream_list() const { return streams_; }
    CGentlInterface *parent() const { return parent_; }

    // The camera left: its links lost it while the device was open (found by
    // the delivery thread). From then on the device answers GC_ERR_IO to
    // whatever needs the camera, DevGetInfo reports no access, and only
    // closing and opening the device again connects it anew. Logged once.
    void MarkCameraLost();
    bool camera_lost() const { return camera_lost_.load(std::memory_order_acquire); }
    // GC_ERR_IO with a log line naming `call` when the camera is lost, else 0.
    GC_ERROR RefuseWhenCameraLost(const char *call) const;

protected:
    uintptr_t remote_port_token_ = 0;
    std::vector<CGentlDataStream *> &stream_places() { return streams_; }

private:
    // The camera's description URL (bootstrap XmlUrlAddress): 0 or the
    // failing read's result.
    int ReadCameraUrl();
    // Builds the node map of `level` from its port's URL into `map`.
    int LoadNodeMap(int level, std::shared_ptr<CKvIport> &port, std::shared_ptr<CNodeMapRef> &map,
                    std::string &file_name);
    // The camera memory behind the remote port, with the stride retries.
    GC_ERROR RemoteRead(uint64_t address, void *buffer, size_t *size);
    GC_ERROR ReadDeviceRegister(uint64_t address, void *buffer, size_t *size);
    GC_ERROR ReadStreamRegister(uint64_t address, void *buffer, size_t *size);
    // The acquisition settings, trigger block and user-set registers of the
    // device port; false when `address` is none of them.
    bool ReadSettingRegister(uint64_t address, void *buffer, size_t *size, GC_ERROR &result);
    bool WriteSettingRegister(uint64_t address, const void *buffer, size_t size, GC_ERROR &result);
    // Tells the card whether to take the camera's pixel packing as it is.
    void PixelFormatToCard();
    // Recomputes the DMA line width and count from the camera's geometry.
    void RefreshGeometry();
    // frame_height := camera Height x multiplier; false when Height cannot be read.
    bool RefreshFrameHeight();
    GC_ERROR WriteCameraMemory(uint64_t address, const void *buffer, size_t size);
    void ReleaseOpenState();
    // The interface's context: its settings file and user-set directory.
    const card_context &settings_context() const;
    uint32_t user_set_number() const;
    std::string user_set_key() const;
    std::string UserSetFile(bool user_set) const;
    // One stream place per stream of the camera ("stream0", ...).
    void CreateStreamSlots();

    std::string device_id_;
    CGentlInterface::device_slot *slot_ = nullptr;
    uint32_t card_index_ = 0;
    link_config link_config_;
    conn_settings conn_settings_;
    uint32_t connection_config_ = 1;  // "Auto" until connected
    card_context context_;
    device_record record_;
    std::atomic<bool> camera_lost_{false};
    std::unique_ptr<CRingAutoMem> stream_ids_;
    uint32_t stream_count_ = 0;
    uint32_t stream_selector_ = 0;
    uint32_t userset_selector_ = 0;
    uint32_t userset_default_ = 0;
    uint32_t userset_flag_a_ = 1;
    uint32_t userset_flag_b_ = 1;
    uint32_t userset_flag_c_ = 0;
    uint32_t url_address_ = 0;
    std::string remote_url_;
    uint64_t camera_xml_address_ = 0;
    uint64_t camera_xml_size_ = 0;
    std::string device_xml_file_;
    std::string stream_xml_file_;
    std::shared_ptr<CKvIport> device_port_, remote_port_, stream_port_;
    std::shared_ptr<CNodeMapRef> device_map_, remote_map_, stream_map_;
    std::string device_map_file_, remote_map_file_, stream_map_file_;
    CGentlInterface *parent_;
    std::vector<stream_slot> stream_slots_;
    std::vector<CGentlDataStream *> streams_;
};
