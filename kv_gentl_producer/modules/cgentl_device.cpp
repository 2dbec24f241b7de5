#include "modules/cgentl_device.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <new>

#include "card/interface_description.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"
#include "gentl_base/copy_info.h"
#include "gentl_base/error_codes.h"
#include "modules/cgentl_data_stream.h"
#include "modules/remote_features.h"
#include "nodemap/ckv_iport.h"
#include "nodemap/module_files.h"
#include "nodemap/node_map.h"
#include "nodemap/node_map_loader.h"
#include "pelorin/kv_api.h"

using pelorin::NotImplementedYet;
using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kInfo;

namespace {

constexpr uint32_t kStreamIdCapacity = 8;
constexpr uint32_t kStreamCount = 1;
constexpr uint32_t kRemotePortBase = 17;

}  // namespace

const char *DeviceXmlFileFor(uint32_t card_family) {
    const uint32_t family = card_family & 0xFF;
    const uint32_t variant = card_family >> 8;
    if (variant > 3) return "Cxplink_TLDevice_1_1_0.zip";
    if (family >= 2 && family <= 4) return "Cxplink_TLDevice_2_1_0.zip";
    if (family == 0x10) return "CL_TLDevice_1_0_0.zip";
    return "Cxplink_TLDevice_1_1_0.zip";
}

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
        LOG_ANY(kError, "Create Device%d Error\n", static_cast<int>(config.slot_index));
        return false;
    }
    connection_config_ = conn_settings_.result;
    device_id_ = id;
    slot_ = slot;
    card_index_ = card_index;

    device_xml_file_ = DeviceXmlFileFor(slot->card_family);
    stream_xml_file_ = pelorin::nodemap::kDataStreamXmlFile;
    LOG_ANY(kInfo, "device url:%s, card_version=0x%x\n", device_xml_file_.c_str(), slot->card_family);
    // Until DevGetPort reads it again, the device reports the identity that
    // the device list found in its slot.
    if (const device_record *detected = detected_camera(card_index, slot->index)) record_ = *detected;
    // The settings the interface keeps for this camera.
    record_.acq_mode = static_cast<uint32_t>(slot->acq_mode);
    record_.scan_lines_setting = static_cast<uint32_t>(slot->scan_lines_setting);
    record_.scan_lines = record_.scan_lines_setting;
    record_.multiplier = static_cast<uint32_t>(slot->multiplier);
    record_.frame_height = static_cast<uint32_t>(slot->frame_height);
    record_.extra_setting = slot->extra_setting;
    record_.read_stride = static_cast<uint32_t>(slot->read_stride);
    record_.isp_shadow = record_.isp_shadow_copy = record_.acq_mode == 2 ? 1 : 0;
    if (ReadCameraUrl() != 0) {
        ReleaseOpenState();
        return false;
    }
    stream_ids_.reset(new (std::nothrow) CRingAutoMem(kStreamIdCapacity));
    if (!stream_ids_) {
        ReleaseOpenState();
        return false;
    }
    CreateStreamSlots();
    if (LoadNodeMap(2, device_port_, device_map_, device_map_file_) != 0) {
        LOG_ANY(kError, "device xml notemap error\n");
        ReleaseOpenState();
        return false;
    }
    return true;
}

void CGentlDevice::ReleaseOpenState() {
    device_map_.reset();
    remote_map_.reset();
    stream_map_.reset();
    device_port_.reset();
    remote_port_.reset();
    stream_port_.reset();
    stream_ids_.reset();
    stream_count_ = 0;
    stream_slots_.clear();
    streams_.clear();
    dma_stop(&context_);
    link_disconnect(&context_);
    device_id_.clear();
}

void CGentlDevice::CreateStreamSlots() {
    stream_count_ = kStreamCount;
    stream_slots_.resize(stream_count_);
    streams_.assign(stream_count_, nullptr);
    for (uint32_t index = 0; index < stream_count_; ++index) {
        stream_slot &slot = stream_slots_[index];
        slot.name = "stream" + std::to_string(index);
        slot.index = index;
        slot.device = this;
        stream_ids_->Put(slot.name.c_str(), slot.name.size() + 1);
    }
}

