// One emulated CoaXPress camera: its memory (bootstrap registers, identity
// strings, the device, image-format, acquisition and transport registers of
// its description file, the URL and the zipped description file), its
// connections and their line rates, and the faults a test sets.
//
// Two camera models, chosen by the profile's model name:
//   "Lyra 25M ..." (any other name too): monochrome area scan, sensor
//     5120 x 5120, description Orvane_Lyra25M.xml, PixelFormat Mono8
//     0x01080001, Mono10 0x01100003, Mono12 0x01100005, Mono16 0x01100007,
//     Mono10p 0x010A0046; Height in steps of 1; frame rate up to 150 Hz.
//   "Lyra 12C ..." (kColourModel): Bayer colour area scan, sensor
//     4096 x 3072, description Orvane_Lyra12C.xml, PixelFormat BayerRG8
//     0x01080009, BayerRG10 0x0110000D, BayerRG12 0x01100011, RGB8
//     0x02180014; Height and OffsetY in steps of 2; up to 190 Hz; one more
//     test pattern (ColorBar).
// The built-in description of the model is served when the profile gives no
// description text (its name then names the archive, whatever the profile's
// description_name). The card's link front end (link_block) decodes the
// control packets the host writes into a link block, hands each command to
// the camera on that link and frames the reply the camera gives.
//
// Memory map (all registers 4 bytes, big-endian on the wire; strings in wire
// order, NUL-padded):
//   0x0000 Standard 0xC0A79AE5          RO
//   0x0004 Revision                     RO
//   0x0008 XmlManifestSize (1)          RO
//   0x000C XmlManifestSelector          RW  only 0 is accepted
//   0x0010 XmlVersion                   RO  major << 16 | minor << 8 | subminor
//   0x0014 XmlSchemaVersion (1.1.0)     RO  same encoding
//   0x0018 XmlUrlAddress (0x7000)       RO
//   0x001C Iidc2Address (0: none)       RO
//   0x2000 DeviceVendorName 32, 0x2020 DeviceModelName 32,
//   0x2040 DeviceManufacturerInfo 48, 0x2070 DeviceVersion 32,
//   0x20B0 DeviceSerialNumber 16        RO
//   0x20C0 DeviceUserID 16              RW
//   0x3000 WidthAddress, 0x3004 HeightAddress, 0x3008 AcquisitionModeAddress,
//   0x300C AcquisitionStartAddress, 0x3010 AcquisitionStopAddress,
//   0x3014 PixelFormatAddress, 0x3018 DeviceTapGeometryAddress,
//   0x301C Image1StreamIDAddress, 0x3020 Image2StreamIDAddress   RO
//   0x4000 ConnectionReset              RW  writing 1 resets; reads 0
//   0x4004 DeviceConnectionID           RO  index of the connection asked
//   0x4008 MasterHostConnectionID       RW
//   0x400C ControlPacketSizeMax         RO
//   0x4010 StreamPacketSizeMax          RW  multiples of 4
//   0x4014 ConnectionConfig             RW  (links << 16) | rate
//   0x4018 ConnectionConfigDefault      RO
//   0x401C..0x4037 test registers       RW  plain storage
//   0x403C uplink offered (bit 0)       RO
//   0x4040 uplink switch (bit 0)        RW
//   0x4044 VersionsSupported            RO  \ only from Revision 2.0 on
//   0x4048 VersionUsed                  RW  / (before: unknown addresses)
//   0x6000 Width, 0x6004 Height, 0x6008 PixelFormat (PFNC),
//   0x600C AcquisitionMode (0 continuous, 1 single frame)       RW
//   0x6010 DeviceTapGeometry (0: Geometry_1X_1Y), 0x6014 Image1 stream
//   ID (0), 0x6018 Image2 stream ID (1), 0x601C WidthMax, 0x6020 HeightMax,
//   0x6024 SensorWidth, 0x6028 SensorHeight (= the maxima)         RO
//   0x602C OffsetX, 0x6030 OffsetY, 0x6034 TestPattern (0 Off, 1 Black,
//   2 White, 3 GreyHorizontalRamp, 4 GreyVerticalRamp, 5 ColorBar) RW
//   0x6038 AcquisitionFrameRate (Hz), 0x603C ExposureTime (us)    RW
//          IEEE 754 single precision
//   0x6040 TriggerSelector (0 FrameStart, 1 AcquisitionStart)     RW
//   0x6044, 0x6048 TriggerMode of selector 0, 1 (0 Off, 1 On)     RW
//   0x604C, 0x6050 TriggerSource of selector 0, 1 (0 Software,
//          1 Line0, 2 Line1)                                       RW
//   0x6054 DeviceScanType (0: Areascan)                            RO
//   0x6204 AcquisitionStart, 0x6208 AcquisitionStop, 0x620C
//          TriggerSoftware                                       WO
//   0x7000 URL text, 256 bytes          RO  "local:<name>.zip;10000;<size hex>"
//   0x10000 the description archive    RO  a zip with one stored entry
// Anything else is an unknown address.
//
// Acknowledgement codes: 0x00 read reply (with size and data), 0x01 write
// done, 0x04 wait (one data word: the time in ms), 0x40 unknown address,
// 0x41 a value the register does not take, 0x42 operation neither read nor
// write, 0x43 write to a read-only address, 0x44 read of a write-only
// address, 0x45 size above what one packet carries, 0x46 payload length
// differs from the size field, 0x47 malformed packet.
//
// What the model decides where the host side leaves room:
// - Every connection answers after power-up and after ConnectionReset at
//   each of the discovery rates (the host tries rates one by one; a real
//   camera would settle on one). ConnectionConfig (acknowledged first, at the
//   old rate) makes connections 0 .. links-1 run at its rate and silences the
//   others until the next ConnectionReset.
// - A write of 1 to ConnectionReset takes effect at once and is not
//   acknowledged: the connection it came on is already back in discovery.
//   It also restores MasterHostConnectionID (0), VersionUsed (= Revision),
//   StreamPacketSizeMax (the profile's) and the uplink switch (off), and
//   stops an acquisition. In discovery ConnectionConfig reads all
//   connections at the first discovery rate.
// - Replies are tagged exactly when the command was, with the command's tag;
//   VersionUsed changes nothing on the wire.
// - The payload limit of one packet is ControlPacketSizeMax less 24 bytes
//   (28 for a tagged packet): the framing of a read reply and of a write
//   command alike.
// - A command is executed when it is received; a wait fault delays only its
//   acknowledgement. Faults apply to the camera as a whole, whatever
//   connection the command arrives on; ConnectionReset uses none of them.
// - DeviceUserID and the test registers take any value. The 0x6000
//   registers take what the description allows, else 0x41: Width a
//   multiple of 16 from 16, Height from 1 (colour: even from 2), OffsetX a
//   multiple of 16, OffsetY (colour: even), Width + OffsetX <= SensorWidth,
//   Height + OffsetY <= SensorHeight; a PixelFormat of the model; the
//   enumerations' values; AcquisitionFrameRate 1 .. the model's maximum,
//   ExposureTime 10 .. 1000000. Power-up: the full sensor, offsets 0, the
//   model's 8-bit format, 30 Hz, 10000 us, triggers off, source Software.
//   They keep their values over ConnectionReset.
// - Acquisition: AcquisitionStart starts it, AcquisitionStop and
//   ConnectionReset end it. While it runs the camera makes frames (taken by
//   the card's DMA channel through camera_frame_source): free-running at its
//   frame interval when the FrameStart trigger (selector 0) is Off; with
//   FrameStart TriggerMode On and TriggerSource Software one frame per write
//   to TriggerSoftware (with TriggerSelector FrameStart; a trigger outside
//   an acquisition or trigger mode is ignored); with TriggerSource Line0 or
//   Line1 one frame per pulse of the card's trigger generator of the
//   channel. AcquisitionMode SingleFrame ends the acquisition after its
//   first frame. The AcquisitionStart trigger (selector 1) is kept but
//   gates nothing.
//
// Thread safety: every call may come from any thread; one lock guards the
// whole camera. The link front end calls it with its own lock held, never
// the other way round.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "emulator/camera_profile.h"

