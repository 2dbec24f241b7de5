// The CoaXPress cameras behind the emulated card's links, driven as a host
// drives them: control packets written into a link block's transmit
// registers, acknowledgements taken from the receive FIFO (copper) or the
// packet interface (fibre), interrupts on the acknowledge sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "consumer_node_map.h"
#include "emulator/profile_loader.h"
#include "emulator_client.h"
#include "nodemap/node_map.h"

namespace {

using emu_test::event_fd;
using emu_test::take_signals;
using pelorin::emu::camera_profile;
using pelorin::emu::card_profile;
using pelorin::emu::cxp_camera;
using pelorin::emu::pcie_bus;

constexpr uint32_t reg(uint32_t block, uint32_t r) { return 0x1000 + 0x100 * block + r; }
constexpr uint32_t kNoAck = 0x100;
const std::string kProfiles = PELORIN_PROFILE_DIR;

uint32_t be32(const std::vector<uint8_t> &b) {
    return uint32_t(b.at(0)) << 24 | b.at(1) << 16 | b.at(2) << 8 | b.at(3);
}
std::vector<uint8_t> be_bytes(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

struct ack {
    uint32_t type = 0, tag = 0, code = kNoAck, size = 0, check = 0;
    std::vector<uint8_t> data;
};

// A host on one card: commands out through the link blocks, acknowledgements
// parsed from the words the card hands back.
class host {
public:
    explicit host(pcie_bus &bus, uint32_t card = 0, bool fibre = false) : driver(bus, card), fibre_(fibre) {}
    uint32_t get(uint32_t address) { return driver.read_reg(address); }
    void set(uint32_t address, uint32_t value) { ASSERT_EQ(driver.write_reg(address, value), 0); }
    void rate(uint32_t code) {
        for (uint32_t link = 0; link < 4; ++link) set(0x0A00 + link, code);
    }

    void send(uint32_t block, uint32_t op, uint32_t address, uint32_t size, std::vector<uint8_t> payload = {},
              std::optional<uint8_t> tag = {}) {
        set(reg(block, 21), 1);
        set(reg(block, 22), tag ? 5 : 2);
        if (tag) set(reg(block, 23), *tag);
        set(reg(block, 24), __builtin_bswap32(op << 24 | size));
        set(reg(block, 24), __builtin_bswap32(address));
        payload.resize((payload.size() + 3) / 4 * 4);
        std::vector<uint8_t> fifo = emu_test::words({1, 0, reg(block, 24), uint32_t(payload.size() / 4)});
        fifo.insert(fifo.end(), payload.begin(), payload.end());
        if (!payload.empty()) {
            ASSERT_EQ(driver.send(pelorin::emu::kCodeWriteFifo, fifo), 0);
        }
        set(reg(block, 25), 1);
    }

    // Packets in `words`: copper ones start with the start marker, fibre ones
    // with the type. Words outside packets are counted in `stray`.
    static std::vector<ack> parse(const std::vector<uint32_t> &words, bool copper, size_t &stray) {
        std::vector<ack> acks;
        for (size_t i = 0; i < words.size();) {
            if (copper && words[i++] != 0xFBFBFBFB) {
                ++stray;
                continue;
            }
            ack &a = acks.emplace_back();
            a.type = words.at(i++) & 0xFF;
            if (a.type == 6) a.tag = words.at(i++) & 0xFF;
            a.code = words.at(i++) & 0xFF;
            if (a.code == 0 || a.code == 4) {
                a.size = __builtin_bswap32(words.at(i++));
                for (uint32_t k = 0; k < a.size; ++k)
                    a.data.push_back(uint8_t(words.at(i + k / 4) >> (8 * (k % 4))));
                i += (a.size + 3) / 4;
                a.check = words.at(i++);
            }
            EXPECT_EQ(words.at(i++), 0xFDFDFDFDu);
        }
        return acks;
    }
    // Every acknowledgement waiting on `link`; fibre: their CRC flags in `crc`.
    std::vector<ack> acks(uint32_t link, size_t *stray = nullptr, std::vector<bool> *crc = nullptr) {
        size_t ignored = 0;
        std::vector<uint32_t> words;
        if (!fibre_) {
            words.resize(get(reg(link, 16)));
            for (uint32_t &word : words) word = get(reg(link, 17));
            return parse(words, true, stray ? *stray : ignored);
        }
        std::vector<ack> all;
        for (uint32_t status; ((status = get(reg(link, 112))) & 0x10000) != 0; set(reg(link, 127), 0)) {
            set(reg(link, 113), 0);
            words.resize(status & 0xFFFF);
            for (uint32_t &word : words) word = get(reg(link, 115));
            for (const ack &a : parse(words, false, ignored)) all.push_back(a);
            if (crc) crc->push_back((status & 0x20000) != 0);
        }
        return all;
    }
    // The one acknowledgement a command got (code kNoAck: none or several).
    ack one(uint32_t link) {
        const std::vector<ack> list = acks(link);
        return list.size() == 1 ? list[0] : ack{};
    }
    std::optional<uint32_t> read(uint32_t block, uint32_t address) {
        send(block, 0, address, 4);
        const ack a = one(block % 8);
        return a.code == 0 && a.size == 4 ? std::optional(be32(a.data)) : std::nullopt;
    }
    uint32_t write(uint32_t block, uint32_t address, uint32_t value) {
        send(block, 1, address, 4, be_bytes(value));
        return one(block % 8).code;
    }

    emu_test::client driver;

private:
    bool fibre_;
};

TEST(EmulatedCamera, DiscoveryAtADiscoveryRateGivesConnectionIdsPerLink) {
    pcie_bus bus;  // the built-in card: cameras on links 0-1 and 2-3
    host h(bus);
    const auto card = bus.card(0);
    ASSERT_EQ(card->camera_count(), 2u);

    // No rate, or one they do not discover at: dark links, lost commands.
    for (uint32_t code : {0u, 0x58u}) {
        h.rate(code);
        for (uint32_t link = 0; link < 4; ++link) EXPECT_EQ(h.get(reg(link, 32)), 0u) << link;
        EXPECT_FALSE(h.read(0, cxp_camera::kStandard));
    }
    h.rate(0x38);
    for (uint32_t link = 0; link < 4; ++link) {
        EXPECT_NE(h.get(reg(link, 32)), 0u) << link;
        EXPECT_EQ(h.read(link, cxp_camera::kStandard), 0xC0A79AE5u) << link;
        EXPECT_EQ(h.read(link, cxp_camera::kDeviceConnectionId), link % 2) << link;
    }
    EXPECT_EQ(h.write(0, cxp_camera::kMasterHostConnectionId, 0xD00), 1u);
    EXPECT_EQ(h.read(1, cxp_camera::kMasterHostConnectionId), 0xD00u);  // the camera, whatever connection
    EXPECT_EQ(h.read(2, cxp_camera::kMasterHostConnectionId), 0u);      // the other camera
    EXPECT_EQ(card->links().commands_received(0), 5u);
    EXPECT_EQ(card->links().take_command_log().size(), 13u);

    // Connections may sit on the links in any order; a link without one stays dark.
    card_profile swapped = card_profile::halden_q12(0);
    camera_profile camera;
    camera.links = {3, 1};
    swapped.cameras = std::vector<camera_profile>{camera};
    bus.set_cards({swapped});
    host h2(bus);
    h2.rate(0x38);
    EXPECT_EQ(h2.read(3, cxp_camera::kDeviceConnectionId), 0u);
    EXPECT_EQ(h2.read(1, cxp_camera::kDeviceConnectionId), 1u);
    EXPECT_EQ(h2.get(reg(0, 32)), 0u);
}

TEST(EmulatedCamera, ControlPacketsAnswerTaggedUntaggedAndErrorCodes) {
    pcie_bus bus;
    host h(bus);
    h.rate(0x38);
    event_fd ack_event;
    ASSERT_EQ(h.driver.register_event(4, static_cast<uint64_t>(ack_event.fd)), 0);  // source 4 x link 1

    h.send(1, 0, cxp_camera::kRevision, 4);
    ack a = h.one(1);
    EXPECT_EQ(a.type, 3u);
    EXPECT_EQ(a.code, 0u);
    EXPECT_EQ(a.check, 0u);
    EXPECT_EQ(be32(a.data), 0x20001u);
    EXPECT_EQ(take_signals(ack_event.fd), 1u);

    // Tagged: the tag comes back; strings in wire order; 8 bytes over two registers.
    h.send(1, 0, cxp_camera::kDeviceModelName, 32, {}, 0xA7);
    a = h.one(1);
    EXPECT_EQ(a.type, 6u);
    EXPECT_EQ(a.tag, 0xA7u);
    EXPECT_STREQ(reinterpret_cast<const char *>(a.data.data()), "Lyra 25M CXP-12");
    h.send(1, 0, 2, 8, {}, 0);
    EXPECT_EQ(h.one(1).data, (std::vector<uint8_t>{0x9A, 0xE5, 0, 2, 0, 1, 0, 0}));

    // A tagged write: code 1 and nothing after it.
    h.send(1, 1, cxp_camera::kDeviceUserId, 7, {'b', 'e', 'n', 'c', 'h', '-', '3'}, 1);
    a = h.one(1);
    EXPECT_EQ(a.code, 1u);
    EXPECT_EQ(a.size, 0u);
    EXPECT_EQ(bus.card(0)->camera(0)->read_register(cxp_camera::kDeviceUserId), 0x62656E63u);

    // Two acknowledgements waiting: register 52 counts them, 16 their words.
    h.send(1, 0, cxp_camera::kStandard, 4);
    h.send(1, 1, cxp_camera::kStreamPacketSizeMax, 4, be_bytes(4096));
    EXPECT_EQ(h.get(reg(1, 52)), 2u);
    EXPECT_EQ(h.get(reg(1, 16)), 7u + 4u);
    h.set(reg(1, 18), 1);
    h.set(reg(1, 18), 0);
    EXPECT_EQ(h.get(reg(1, 16)), 0u);
    EXPECT_EQ(h.get(reg(1, 52)), 0u);

    struct refused {
        uint32_t op, address, size;
        std::vector<uint8_t> payload;
        std::optional<uint8_t> tag;
        uint32_t code;
    };
    const refused cases[] = {
        {0, 0x5000, 4, {}, {}, 0x40},                                        // unknown address
        {0, 0x2090, 4, {}, {}, 0x40},                                        // after DeviceVersion
        {1, cxp_camera::kStandard, 4, be_bytes(1), {}, 0x43},                // read-only
        {0, cxp_camera::kAcquisitionStart, 4, {}, {}, 0x44},                 // write-only
        {2, cxp_camera::kStandard, 4, {}, {}, 0x42},                         // neither read nor write
        {0, 0x10000, 1001, {}, {}, 0x45},                                    // 1024 - 24 fit untagged
        {0, 0x10000, 997, {}, 9, 0x45},                                      // 1024 - 28 tagged
        {1, cxp_camera::kWidth, 8, be_bytes(64), {}, 0x46},                  // one word for eight bytes
        {1, cxp_camera::kConnectionConfig, 4, be_bytes(0x30058), {}, 0x41},  // three links of two
        {1, cxp_camera::kVersionUsed, 4, be_bytes(0x10000), {}, 0x41},       // 1.0 is not supported
        {1, cxp_camera::kConnectionConfig, 2, be_bytes(1), {}, 0x41},        // half a register
    };
    for (const refused &c : cases) {
        h.send(1, c.op, c.address, c.size, c.payload, c.tag);
        a = h.one(1);
        EXPECT_EQ(a.code, c.code) << std::hex << c.address;
        EXPECT_EQ(a.tag, c.tag.value_or(0)) << std::hex << c.address;
    }
    // Fewer than two words: malformed.
    h.set(reg(1, 21), 1);
    h.set(reg(1, 22), 2);
    h.set(reg(1, 24), 0);
    h.set(reg(1, 25), 1);
    EXPECT_EQ(h.one(1).code, 0x47u);
    EXPECT_EQ(take_signals(ack_event.fd), 17u);
}

TEST(EmulatedCamera, ConnectionConfigSwitchesLinksAndRateUntilConnectionReset) {
    pcie_bus bus;
    host h(bus);
    const auto camera = bus.card(0)->camera(0);
    h.rate(0x38);
    EXPECT_EQ(h.read(0, cxp_camera::kConnectionConfigDefault), 0x20058u);
    EXPECT_EQ(h.write(0, cxp_camera::kConnectionConfig, 0x10050), 1u);  // acknowledged at the old rate
    EXPECT_FALSE(camera->in_discovery());
    EXPECT_FALSE(h.read(0, cxp_camera::kStandard));
    h.rate(0x50);
    EXPECT_NE(h.get(reg(0, 32)), 0u);
    EXPECT_EQ(h.get(reg(1, 32)), 0u);  // beyond the link count
    EXPECT_FALSE(h.read(1, cxp_camera::kStandard));
    EXPECT_EQ(h.read(0, cxp_camera::kConnectionConfig), 0x10050u);
    EXPECT_EQ(h.write(0, cxp_camera::kConnectionConfig, 0x20058), 1u);
    h.rate(0x58);
    EXPECT_EQ(h.read(1, cxp_camera::kDeviceConnectionId), 1u);

    // ConnectionReset is applied without an acknowledgement: discovery again.
    h.send(1, 1, cxp_camera::kConnectionReset, 4, be_bytes(1));
    EXPECT_TRUE(h.acks(1).empty());
    EXPECT_TRUE(camera->in_discovery());
    EXPECT_FALSE(h.read(0, cxp_camera::kStandard));
    h.rate(0x38);
    EXPECT_EQ(h.read(1, cxp_camera::kConnectionConfig), 0x20038u);
}

TEST(EmulatedCamera, WaitAcknowledgementsComeFirstAndTheFinalOneWhenDue) {
    pcie_bus bus;
    host h(bus);
    h.rate(0x38);
    event_fd ack_event;
    ASSERT_EQ(h.driver.register_event(8, static_cast<uint64_t>(ack_event.fd)), 0);
    const auto card = bus.card(0);
    card->camera(1)->wait_before_replies({400, 200});

    h.send(2, 0, cxp_camera::kRevision, 4, {}, 3);
    std::vector<ack> seen = h.acks(2);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].code, 4u);
    EXPECT_EQ(seen[0].tag, 3u);
    EXPECT_EQ(be32(seen[0].data), 400u);
    EXPECT_EQ(card->links().replies_due(), 2u);
    EXPECT_EQ(take_signals(ack_event.fd), 1u);

