// The GenApi port of a module: reads and writes go through GCReadPort and
// GCWritePort on the module's handle, exactly as a consumer's would (same
// locks, same last error). A read or write succeeds only when the module
// moved exactly the requested length.
#pragma once

#include <cstdint>

#include "nodemap/iport.h"

class CKvIport : public IPort {
public:
    // `handle`: the module's GenTL handle (for the remote camera, the device's
    // port token); `level`: 0 system, 1 interface, 2 device, 3 remote
    // device, 4 data stream (kept to tell ports apart).
    CKvIport(void *handle, uint32_t level) : handle_(handle), level_(level) {}
    ~CKvIport() override = default;

    // Both throw std::invalid_argument on failure.
    void Read(void *pBuffer, int64_t Address, int64_t Length) override;
    void Write(const void *pBuffer, int64_t Address, int64_t Length) override;
    // RW while the handle is set, NA otherwise.
    EAccessMode GetAccessMode() const override { return handle_ != nullptr ? RW : NA; }

    void *handle() const { return handle_; }
    uint32_t level() const { return level_; }

private:
    void *const handle_;
    const uint32_t level_;
};