GC_ERROR CGentlDevice::Close() {
    CGenTLAutoLock guard(DeviceLock());
    // Each stream gives its place back while it closes.
    for (CGentlDataStream *&place : streams_) {
        CGentlDataStream *stream = place;
        place = nullptr;
        delete stream;
    }
    remote_port_token_ = 0;
    if (!device_id_.empty()) ReleaseOpenState();
    return GC_ERR_SUCCESS;
}

int CGentlDevice::ReadCameraUrl() {
    uint64_t size = 4;
    int result = camera_read(&context_, 0x0018, &url_address_, &size, 0, false, 100);
    if (result != 0) {
        LOG_ANY(kError, "read urlAddress error: %d\n", result);
        return result;
    }
    LOG_ANY(kDebug, "read urlAddress:0x%X\n", url_address_);
    char url[129] = {};
    size = 128;
    result = camera_read(&context_, url_address_, url, &size, kCameraReadString, true, 100);
    if (result != 0) {
        LOG_ANY(kError, "read url error: %d\n", result);
        return result;
    }
    remote_url_ = url;
    LOG_ANY(kDebug, "read url:%s\n", remote_url_.c_str());
    const size_t first = remote_url_.find(';');
    if (first == std::string::npos) {
        LOG_ANY(kError, "sep url error: %d\n", -1);
        return -1;
    }
    const size_t second = remote_url_.find(';', first + 1);
    if (second == std::string::npos) {
        LOG_ANY(kError, "sep sub_str error: %d\n", -1);
        return -1;
    }
    camera_xml_address_ = std::strtoull(remote_url_.substr(first + 1, second - first - 1).c_str(),
                                        nullptr, 16);
    camera_xml_size_ = std::strtoull(remote_url_.substr(second + 1).c_str(), nullptr, 16);
    LOG_ANY(kDebug, "Init Camera Addr(0x%08X) Size(%" PRIu64 ")\n",
            static_cast<unsigned>(camera_xml_address_), camera_xml_size_);
    return 0;
}

int CGentlDevice::LoadNodeMap(int level, std::shared_ptr<CKvIport> &port,
                              std::shared_ptr<CNodeMapRef> &map, std::string &file_name) {
    try {
        // The node map reaches its registers through the handle a consumer
        // would use for that port.
        void *handle = level == 3   ? reinterpret_cast<void *>(remote_port_token_)
                       : level == 4 ? static_cast<void *>(streams_.front())
                                    : static_cast<void *>(this);
        port = std::make_shared<CKvIport>(handle, level);
        const pelorin::nodemap::module_port_ops ops = pelorin::nodemap::port_ops_of(*this, level);
        map = pelorin::nodemap::LoadNodeMapFromPort(ops, port.get(), &file_name, true);
    } catch (const std::exception &error) {
        LOG_ANY(kError, "device node map (level %d): %s\n", level, error.what());
        map.reset();
        return KV_ERR_EXCEPTION;
    }
    return map ? 0 : GC_ERR_ERROR;
}

std::shared_ptr<CNodeMapRef> CGentlDevice::node_map(int level) const {
    switch (level) {
    case 2: return device_map_;
    case 3: return remote_map_;
    case 4: return stream_map_;
    default: return nullptr;
    }
}

const std::string &CGentlDevice::xml_file_name(int level) const {
    static const std::string none;
    switch (level) {
    case 2: return device_map_file_;
    case 3: return remote_map_file_;
    case 4: return stream_map_file_;
    default: return none;
    }
}

GC_ERROR CGentlDevice::DevGetParentIF(IF_HANDLE *phIface) {
    if (phIface == nullptr) return GC_ERR_INVALID_PARAMETER;
    *phIface = parent_;
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDevice::DevGetInfo(DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                                  size_t *piSize) {
    CGenTLAutoLock guard(DeviceLock());
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piSize == nullptr) return GC_ERR_INVALID_PARAMETER;
    record_.access_status = camera_lost() ? DEVICE_ACCESS_STATUS_NOACCESS : DEVICE_ACCESS_STATUS_OPEN_READWRITE;
    set_record_id(record_, device_id_.c_str());
    return AnswerDeviceInfo(record_, iInfoCmd, piType, pBuffer, piSize);
}

GC_ERROR CGentlDevice::DevGetNumDataStreams(uint32_t *piNumDataStreams) {
    CGenTLAutoLock guard(DeviceLock());
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (piNumDataStreams == nullptr) return GC_ERR_INVALID_PARAMETER;
    *piNumDataStreams = stream_ids_->Count();
    return GC_ERR_SUCCESS;
}