namespace pelorin::emu {

// One decoded control command.
struct control_command {
    uint8_t op = 0;  // 0 read, 1 write, anything else refused
    uint32_t size = 0;
    uint32_t address = 0;
    bool tagged = false;
    std::vector<uint8_t> payload;  // write data in wire order, padded to whole words
    bool malformed = false;        // fewer than the two header words
};

// What the camera answers to one command.
struct control_reply {
    bool answered = false;  // false: nothing goes back
    uint8_t code = 0;
    std::vector<uint8_t> data;       // read data (code 0), wire order
    std::vector<uint32_t> waits_ms;  // wait acknowledgements before this one
    bool damaged = false;            // non-zero check word / CRC error flag
    uint32_t garbage_words = 0;      // words ahead of the first packet
};

class cxp_camera {
public:
    // Bootstrap and control registers.
    static constexpr uint32_t kStandard = 0x0000;
    static constexpr uint32_t kRevision = 0x0004;
    static constexpr uint32_t kXmlManifestSize = 0x0008;
    static constexpr uint32_t kXmlManifestSelector = 0x000C;
    static constexpr uint32_t kXmlVersion = 0x0010;
    static constexpr uint32_t kXmlSchemaVersion = 0x0014;
    static constexpr uint32_t kXmlUrlAddress = 0x0018;
    static constexpr uint32_t kIidc2Address = 0x001C;
    static constexpr uint32_t kDeviceVendorName = 0x2000;
    static constexpr uint32_t kDeviceModelName = 0x2020;
    static constexpr uint32_t kDeviceManufacturerInfo = 0x2040;
    static constexpr uint32_t kDeviceVersion = 0x2070;
    static constexpr uint32_t kDeviceSerialNumber = 0x20B0;
    static constexpr uint32_t kDeviceUserId = 0x20C0;
    static constexpr uint32_t kWidthAddress = 0x3000;
    static constexpr uint32_t kImage1StreamIdAddress = 0x301C;
    static constexpr uint32_t kImage2StreamIdAddress = 0x3020;
    static constexpr uint32_t kConnectionReset = 0x4000;
    static constexpr uint32_t kDeviceConnectionId = 0x4004;
    static constexpr uint32_t kMasterHostConnectionId = 0x4008;
    static constexpr uint32_t kControlPacketSizeMax = 0x400C;
    static constexpr uint32_t kStreamPacketSizeMax = 0x4010;
    static constexpr uint32_t kConnectionConfig = 0x4014;
    static constexpr uint32_t kConnectionConfigDefault = 0x4018;
    static constexpr uint32_t kUplinkOffered = 0x403C;
    static constexpr uint32_t kUplinkSwitch = 0x4040;
    static constexpr uint32_t kVersionsSupported = 0x4044;
    static constexpr uint32_t kVersionUsed = 0x4048;
    // Camera registers of the description file.
    static constexpr uint32_t kWidth = 0x6000;
    static constexpr uint32_t kHeight = 0x6004;
    static constexpr uint32_t kPixelFormat = 0x6008;
    static constexpr uint32_t kAcquisitionMode = 0x600C;
    static constexpr uint32_t kTapGeometry = 0x6010;
    static constexpr uint32_t kImage1StreamId = 0x6014;
    static constexpr uint32_t kImage2StreamId = 0x6018;
    static constexpr uint32_t kWidthMax = 0x601C;
    static constexpr uint32_t kHeightMax = 0x6020;
    static constexpr uint32_t kSensorWidth = 0x6024;
    static constexpr uint32_t kSensorHeight = 0x6028;
    static constexpr uint32_t kOffsetX = 0x602C;
    static constexpr uint32_t kOffsetY = 0x6030;
    static constexpr uint32_t kTestPattern = 0x6034;
    static constexpr uint32_t kAcquisitionFrameRate = 0x6038;
    static constexpr uint32_t kExposureTime = 0x603C;
    static constexpr uint32_t kTriggerSelector = 0x6040;
    static constexpr uint32_t kTriggerMode = 0x6044;    // + 4 * selector
    static constexpr uint32_t kTriggerSource = 0x604C;  // + 4 * selector
    static constexpr uint32_t kDeviceScanType = 0x6054;
    static constexpr uint32_t kAcquisitionStart = 0x6204;
    static constexpr uint32_t kAcquisitionStop = 0x6208;
    static constexpr uint32_t kTriggerSoftware = 0x620C;
    static constexpr uint32_t kUrl = 0x7000;
    static constexpr uint32_t kUrlCapacity = 256;
    static constexpr uint32_t kDescription = 0x10000;