    for (int i = 0; i < 500 && seen.size() < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (const ack &a : h.acks(2)) seen.push_back(a);
    }
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1].code, 4u);
    EXPECT_EQ(be32(seen[1].data), 200u);
    EXPECT_EQ(seen[2].code, 0u);
    EXPECT_EQ(be32(seen[2].data), 0x20001u);
    EXPECT_EQ(take_signals(ack_event.fd), 2u);
    EXPECT_EQ(h.read(2, cxp_camera::kRevision), 0x20001u);  // used up
}

TEST(EmulatedCamera, FaultsShapeRepliesLinksAndVersions) {
    pcie_bus bus;
    host h(bus);
    h.rate(0x38);
    const auto card = bus.card(0);
    const auto camera = card->camera(0);

    camera->damage_replies(1);
    h.send(0, 0, cxp_camera::kStandard, 4);
    const ack damaged = h.one(0);
    EXPECT_NE(damaged.check, 0u);
    EXPECT_EQ(be32(damaged.data), 0xC0A79AE5u);  // the data itself is intact
    EXPECT_EQ(h.read(0, cxp_camera::kStandard), 0xC0A79AE5u);

    camera->fail_commands(0x41, 2);
    EXPECT_EQ(h.write(0, cxp_camera::kWidth, 1024), 0x41u);
    EXPECT_EQ(h.write(0, cxp_camera::kWidth, 1024), 0x41u);
    EXPECT_EQ(h.write(0, cxp_camera::kWidth, 1024), 1u);

    camera->lose_replies(1);
    EXPECT_FALSE(h.read(1, cxp_camera::kStandard));
    EXPECT_EQ(card->links().commands_received(1), 1u);  // received all the same

    camera->garbage_before_replies(3);
    h.send(0, 0, cxp_camera::kStandard, 4);
    size_t stray = 0;
    EXPECT_EQ(h.acks(0, &stray).size(), 1u);
    EXPECT_EQ(stray, 3u);

    camera->set_foreign_host(0xD07);
    EXPECT_EQ(h.write(0, cxp_camera::kMasterHostConnectionId, 0xD00), 1u);
    EXPECT_EQ(h.read(1, cxp_camera::kMasterHostConnectionId), 0xD07u);

    ASSERT_TRUE(camera->unplug_link(1));
    EXPECT_FALSE(camera->unplug_link(2));  // the other camera's
    EXPECT_EQ(h.get(reg(1, 32)), 0u);
    EXPECT_FALSE(h.read(1, cxp_camera::kStandard));

    card->links().set_error_counter(0, 1500);
    h.set(reg(0, 33), 0);  // read-only for the host
    EXPECT_EQ(h.get(reg(0, 33)), 1500u);

    camera->set_versions(0x10001, 0);
    EXPECT_EQ(h.read(0, cxp_camera::kRevision), 0x10001u);
    EXPECT_FALSE(h.read(0, cxp_camera::kVersionsSupported));  // no such register before 2.0
    camera->set_control_packet_size_max(128);
    h.send(0, 0, cxp_camera::kDescription, 105);  // 128 - 24 fit
    EXPECT_EQ(h.one(0).code, 0x45u);

    card->camera(1)->set_rates({0x58}, {0x58});  // answers at CXP-12 only
    EXPECT_FALSE(h.read(2, cxp_camera::kStandard));
    h.set(0x0A02, 0x58);
    EXPECT_EQ(h.read(2, cxp_camera::kStandard), 0xC0A79AE5u);
}