GC_ERROR CGentlDevice::DevGetDataStreamID(uint32_t iIndex, char *sDataStreamID, size_t *piSize) {
    CGenTLAutoLock guard(DeviceLock());
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    return stream_ids_->Get(iIndex, sDataStreamID, piSize);
}

GC_ERROR CGentlDevice::DevOpenDataStream(const char *sDataStreamID, DS_HANDLE *phDataStream) {
    CGenTLAutoLock guard(DeviceLock());
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (sDataStreamID == nullptr || phDataStream == nullptr) return GC_ERR_INVALID_PARAMETER;
    const auto slot = std::find_if(stream_slots_.begin(), stream_slots_.end(),
                                   [sDataStreamID](const stream_slot &candidate) {
                                       return candidate.name == sDataStreamID;
                                   });
    if (slot == stream_slots_.end()) {
        LOG_ANY(kError, "DevOpenDataStream: no data stream \"%s\"\n", sDataStreamID);
        return GC_ERR_INVALID_ID;
    }
    CGentlDataStream *&place = streams_[slot->index];
    if (place != nullptr) return GC_ERR_RESOURCE_IN_USE;
    auto stream = std::make_unique<CGentlDataStream>();
    if (!stream->Open(sDataStreamID, &context_, &*slot)) {
        LOG_ANY(kError, "DevOpenDataStream: stream %s does not open\n", sDataStreamID);
        return GC_ERR_INVALID_ID;
    }
    place = stream.release();
    *phDataStream = place;
    // The stream port's node map lives as long as the first stream.
    if (slot->index == 0 && LoadNodeMap(4, stream_port_, stream_map_, stream_map_file_) != 0)
        LOG_ANY(kError, "stream xml nodemap error\n");
    return GC_ERR_SUCCESS;
}

void CGentlDevice::release_stream(uint32_t index) {
    CGenTLAutoLock guard(DeviceLock());
    if (index >= streams_.size()) return;
    streams_[index] = nullptr;
    if (index == 0) {
        stream_map_.reset();
        stream_port_.reset();
    }
}

void CGentlDevice::MarkCameraLost() {
    if (camera_lost_.exchange(true, std::memory_order_acq_rel)) return;
    LOG_PAIR(kError, pelorin::msg_zh::kCameraLost, "%s: the camera is lost (its link is down); close and open the device again\n",
             device_id_.c_str());
}

GC_ERROR CGentlDevice::RefuseWhenCameraLost(const char *call) const {
    if (!camera_lost()) return GC_ERR_SUCCESS;
    LOG_ANY(kError, "%s: %s refused, the camera is lost\n", call, device_id_.c_str());
    return GC_ERR_IO;
}

GC_ERROR CGentlDevice::DevGetPort(PORT_HANDLE *phRemoteDevice) {
    CGenTLAutoLock guard(DeviceLock());
    if (!is_open()) return GC_ERR_NOT_INITIALIZED;
    if (phRemoteDevice == nullptr) return GC_ERR_INVALID_PARAMETER;
    if (const GC_ERROR lost = RefuseWhenCameraLost("DevGetPort"); lost != GC_ERR_SUCCESS) return lost;
    if (remote_port_token_ == 0) {
        const uint32_t card = parent_ != nullptr && parent_->description() != nullptr
                                  ? parent_->description()->card_index
                                  : card_index_;
        remote_port_token_ = 100u * card + slot_->index + kRemotePortBase;
    }
    if (!remote_map_) {
        const int result = LoadNodeMap(3, remote_port_, remote_map_, remote_map_file_);
        if (result == KV_ERR_EXCEPTION) return KV_ERR_EXCEPTION;
        if (result != 0) return GC_ERR_ERROR;
    } else {
        std::printf("RemoteDevice=%d, remote_nodemap=%d\n", remote_port_token_ != 0, remote_map_ != nullptr);
    }
    // At every call: the card follows the camera's pixel format, and the
    // identity and geometry are read again.
    PixelFormatToCard();
    read_remote_features(&context_, &record_, false);
    RefreshGeometry();
    *phRemoteDevice = reinterpret_cast<PORT_HANDLE>(remote_port_token_);
    return GC_ERR_SUCCESS;
}