    static constexpr uint32_t kStandardValue = 0xC0A79AE5;
    static constexpr uint32_t kMono8 = 0x01080001;
    static constexpr uint32_t kBayerRG8 = 0x01080009;
    // The model name that selects the colour camera (any name starting
    // with "Lyra 12C" does).
    static constexpr const char *kColourModel = "Lyra 12C CXP-12";

    // Acknowledgement codes.
    static constexpr uint8_t kAckRead = 0x00;
    static constexpr uint8_t kAckWrite = 0x01;
    static constexpr uint8_t kAckWait = 0x04;
    static constexpr uint8_t kAckBadAddress = 0x40;
    static constexpr uint8_t kAckBadData = 0x41;
    static constexpr uint8_t kAckBadOperation = 0x42;
    static constexpr uint8_t kAckReadOnly = 0x43;
    static constexpr uint8_t kAckWriteOnly = 0x44;
    static constexpr uint8_t kAckTooLarge = 0x45;
    static constexpr uint8_t kAckSizeMismatch = 0x46;
    static constexpr uint8_t kAckMalformed = 0x47;

    // Builds the camera in its power-up state (discovery) with the faults of
    // the profile. An empty description text selects the built-in one.
    explicit cxp_camera(camera_profile profile);

    cxp_camera(const cxp_camera &) = delete;
    cxp_camera &operator=(const cxp_camera &) = delete;