TEST(EmulatedCamera, FibreCardHasPacketReceiveLinkUpRegisterAndUplink) {
    std::vector<card_profile> cards;
    std::string error;
    ASSERT_TRUE(pelorin::emu::load_profile_file(kProfiles + "/three_families.json", cards, error)) << error;
    pcie_bus bus;
    bus.set_cards(cards);
    host h(bus, 2, true);
    const auto card = bus.card(2);
    ASSERT_TRUE(card->fibre());
    // The links come up through the fibre link reset, whatever the rate registers say.
    EXPECT_EQ(h.get(0x0AF2), 0u);
    EXPECT_FALSE(h.read(0, cxp_camera::kStandard));
    h.set(0x010C, 0xF);
    h.set(0x010D, 0xF);
    EXPECT_EQ(h.get(0x0AF2), 0b11u);

    card->camera(0)->damage_replies(1);
    h.send(1, 0, cxp_camera::kDeviceConnectionId, 4, {}, 5);
    EXPECT_EQ(h.get(reg(1, 52)), 1u);
    EXPECT_EQ(h.get(reg(1, 112)), 0x30000u | 7u);  // waiting, CRC error, 6 words and the end word
    std::vector<bool> crc;
    const std::vector<ack> list = h.acks(1, nullptr, &crc);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(crc, std::vector<bool>{true});
    EXPECT_EQ(list[0].tag, 5u);
    EXPECT_EQ(be32(list[0].data), 1u);
    h.send(1, 0, cxp_camera::kStandard, 4);
    h.send(1, 0, cxp_camera::kStandard, 4);
    h.set(reg(1, 127), 1);  // flush
    EXPECT_EQ(h.get(reg(1, 112)), 0u);

    // ConnectionReset takes the links down until the next one.
    h.send(0, 1, cxp_camera::kConnectionReset, 4, be_bytes(1));
    EXPECT_EQ(h.get(0x0AF2), 0u);
    EXPECT_FALSE(h.read(0, cxp_camera::kStandard));
    h.set(0x010C, 0xF);
    h.set(0x010D, 0xF);
    EXPECT_EQ(h.get(0x0AF2), 0b11u);
    EXPECT_EQ(h.read(0, cxp_camera::kUplinkOffered), 1u);

    // The uplink block reaches the camera once its switch is on; answers come on the link.
    EXPECT_FALSE(h.read(8, cxp_camera::kStandard));
    EXPECT_EQ(h.write(0, cxp_camera::kUplinkSwitch, 1), 1u);
    EXPECT_EQ(h.read(8, cxp_camera::kUplinkSwitch), 1u);
    EXPECT_EQ(card->links().commands_received(8), 2u);
    card->camera(0)->set_uplink_fails(true);
    EXPECT_EQ(h.read(8, cxp_camera::kUplinkSwitch), 0u);
}

