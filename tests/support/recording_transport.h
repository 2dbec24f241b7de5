// A driver transport for tests that records every call and answers as it
// is told, and a guard that installs a transport for one test.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "card/driver_transport.h"

namespace pelorin::testing_support {

using pelorin::card::driver_handle;
using pelorin::card::driver_transport;

// Records every call; answers as it is told.
class recording_transport final : public driver_transport {
public:
    struct message {
        driver_handle handle;
        uint32_t code;
        std::vector<uint8_t> in;
        size_t out_size;
    };

    int enumerate_result = 0;
    uint32_t cards = 1;
    int open_result = 0;
    driver_handle next_handle = 0x5A17;
    int send_result = 0;
    std::vector<uint8_t> reply;  // copied to the start of every output buffer
    // When set, the byte count reported back whatever was copied (a driver
    // that misreports its reply).
    long reported_size = -1;

    std::vector<uint32_t> opened;
    std::vector<driver_handle> closed;
    std::vector<message> messages;

    int enumerate(uint32_t &count) override {
        count = cards;
        return enumerate_result;
    }
    int open(uint32_t index, driver_handle &handle) override {
        opened.push_back(index);
        if (open_result == 0) handle = next_handle;
        return open_result;
    }
    int send(driver_handle handle, uint32_t code, std::span<const uint8_t> in,
             std::span<uint8_t> out, size_t &returned) override {
        messages.push_back({handle, code, {in.begin(), in.end()}, out.size()});
        returned = 0;
        if (send_result != 0) return send_result;
        returned = std::min(out.size(), reply.size());
        std::copy_n(reply.begin(), returned, out.begin());
        if (reported_size >= 0) returned = static_cast<size_t>(reported_size);
        return 0;
    }
    void close(driver_handle handle) override { closed.push_back(handle); }
};

// Installs a transport for one test and restores the previous one.
class scoped_transport {
public:
    explicit scoped_transport(driver_transport *transport)
        : previous_(pelorin::card::install_transport(transport)) {}
    ~scoped_transport() { pelorin::card::install_transport(previous_); }
    scoped_transport(const scoped_transport &) = delete;
    scoped_transport &operator=(const scoped_transport &) = delete;

private:
    driver_transport *previous_;
};

}  // namespace pelorin::testing_support