    // The profile as built. The variant and fault calls below change the
    // camera, not this record.
    const camera_profile &profile() const { return profile_; }
    // True for the colour model (Lyra 12C).
    bool colour() const;
    // Sensor, pixel formats and description of a camera model (defined in
    // cxp_camera.cpp).
    struct model;
    uint32_t connection_count() const { return static_cast<uint32_t>(profile_.links.size()); }
    // The connection that arrives on card link `link`, if any (unplugged or
    // not).
    std::optional<uint32_t> connection_on_link(uint32_t link) const;

    // --- Link side (the card's link front end) ---------------------------
    // True when `connection` is plugged and currently running: copper at
    // `card_rate` (the link's rate register), fibre at whatever rate.
    bool transmits(uint32_t connection, uint32_t card_rate, bool fibre) const;
    // Counts ConnectionReset and ConnectionConfig changes: a fibre link
    // trained before the last change is down.
    uint64_t link_epoch() const;
    // 0x4040 bit 0 as the host wrote it.
    bool uplink_enabled() const;
    // Executes one command arriving on `connection`.
    control_reply execute(uint32_t connection, const control_command &command);

    // --- Control side -----------------------------------------------------
    // Reads or writes camera memory as a command on connection 0 would,
    // without faults; the acknowledgement code (0 read, 1 write or an error).
    uint8_t read_memory(uint32_t address, std::span<uint8_t> out);
    uint8_t write_memory(uint32_t address, std::span<const uint8_t> bytes);
    // One register's value (big-endian in memory); nullopt when unreadable.
    std::optional<uint32_t> read_register(uint32_t address);

    bool in_discovery() const;
    // ConnectionConfig as it reads now.
    uint32_t connection_config() const;
    // MasterHostConnectionID as the host last wrote it (0 after reset).
    uint32_t master_host_id() const;
    uint32_t version_used() const;
    // True between an AcquisitionStart and the next AcquisitionStop.
    bool acquiring() const;

    // --- Image side (camera_frame_source) ----------------------------------
    // The registers that shape and pace the images, read together.
    struct image_settings {
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t offset_x = 0;
        uint32_t offset_y = 0;
        uint32_t pixel_format = 0;
        uint32_t test_pattern = 0;
        uint32_t sensor_width = 0;
        float frame_rate_hz = 0;
        float exposure_us = 0;
        uint32_t connection_config = 0;  // as ConnectionConfig reads: (links << 16) | rate
    };
    image_settings image() const;
    // How the camera's frames come now (see "Acquisition" above).
    enum class frame_trigger : uint8_t {
        none,        // not acquiring: no frames
        free_run,    // at the camera's frame interval
        software,    // one per TriggerSoftware; `pending` are due
        line,        // one per pulse of the card's trigger generator
    };
    struct acquisition_state {
        frame_trigger trigger = frame_trigger::none;
        uint64_t pending = 0;  // software triggers not yet taken
    };
    acquisition_state acquisition() const;
    // Takes the frame that falls due now: false when the camera has none
    // (not acquiring, or no software trigger pending). Uses up a software
    // trigger; ends a SingleFrame acquisition.
    bool take_frame();
    // Called, without the camera's lock, after every register write the
    // host makes (commands and control-side writes), so that whoever takes
    // the frames looks at the acquisition again. Null: nobody. Clearing it
    // waits for a call in progress.
    void set_write_listener(std::function<void()> listener);
    // The description archive and its URL text.
    std::vector<uint8_t> description_archive() const;
    std::string description_url() const;

