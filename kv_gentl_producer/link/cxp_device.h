// The link device: one camera reached over the CoaXPress links of one card.
//
// Camera memory is read and written with CoaXPress control packets: the
// command goes out through the card's per-link transmit FIFO, the camera's
// acknowledgement comes back through the per-link receive FIFO and is parsed
// word by word. Connecting finds the camera's master connection by probing the
// line rates, negotiates version, host connection ID and packet size
// (discovery), then programs the link count and rate through ConnectionConfig
// and checks every link (configuration).
//
// Results are 0 or small negative integers (see each operation); callers
// turn them into GenTL codes.
//
// Threads: no lock of its own. One transaction at a time per device (the
// command and acknowledgement records are shared): the card context
// serialises camera access, connections run under DeviceLock.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

struct card_context;
class cxp_interrupt;

inline constexpr uint32_t kMaxCardLinks = 8;
inline constexpr uint32_t kMaxPayloadWords = 512;

// Line-rate codes of ConnectionConfig.
enum cxp_rate : uint32_t {
    kCxp1 = 0x28,
    kCxp2 = 0x30,
    kCxp3 = 0x38,
    kCxp5 = 0x40,
    kCxp6 = 0x48,
    kCxp10 = 0x50,
    kCxp12 = 0x58,
};

// Bootstrap and connection registers of the camera.
enum cxp_camera_register : uint32_t {
    kRegStandard = 0x0000,
    kRegRevision = 0x0004,
    kRegImage1StreamIdAddress = 0x301C,
    kRegImage2StreamIdAddress = 0x3020,
    kRegConnectionReset = 0x4000,
    kRegDeviceConnectionId = 0x4004,
    kRegMasterHostConnectionId = 0x4008,
    kRegControlPacketSizeMax = 0x400C,
    kRegStreamPacketSizeMax = 0x4010,
    kRegConnectionConfig = 0x4014,
    kRegConnectionConfigDefault = 0x4018,
    kRegVersionsSupported = 0x4044,
    kRegVersionUsed = 0x4048,
};

struct cxp_link_info {
    uint32_t status = 0;         // link status seen, or 1 once configured
    uint32_t connection_id = 0;  // the camera's DeviceConnectionID on the link
};

// What a connection found.
struct cxp_link_state {
    uint32_t links_connected = 0;
    uint32_t used_link_mask = 0;
    uint32_t master_found = 0;
    uint32_t master_link = 0;
    uint32_t ctrl_packet_size = 128;
    uint32_t ctrl_payload_max = 104;
    uint32_t speed = kCxp3;
    uint32_t uplink_state = 0;  // fibre uplink: 0 not tried, 2 checking, 3 switching, 1 active
    std::array<cxp_link_info, kMaxCardLinks> link_info{};

    void reset() { *this = cxp_link_state{}; }
    // The reset before configuration: the negotiated packet sizes stay.
    void reset_keeping_packet_sizes();
};

// How to connect.
struct cxp_conn_param {
    uint32_t stage = 3;  // 1 discovery, 2 configuration, 3 both
    uint32_t speed = kCxp3;
    uint32_t links = 0;
    uint8_t auto_speed = 1;  // rate from ConnectionConfigDefault
    uint8_t auto_links = 1;  // link count from ConnectionConfigDefault
    uint32_t stream_packet_size = 4096;
    uint8_t fiber_option_a = 0;
    uint8_t fiber_option_b = 1;
    uint8_t read_stream_ids = 1;
    uint32_t stream_id1 = 0;
    uint32_t stream_id2 = 0;
    uint32_t rate_delay_ms = 10;
};

// The one outgoing command of a device.
struct cxp_ctrl_packet {
    uint8_t op = 0;  // 1 write, 0 read
    uint8_t swap = 0;
    uint8_t link = 0;  // 8..15: fibre uplink blocks
    uint8_t tagged = 0;
    uint8_t tag = 0;
    uint32_t address = 0;
    uint32_t size = 0;
    std::array<uint32_t, kMaxPayloadWords> data{};
    card_context *context = nullptr;
    uint32_t fifo_mode = 0;
};