// Camera memory as a node map port, over control packets on link 0.
class control_port : public IPort {
public:
    explicit control_port(host &h) : h_(h) {}
    void Read(void *buffer, int64_t address, int64_t length) override {
        h_.send(0, 0, uint32_t(address), uint32_t(length));
        const ack a = h_.one(0);
        if (a.code != 0) throw std::runtime_error("camera read failed");
        std::memcpy(buffer, a.data.data(), size_t(length));
    }
    void Write(const void *buffer, int64_t address, int64_t length) override {
        const auto *bytes = static_cast<const uint8_t *>(buffer);
        h_.send(0, 1, uint32_t(address), uint32_t(length), std::vector<uint8_t>(bytes, bytes + length));
        if (h_.one(0).code != 1) throw std::runtime_error("camera write failed");
    }
    EAccessMode GetAccessMode() const override { return RW; }

private:
    host &h_;
};

TEST(EmulatedCamera, DescriptionFileThroughTheUrlAgreesWithTheRegisters) {
    pcie_bus bus;
    host h(bus);
    h.rate(0x38);
    const std::optional<uint32_t> url_address = h.read(0, cxp_camera::kXmlUrlAddress);
    ASSERT_TRUE(url_address);
    h.send(0, 0, *url_address, 128);
    const std::string url(reinterpret_cast<const char *>(h.one(0).data.data()));
    ASSERT_EQ(url.rfind("local:Orvane_Lyra25M.zip;10000;", 0), 0u) << url;
    const size_t size = std::stoul(url.substr(url.rfind(';') + 1), nullptr, 16);

    std::vector<uint8_t> archive;
    for (size_t offset = 0; offset < size; offset += 996) {
        h.send(0, 0, uint32_t(0x10000 + offset), uint32_t(std::min<size_t>(996, size - offset)));
        const std::vector<uint8_t> chunk = h.one(0).data;
        archive.insert(archive.end(), chunk.begin(), chunk.end());
    }
    ASSERT_EQ(archive.size(), size);
    h.send(0, 0, uint32_t(0x10000 + size), 4);
    EXPECT_EQ(h.one(0).code, 0x40u);  // nothing after the archive

    CNodeMapRef map;
    map._LoadXMLFromZIPData(archive.data(), archive.size());
    control_port port(h);
    ASSERT_TRUE(map._Connect(&port, "Device"));
    EXPECT_EQ(map.get_string("DeviceVendorName"), "Orvane");
    EXPECT_EQ(map.get_string("DeviceSerialNumber"), "LY25-0457-1");
    EXPECT_EQ(map.get_integer("Width"), 5120);
    EXPECT_EQ(map.get_enum("PixelFormat"), "Mono8");
    map.set_integer("Height", 1024);
    map.set_enum("PixelFormat", "Mono12");
    map.execute("AcquisitionStart");
    const auto camera = bus.card(0)->camera(0);
    EXPECT_EQ(camera->read_register(cxp_camera::kHeight), 1024u);
    EXPECT_EQ(camera->read_register(cxp_camera::kPixelFormat), 0x01100005u);
    EXPECT_TRUE(camera->acquiring());
    EXPECT_EQ(h.read(0, cxp_camera::kXmlVersion), 0x00010101u);
}

