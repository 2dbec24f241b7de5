// An IPort over a plain byte array, for node-map tests: little-endian
// helpers to arrange and inspect the bytes, access counters, and a switch
// that makes every access fail.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "nodemap/iport.h"

namespace pelorin::testing_support {

class memory_port final : public IPort {
public:
    explicit memory_port(size_t size) : bytes(size, 0) {}

    void Read(void *buffer, int64_t address, int64_t length) override {
        ++reads;
        check(address, length);
        std::memcpy(buffer, bytes.data() + address, static_cast<size_t>(length));
    }
    void Write(const void *buffer, int64_t address, int64_t length) override {
        ++writes;
        check(address, length);
        std::memcpy(bytes.data() + address, buffer, static_cast<size_t>(length));
    }
    EAccessMode GetAccessMode() const override { return access; }

    void put_le(size_t address, uint64_t value, size_t length) {
        for (size_t i = 0; i < length; ++i)
            bytes.at(address + i) = static_cast<uint8_t>(value >> (8 * i));
    }
    uint64_t get_le(size_t address, size_t length) const {
        uint64_t value = 0;
        for (size_t i = 0; i < length; ++i) value |= uint64_t{bytes.at(address + i)} << (8 * i);
        return value;
    }
    void put_double(size_t address, double value) {
        uint64_t raw;
        std::memcpy(&raw, &value, sizeof raw);
        put_le(address, raw, 8);
    }
    double get_double(size_t address) const {
        const uint64_t raw = get_le(address, 8);
        double value;
        std::memcpy(&value, &raw, sizeof value);
        return value;
    }
    void put_text(size_t address, const std::string &text) {
        std::memcpy(bytes.data() + address, text.data(), text.size());
    }

    std::vector<uint8_t> bytes;
    int reads = 0;
    int writes = 0;
    bool fail = false;
    EAccessMode access = RW;

private:
    void check(int64_t address, int64_t length) const {
        if (fail) throw std::runtime_error("injected port failure");
        if (address < 0 || length < 0 || static_cast<uint64_t>(address + length) > bytes.size())
            throw std::out_of_range("access beyond the port's memory");
    }
};

}  // namespace pelorin::testing_support
