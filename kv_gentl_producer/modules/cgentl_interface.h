// The Interface module: one per frame-grabber card. It groups the card's
// links into camera slots, publishes the slots as the device list, opens
// devices on them and serves the interface register space and node map.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card/card_context.h"
#include "gentl_base/gentl_critical.h"
#include "link/connection_flow.h"
#include "modules/cring_auto_mem.h"
#include "modules/slot_arrangement.h"
#include "pelorin/gentl.h"

class CTLSystem;
class CGentlDevice;
class CKvIport;
class CNodeMapRef;
struct interface_description;

class CGentlInterface {
public:
    // One entry of the device list. `device` is null until the device is
    // opened. An open device whose slot left the list on an update stays in
    // the list unlisted (`listed` false) until it is closed, so that its
    // handle keeps working; it is not counted or reported by ID queries.
    struct DeviceEntry {
        std::string id;
        uint32_t slot = 0;
        CGentlDevice *device = nullptr;
        bool listed = true;
    };

    // The record of one camera slot, handed to the device opened on it.
    struct device_slot {
        std::string name;
        uint32_t index = 0;
        CGentlInterface *iface = nullptr;
        uint32_t card_family = 1;  // the card's family code (variant bits included)
        // The camera's acquisition settings, kept across device opens.
        uint64_t acq_mode = 1;
        uint64_t scan_lines_setting = 1000;
        uint64_t multiplier = 1;
        uint64_t frame_height = 0;
        uint64_t extra_setting = 0;
        uint64_t read_stride = 100;
    };

    // The interface user set: which set is selected, which sets exist and
    // which one is loaded at open.
    struct user_set_state {
        uint32_t selector = 0;        // 0 the default set, 1 the user set
        uint32_t flag = 0;            // 1 once open
        uint32_t set1_available = 0;  // 1 once open
        uint32_t set2_available = 0;
        uint32_t default_set = 0;     // 1 when the user set is loaded at open
    };

    explicit CGentlInterface(CTLSystem *system);
    virtual ~CGentlInterface();

    CGentlInterface(const CGentlInterface &) = delete;
    CGentlInterface &operator=(const CGentlInterface &) = delete;

    // Opens the interface with `id` on the card that `description` describes;
    // false when the card cannot be opened. True at once when already open.
    bool Open(const char *id, interface_description *description);
    // Closes and deletes every device, releases the card handle and tells
    // the system. Nothing to do when closed.
    GC_ERROR Close();

    GC_ERROR IFGetInfo(INTERFACE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                       size_t *piSize);
    GC_ERROR IFGetNumDevices(uint32_t *piNumDevices);
    GC_ERROR IFGetDeviceID(uint32_t iIndex, char *sIDeviceID, size_t *piSize);
    GC_ERROR IFUpdateDeviceList(bool8_t *pbChanged, uint64_t iTimeout);
    GC_ERROR IFGetDeviceInfo(const char *sDeviceID, DEVICE_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                             void *pBuffer, size_t *piSize);
    GC_ERROR IFOpenDevice(const char *sDeviceID, DEVICE_ACCESS_FLAGS iOpenFlag, DEV_HANDLE *phDevice);
    GC_ERROR IFGetParentTL(TL_HANDLE *phSystem);

    GC_ERROR ReadPort(uint64_t iAddress, void *pBuffer, size_t *piSize);
    GC_ERROR WritePort(uint64_t iAddress, const void *pBuffer, size_t *piSize);
    GC_ERROR GetNumPortURLs(uint32_t *piNumURLs);
    GC_ERROR GetPortURLInfo(uint32_t iURLIndex, URL_INFO_CMD iInfoCmd, INFO_DATATYPE *piType,
                            void *pBuffer, size_t *piSize);
    GC_ERROR GetPortInfo(PORT_INFO_CMD iInfoCmd, INFO_DATATYPE *piType, void *pBuffer,
                         size_t *piSize);

    // A device of this interface closed: its entry forgets it, and an entry
    // whose slot is no longer listed goes away.
    void DeviceClosed(CGentlDevice *device);

    // Applies the interface user set (or the default set) to the node map.
    // With `read_key` the "open_userset_if_<card>" setting decides which
    // one, else `use_user_set`. 0 when user sets are off.
    int LoadUserSet(bool read_key, bool use_user_set);
    // With `write_key` stores the "open_userset_if_<card>" setting = `value`;
    // with `save` and `value` saves the features to the user-set file.
    int SaveUserSet(bool write_key, bool value, bool save);

    std::vector<DeviceEntry> &device_list() { return deviceList; }
    const std::vector<DeviceEntry> &device_list() const { return deviceList; }
    CTLSystem *system() const { return system_; }
    const std::string &id() const { return id_; }
    interface_description *description() const { return description_; }
    const std::shared_ptr<CNodeMapRef> &node_map() const { return nodeMap; }
    card_context &context() { return cardContext; }

private:
    bool is_open() const { return deviceIds != nullptr && !id_.empty(); }
    // Arranges the device slots from cxpMode and linkConfig; the slot count.
    uint32_t ArrangeDeviceSlots();
    // The parameters of slot `slot` for the camera probe and device open.
    void SlotParameters(uint32_t slot, link_config &config, conn_settings &settings) const;
    // Builds the node map from the interface's own URL; 0 or a failure code.
    int CreateInterfaceNodeMap();
    // Rebuilds deviceList from deviceIds after a change: entries keep their
    // devices, new slots are probed, open devices of dropped slots stay
    // unlisted, other dropped entries are released.
    void RebuildDeviceList();
    DeviceEntry *FindEntry(const char *id);
    GC_ERROR ReadRegister(uint64_t address, void *pBuffer, size_t *piSize);
    GC_ERROR WriteRegister(uint64_t address, const void *pBuffer, size_t size);
    GC_ERROR ReadSelectedDeviceText(DEVICE_INFO_CMD command, bool length_item, void *pBuffer,
                                    size_t *piSize);
    GC_ERROR ReadSensor(uint32_t card_address, float scale, void *pBuffer, size_t *piSize);
    std::string UserSetFile(bool user_set) const;

    CGentlCritical critical_;
    CTLSystem *system_;
    uint32_t activeMode = 0;
    uint32_t cardLinks = 4;
    uint32_t family = 1;
    uint32_t familyCode = 1;
    slot_arrangement arrangement;
    std::array<uint32_t, kMaxDeviceSlots> linkConfig{};
    uint8_t fiberOptionA = 0;
    uint8_t fiberOptionB = 1;
    uint32_t cxpMode = 1;
    interface_description *description_ = nullptr;
    std::vector<DeviceEntry> deviceList;
    uint32_t openDevices = 0;
    card_context cardContext;
    std::string id_;
    uint32_t deviceSelector = 0;
    std::unique_ptr<CRingAutoMem> deviceIds;
    uint32_t ringCapacity = 0;
    std::array<device_slot, kMaxDeviceSlots> slots;
    std::shared_ptr<CKvIport> port;
    std::shared_ptr<CNodeMapRef> nodeMap;
    std::string xmlFileName;
    user_set_state userSet;
};