// The one incoming acknowledgement of a device.
struct cxp_ctrl_ack {
    uint8_t swap = 0;
    uint8_t link = 0;
    uint8_t tagged = 0;
    uint8_t tag = 0;
    uint8_t ack_code = 0;
    uint32_t size = 0;
    std::array<uint32_t, kMaxPayloadWords> data{};
    uint32_t check = 0;  // non-zero: a damaged reply
    card_context *context = nullptr;
    uint32_t fifo_mode = 0;
    uint32_t poll_range = 0;  // look on every link first_link..last_link
    uint32_t first_link = 0;
    uint32_t last_link = 0;
};

// check_connection: credit the link whose receive side answered.
inline constexpr uint32_t kCreditAnsweringLink = 0xFFFFFFFF;

// Receive interface of the fibre cards.
inline constexpr uint32_t kFiberFifoMode = 512;

class cxp_device {
public:
    cxp_device(card_context *context, uint32_t link_count, uint32_t link_mask);
    virtual ~cxp_device();

    cxp_device(const cxp_device &) = delete;
    cxp_device &operator=(const cxp_device &) = delete;

    // Discovery and configuration up to the parameters' stage: 0, or -2 no
    // master connection, -3 a register transaction failed, -4 no common
    // version, -6 wrong number of links, -8 another host owns the camera,
    // -11 out of memory.
    virtual int connect(uint32_t stage);
    // Applies the parameters to the camera already found (configuration).
    virtual int reconnect();
    // Reads or writes `size` bytes of camera memory in chunks of the
    // negotiated payload. `swap`: convert each 32-bit word between host and
    // wire order. 0; -1 no usable acknowledgement; -2 acknowledgement 0x40;
    // -3 every attempt of a read came back damaged; -4 link broken; -7 a
    // chunk above the payload limit.
    virtual int mem_access(uint32_t address, void *buffer, uint32_t size, bool swap, bool is_read);
    virtual bool is_online();
    // True while every link of the connection reports a camera (link status
    // register); false when one of them lost it or nothing is connected.
    // Reads card registers only, never the camera.
    virtual bool links_up();

    // One 4-byte bootstrap register, swapped: 0 or a transaction result.
    int write_reg(uint32_t address, uint32_t value);
    int read_reg(uint32_t address, uint32_t &value);
    // Writes 1 to ConnectionReset on `link` without waiting for the answer.
    void send_connection_reset(uint32_t link);

    // connect with the parameters' stage; with `allow_demote` a failed
    // configuration falls back to fewer links, then to one link at the rate
    // of discovery (-10 when connected that way).
    int connect_with_demotion(bool allow_demote);

    const cxp_conn_param &get_param() const { return param_; }
    // Stores the parameters (the stream packet size clamped to 512..8192,
    // a multiple of 4); -5 when a fixed link count is 0 or above the links.
    int set_param(const cxp_conn_param &param);
    const cxp_link_state &get_link_state() const { return link_state_; }
    const cxp_link_state &get_first_link_state() const { return first_link_state_; }
    void get_version(uint32_t &revision, uint32_t &supported, uint32_t &used) const;
    // Link register 8 of the master link (the timing unit of acquisition).
    void set_timing_unit(uint32_t value);

    uint32_t state() const { return state_; }
    uint32_t link_mask() const { return link_mask_; }
    uint32_t link_count() const { return link_count_; }
    uint8_t next_tag() const { return request_.tag; }
    bool tagged() const { return request_.tagged != 0; }
    card_context *context() const { return context_; }

protected:
    // --- Card registers ---------------------------------------------------
    // Per-link control block registers (unrelocated).
    void link_write(uint32_t link, uint32_t reg, uint32_t value);
    uint32_t link_read(uint32_t link, uint32_t reg);
    // Card registers through the context (relocated blocks).
    void card_write(uint32_t address, uint32_t value);
    uint32_t card_read(uint32_t address);
    // Each link of the mask, in ascending order.
    template <typename Visit>
    void for_each_link(Visit visit) const {
        for (uint32_t link = 0; link < kMaxCardLinks; ++link)
            if (link_mask_ & (1u << link)) visit(link);
    }
    void select_link(uint32_t link);