    // Faults. Counts replace what is left of the same fault.
    camera_faults faults() const;
    void set_faults(const camera_faults &faults);
    void clear_faults();
    void damage_replies(uint32_t count);
    void wait_before_replies(std::vector<uint32_t> waits_ms, uint32_t commands = 1);
    void fail_commands(uint8_t code, uint32_t count = 1);
    void lose_replies(uint32_t count);
    void garbage_before_replies(uint32_t words, uint32_t replies = 1);
    // Another host holds the camera (nullopt: this host may take it).
    void set_foreign_host(std::optional<uint32_t> host_id);
    // No connection on card link `link`, or again one; false when `link`
    // is none of the camera's links.
    bool unplug_link(uint32_t link, bool unplugged = true);
    void set_uplink_fails(bool fails);

    // Variants.
    void set_versions(uint32_t revision, uint32_t versions_supported);
    void set_control_packet_size_max(uint32_t size);
    void set_rates(std::vector<uint32_t> discovery_rates, std::vector<uint32_t> supported_rates);
    void set_uplink_offered(bool offered);

private:
    struct area;  // one range of memory, see cxp_camera.cpp
    control_reply execute_locked(uint32_t connection, const control_command &command);
    void notify_write();
    uint8_t access(uint32_t connection, uint32_t address, std::span<uint8_t> read_out,
                   std::span<const uint8_t> write_in, bool write);
    std::optional<uint32_t> register_value(uint32_t connection, uint32_t address) const;
    uint8_t check_register_write(uint32_t address, uint32_t value) const;
    void apply_register_write(uint32_t address, uint32_t value);
    void reset_connection();
    bool unplugged(uint32_t connection) const;
    uint32_t payload_limit(bool tagged) const;
    bool has_version_registers() const { return revision_ >= 0x20000; }

    const camera_profile profile_;  // as built; the variants below start from it
    const model *model_ = nullptr;
    std::vector<uint8_t> archive_;  // the zipped description
    std::string url_;
    std::vector<uint8_t> url_bytes_;  // url_ NUL-padded to kUrlCapacity
    uint32_t xml_version_ = 0;

    mutable std::mutex mutex_;
    camera_faults faults_;                   // guarded
    uint32_t revision_ = 0;                  // guarded
    uint32_t versions_supported_ = 0;        // guarded
    uint32_t packet_size_max_ = 0;           // guarded
    std::vector<uint32_t> discovery_rates_;  // guarded
    std::vector<uint32_t> supported_rates_;  // guarded
    bool uplink_offered_ = false;            // guarded
    bool discovery_ = true;                  // guarded
    uint32_t config_links_ = 0;              // guarded; meaningful when !discovery_
    uint32_t config_rate_ = 0;               // guarded
    uint32_t master_host_ = 0;               // guarded
    uint32_t version_used_ = 0;              // guarded
    uint32_t stream_packet_size_ = 0;        // guarded
    uint32_t uplink_switch_ = 0;             // guarded
    uint64_t epoch_ = 0;                     // guarded
    bool acquiring_ = false;                 // guarded
    uint64_t software_triggers_ = 0;         // guarded: pending in this acquisition
    std::vector<uint8_t> identity_;          // guarded: 0x2000..0x20CF
    std::vector<uint32_t> features_;         // guarded: 0x6000..0x6057, one per register
    std::vector<uint8_t> test_registers_;    // guarded: 0x401C..0x4037

    std::mutex listener_mutex_;            // held while the listener runs
    std::function<void()> write_listener_;  // guarded by listener_mutex_
};

}  // namespace pelorin::emu