// Camera memory as a node map port, straight into the camera model.
class memory_port : public IPort {
public:
    explicit memory_port(cxp_camera &camera) : camera_(camera) {}
    void Read(void *buffer, int64_t address, int64_t length) override {
        if (camera_.read_memory(uint32_t(address), {static_cast<uint8_t *>(buffer), size_t(length)}) != 0)
            throw std::runtime_error("camera read failed");
    }
    void Write(const void *buffer, int64_t address, int64_t length) override {
        if (camera_.write_memory(uint32_t(address), {static_cast<const uint8_t *>(buffer), size_t(length)}) != 1)
            throw std::runtime_error("camera write failed");
    }
    EAccessMode GetAccessMode() const override { return RW; }

private:
    cxp_camera &camera_;
};

// Both models' descriptions, loaded through the URL: every feature reads,
// the ranges follow the sensor, PayloadSize follows Width and PixelFormat,
// and the model refuses what the description excludes.
TEST(EmulatedCamera, MonochromeAndColourModelsServeEveryFeatureOfTheirDescriptions) {
    struct expected {
        const char *model, *archive;
        int64_t sensor_width, sensor_height, height_inc;
        const char *format8, *format12;
        uint32_t code12;
        std::vector<std::string> formats;
    };
    const expected models[] = {
        {"Lyra 25M CXP-12", "Orvane_Lyra25M", 5120, 5120, 1, "Mono8", "Mono12", 0x01100005,
         {"Mono8", "Mono10", "Mono12", "Mono16", "Mono10p"}},
        {cxp_camera::kColourModel, "Orvane_Lyra12C", 4096, 3072, 2, "BayerRG8", "BayerRG12", 0x01100011,
         {"BayerRG8", "BayerRG10", "BayerRG12", "RGB8"}},
    };
    for (const expected &e : models) {
        SCOPED_TRACE(e.model);
        camera_profile profile;
        profile.links = {0, 1};
        profile.model = e.model;
        profile.serial = "LY-0001";
        cxp_camera camera(profile);
        EXPECT_EQ(camera.colour(), e.model == std::string(cxp_camera::kColourModel));

        std::vector<uint8_t> url_text(cxp_camera::kUrlCapacity);
        ASSERT_EQ(camera.read_memory(*camera.read_register(cxp_camera::kXmlUrlAddress), url_text), 0);
        const std::string url(reinterpret_cast<const char *>(url_text.data()));
        ASSERT_EQ(url.rfind("local:" + std::string(e.archive) + ".zip;10000;", 0), 0u) << url;
        std::vector<uint8_t> archive(std::stoul(url.substr(url.rfind(';') + 1), nullptr, 16));
        ASSERT_EQ(camera.read_memory(cxp_camera::kDescription, archive), 0);
        CNodeMapRef map;
        map._LoadXMLFromZIPData(archive.data(), archive.size());
        memory_port port(camera);
        ASSERT_TRUE(map._Connect(&port, "Device"));

        EXPECT_GE(pelorin::testing_support::read_every_feature(map), 38);
        for (const char *category : {"DeviceControl", "ImageFormatControl", "AcquisitionControl",
                                     "TransportLayerControl"})
            EXPECT_FALSE(map.category_features(category).empty()) << category;
        EXPECT_EQ(map.get_string("DeviceModelName"), e.model);
        EXPECT_EQ(map.get_enum("DeviceScanType"), "Areascan");
        EXPECT_EQ(map.get_enum("DeviceTapGeometry"), "Geometry_1X_1Y");
        EXPECT_EQ(map.get_integer("SensorWidth"), e.sensor_width);
        EXPECT_EQ(map.get_integer("HeightMax"), e.sensor_height);
        EXPECT_EQ(map.get_integer("Width"), e.sensor_width);
        EXPECT_EQ(map.get_enum("PixelFormat"), e.format8);
        std::vector<std::string> formats;
        for (const auto &entry : map.enum_entries("PixelFormat")) formats.push_back(entry.name);
        EXPECT_EQ(formats, e.formats);
        EXPECT_EQ(map.get_integer("PayloadSize"), e.sensor_width * e.sensor_height);
        EXPECT_EQ(map.get_enum("CxpLinkConfigurationPreferred"), "CXP12_X2");
        EXPECT_EQ(map.get_enum("CxpLinkConfiguration"), "CXP3_X2");  // discovery
        EXPECT_EQ(map.get_integer("Image1StreamID"), 0);
        EXPECT_NEAR(map.get_float("AcquisitionFrameRate"), 30.0, 1e-3);
        EXPECT_EQ(map.float_unit("ExposureTime"), "us");

        // Width, offsets and PayloadSize.
        map.set_integer("Width", 1024);
        EXPECT_EQ(map.get_integer("PayloadSize"), 1024 * e.sensor_height);
        EXPECT_EQ(map.integer_max("OffsetX"), e.sensor_width - 1024);
        map.set_integer("OffsetX", 512);
        EXPECT_EQ(map.integer_max("Width"), e.sensor_width - 512);
        EXPECT_EQ(map.integer_inc("Height"), e.height_inc);
        map.set_integer("Height", 600);
        map.set_enum("PixelFormat", e.format12);
        EXPECT_EQ(camera.read_register(cxp_camera::kPixelFormat), e.code12);
        EXPECT_EQ(map.get_integer("PayloadSize"), 1024 * 600 * 2);
        EXPECT_EQ(camera.read_register(cxp_camera::kOffsetX), 512u);

        // Floats, trigger per selector, test pattern, the link configuration.
        map.set_float("ExposureTime", 2500.0);
        EXPECT_NEAR(map.get_float("ExposureTime"), 2500.0, 1e-3);
        map.set_enum("TriggerSelector", "AcquisitionStart");
        map.set_enum("TriggerMode", "On");
        map.set_enum("TriggerSource", "Line1");
        map.set_enum("TriggerSelector", "FrameStart");
        EXPECT_EQ(map.get_enum("TriggerMode"), "Off");
        EXPECT_EQ(camera.read_register(cxp_camera::kTriggerMode + 4), 1u);
        EXPECT_EQ(camera.read_register(cxp_camera::kTriggerSource + 4), 2u);
        map.set_enum("TestPattern", "GreyHorizontalRamp");
        map.set_enum("CxpLinkConfiguration", "CXP12_X2");
        EXPECT_FALSE(camera.in_discovery());
        map.execute("AcquisitionStart");
        EXPECT_TRUE(camera.acquiring());
        map.execute("AcquisitionStop");
        EXPECT_FALSE(camera.acquiring());

        // The model refuses what the description excludes.
        const auto write = [&camera](uint32_t address, uint32_t value) {
            return camera.write_memory(address, be_bytes(value));
        };
        EXPECT_EQ(write(cxp_camera::kWidth, 1000), 0x41);  // not a multiple of 16
        EXPECT_EQ(write(cxp_camera::kWidth, uint32_t(e.sensor_width)), 0x41);  // past the sensor with OffsetX
        EXPECT_EQ(write(cxp_camera::kOffsetY, uint32_t(e.sensor_height)), 0x41);
        EXPECT_EQ(write(cxp_camera::kPixelFormat, e.code12 == 0x01100005 ? 0x01080009u : 0x01080001u), 0x41);
        EXPECT_EQ(write(cxp_camera::kExposureTime, 0x3F800000), 0x41);  // 1.0 us
        EXPECT_EQ(write(cxp_camera::kTriggerSource, 3), 0x41);
        EXPECT_EQ(write(cxp_camera::kSensorWidth, 64), 0x43);
        EXPECT_EQ(camera.read_register(cxp_camera::kWidth), 1024u);
    }
}

}  // namespace