    // --- Transactions -----------------------------------------------------
    void send_packet(cxp_ctrl_packet &request);
    // One word of an acknowledgement after its start: type, tag, code, size,
    // payload, check word. `phase` 1 expects the type; the word after the
    // payload ends the packet (true).
    static bool take_ack_word(cxp_ctrl_ack &ack, uint32_t &phase, uint32_t &index, uint32_t word,
                              bool &malformed);
    // Converts the payload to host order when the acknowledgement asks so.
    static void swap_ack_payload(cxp_ctrl_ack &ack);
    // One acknowledgement from the receive side of ack.link: 1 when whole.
    virtual int parse_ack(cxp_ctrl_ack &ack);
    virtual void flush_ack(cxp_ctrl_ack &ack);
    int wait_ack(cxp_ctrl_packet &request, cxp_ctrl_ack &ack);
    int write_transaction(cxp_ctrl_packet &request, cxp_ctrl_ack &ack);
    int read_transaction(cxp_ctrl_packet &request, cxp_ctrl_ack &ack);
    bool acknowledge_event_present() const;
    // One chunk of mem_access.
    int access_chunk(uint32_t address, uint8_t *bytes, uint32_t size, bool swap, bool is_read);

    // --- Connection steps -------------------------------------------------
    void program_rate(uint32_t mask, uint32_t rate, uint32_t delay_ms);
    void set_high_rate_flag(uint32_t rate);
    void drop_interrupt();
    // Preparation of every connection; `clear_state` for connect.
    void prepare(bool clear_state);
    int discover();
    // Revision, version, tags, host ID and packet size of the master.
    int negotiate();
    // Link count and rate from the parameters or ConnectionConfigDefault.
    int requested_configuration(uint32_t &links, uint32_t &rate);
    int configure();
    // Discovery on the selected link, whose status is `status` (non-zero: a
    // camera is seen): counts it, reads its connection ID and notes a master.
    // 0, or -3 when the ID cannot be read.
    int probe_selected_link(uint32_t link, uint32_t status);
    // Configuration check of the selected link: this host must own the
    // camera, and the connection's ID is credited to `credited` (counted when
    // below `links`). 0; -3 a read failed; -8 another host.
    int check_connection(uint32_t credited_from_ack, uint32_t links);
    // The end of the configuration check: the rate in use, -2 without
    // master, -6 with another link count, else the master selected and 0.
    int finish_check(uint32_t links, uint32_t rate);
    void read_stream_ids();
    int open_interrupt();
    void set_link_indicators(uint32_t value);

    card_context *context_;
    uint32_t state_ = 0;
    uint32_t host_connection_id_;
    uint32_t link_count_;
    uint32_t link_mask_;
    uint32_t mask_links_ = 0;
    uint32_t first_mask_link_ = 0;
    uint32_t last_mask_link_ = 0;
    cxp_link_state link_state_;
    cxp_link_state first_link_state_;
    uint32_t revision_ = 0;
    uint32_t versions_supported_ = 0;
    uint32_t version_used_ = 0;
    cxp_conn_param param_;
    cxp_ctrl_packet request_;
    cxp_ctrl_ack ack_;
    std::unique_ptr<cxp_interrupt> interrupt_;
};

// Creates the link device of the card links `link_mask` on the context's
// handle (a fibre device on fibre cards) and keeps it in the registry of live
// link devices. 0; -5 more than 8 links; -9 the link group cannot be
// attached; -11 out of memory.
int create_link_device(card_context *context, uint32_t link_count, uint32_t link_mask,
                       cxp_device **device);
// Detaches the link group, forgets and deletes the device.
void destroy_link_device(cxp_device *device);
// Number of link devices alive.
size_t live_link_devices();
