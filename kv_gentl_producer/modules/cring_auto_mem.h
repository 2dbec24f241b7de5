// A bounded list of byte strings (interface, device and stream IDs), kept in
// the order they were put. Each operation is atomic on its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "gentl_base/gentl_critical.h"
#include "pelorin/gentl.h"

class CRingAutoMem {
public:
    explicit CRingAutoMem(uint32_t capacity);
    virtual ~CRingAutoMem() = default;

    CRingAutoMem(const CRingAutoMem &) = delete;
    CRingAutoMem &operator=(const CRingAutoMem &) = delete;

    bool Init_Ring() { return true; }

    // Appends a copy of `size` bytes. GC_ERR_NO_DATA for no data,
    // GC_ERR_BUSY when the ring is full, GC_ERR_RESOURCE_IN_USE when the copy
    // cannot be allocated.
    GC_ERROR Put(const void *data, uint64_t size);
    // Copies entry `index` out (see the GenTL ID calls): null size →
    // GC_ERR_INVALID_PARAMETER; no such entry → GC_ERR_INVALID_INDEX; null
    // buffer → size query; short buffer → GC_ERR_BUFFER_TOO_SMALL with the
    // capacity left as it was; a larger buffer is zeroed first.
    GC_ERROR Get(uint32_t index, void *buffer, size_t *size) const;
    uint32_t Count() const;
    void Clear();
    // Makes this ring equal to `other`; true when that changed it.
    bool ReplaceIfDifferent(const CRingAutoMem &other);

    uint32_t capacity() const { return capacity_; }

private:
    struct entry {
        std::unique_ptr<uint8_t[]> block;
        uint64_t used = 0;
        uint32_t block_size = 0;
    };
    static bool same_text(const entry &a, const entry &b);

    const uint32_t capacity_;
    uint32_t blockSize_ = 0;
    mutable CGentlCritical critical_;
    std::vector<entry> entries_;
};
