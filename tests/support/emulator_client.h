// Test helpers that speak the driver's wire format to an emulated bus: the
// byte layout of every message, built by hand so that the tests check the
// card against the format itself.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

#include "emulator/control_codes.h"
#include "emulator/pcie_bus.h"

namespace emu_test {

inline std::vector<uint8_t> words(std::initializer_list<uint32_t> values) {
    std::vector<uint8_t> bytes;
    for (uint32_t value : values)
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return bytes;
}

inline void append64(std::vector<uint8_t> &bytes, uint64_t value) {
    for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

inline uint32_t le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

inline uint64_t le64(const uint8_t *p) { return le32(p) | static_cast<uint64_t>(le32(p + 4)) << 32; }

// The counter of an eventfd, consumed (0 when it was not signalled).
inline uint64_t take_signals(int fd) {
    uint64_t value = 0;
    return ::read(fd, &value, sizeof value) == sizeof value ? value : 0;
}

// A non-blocking eventfd closed with the helper.
struct event_fd {
    int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ~event_fd() { close(); }
    void close() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

// One open handle on a bus and the messages it sends.
class client {
public:
    explicit client(pelorin::emu::pcie_bus &bus, uint32_t card = 0) : bus_(bus) {
        opened_ = bus_.open(card, handle_);
    }
    ~client() { close(); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    int opened() const { return opened_; }
    uint64_t handle() const { return handle_; }
    void close() {
        if (opened_ == 0) bus_.close(handle_);
        opened_ = -1;
    }

    int send(uint32_t code, std::span<const uint8_t> in, std::span<uint8_t> out = {}) {
        size_t returned = 0;
        return bus_.message(handle_, code, in, out, returned);
    }
    int send(uint32_t code, const std::vector<uint8_t> &in) { return send(code, std::span(in)); }

    int write_reg(uint32_t address, uint32_t value) {
        return send(pelorin::emu::kCodeWriteReg, words({address, value}));
    }
    uint32_t read_reg(uint32_t address) {
        uint8_t out[4] = {};
        const std::vector<uint8_t> in = words({address, 0});
        return send(pelorin::emu::kCodeReadReg, in, out) == 0 ? le32(out) : 0xDEADBEEF;
    }
    int write_fifo(uint32_t address, std::initializer_list<uint32_t> values) {
        std::vector<uint8_t> in = words({1, 0, address, static_cast<uint32_t>(values.size())});
        const std::vector<uint8_t> body = words(values);
        in.insert(in.end(), body.begin(), body.end());
        return send(pelorin::emu::kCodeWriteFifo, in);
    }
    int register_event(uint32_t source, uint64_t fd) {
        std::vector<uint8_t> in = words({source, 0});
        append64(in, fd);
        return send(pelorin::emu::kCodeRegisterEvent, in);
    }
    int unregister_event(uint32_t source) {
        return send(pelorin::emu::kCodeUnregisterEvent, words({source}));
    }
    int link_attach(uint32_t group, uint32_t mask) {
        return send(pelorin::emu::kCodeLinkAttach, words({group, mask}));
    }
    int link_detach() { return send(pelorin::emu::kCodeLinkDetach, std::span<const uint8_t>()); }

    int set_stream_param(uint32_t channel, std::initializer_list<uint32_t> geometry) {
        std::vector<uint8_t> in = words({channel});
        const std::vector<uint8_t> body = words(geometry);
        in.insert(in.end(), body.begin(), body.end());
        return send(pelorin::emu::kCodeSetStreamParam, in);
    }
    static std::vector<uint8_t> dma_start_message(uint32_t channel, uint32_t payload, uint64_t event,
                                                  const std::vector<uint64_t> &addresses) {
        std::vector<uint8_t> in = words({channel, payload, static_cast<uint32_t>(addresses.size()), 0});
        append64(in, event);
        for (uint64_t address : addresses) append64(in, address);
        return in;
    }
    int dma_start(uint32_t channel, uint32_t payload, uint64_t event,
                  const std::vector<uint64_t> &addresses) {
        return send(pelorin::emu::kCodeDmaStart, dma_start_message(channel, payload, event, addresses));
    }
    int dma_stop(uint32_t channel) { return send(pelorin::emu::kCodeDmaStop, words({channel})); }
    // The queue_buffer answer's third word (buffers waiting) in *waiting.
    int queue_buffer(uint32_t channel, uint32_t index, uint32_t *waiting = nullptr) {
        uint8_t out[12] = {};
        const std::vector<uint8_t> in = words({channel, index});
        const int result = send(pelorin::emu::kCodeQueueBuffer, in, out);
        if (waiting) *waiting = le32(out + 8);
        return result;
    }
    struct frame {
        uint32_t index = 0;
        uint32_t number = 0;
        uint32_t pending = 0;
    };
    int get_frame(uint32_t channel, frame &answer) {
        uint8_t out[12] = {};
        const std::vector<uint8_t> in = words({channel});
        const int result = send(pelorin::emu::kCodeGetFrame, in, out);
        answer = {le32(out), le32(out + 4), le32(out + 8)};
        return result;
    }

private:
    pelorin::emu::pcie_bus &bus_;
    uint64_t handle_ = 0;
    int opened_ = -1;
};

}  // namespace emu_test
