#include "modules/cring_auto_mem.h"

#include <cstdio>
#include <cstring>
#include <new>

CRingAutoMem::CRingAutoMem(uint32_t capacity) : capacity_(capacity) {}

GC_ERROR CRingAutoMem::Put(const void *data, uint64_t size) {
    if (data == nullptr || size == 0) return GC_ERR_NO_DATA;
    CGenTLAutoLock guard(critical_);
    // Blocks grow with some room, so IDs of similar length share one size.
    if (blockSize_ < size) {
        if (size > UINT32_MAX - 4096) return GC_ERR_RESOURCE_IN_USE;
        blockSize_ = static_cast<uint32_t>(size) + 4096;
    }
    if (entries_.size() >= capacity_) return GC_ERR_BUSY;
    entry added;
    added.block.reset(new (std::nothrow) uint8_t[blockSize_]);
    if (!added.block) return GC_ERR_RESOURCE_IN_USE;
    std::memcpy(added.block.get(), data, size);
    added.used = size;
    added.block_size = blockSize_;
    entries_.push_back(std::move(added));
    return GC_ERR_SUCCESS;
}

GC_ERROR CRingAutoMem::Get(uint32_t index, void *buffer, size_t *size) const {
    if (size == nullptr) return GC_ERR_INVALID_PARAMETER;
    CGenTLAutoLock guard(critical_);
    if (index >= entries_.size()) return GC_ERR_INVALID_INDEX;
    const entry &found = entries_[index];
    if (buffer == nullptr) {
        *size = found.used;
        return GC_ERR_SUCCESS;
    }
    if (*size < found.used) return GC_ERR_BUFFER_TOO_SMALL;
    if (*size > found.used) std::memset(buffer, 0, *size);
    std::memcpy(buffer, found.block.get(), found.used);
    *size = found.used;
    return GC_ERR_SUCCESS;
}

uint32_t CRingAutoMem::Count() const {
    CGenTLAutoLock guard(critical_);
    return static_cast<uint32_t>(entries_.size());
}

void CRingAutoMem::Clear() {
    CGenTLAutoLock guard(critical_);
    entries_.clear();
}

bool CRingAutoMem::same_text(const entry &a, const entry &b) {
    if (a.used != b.used) return false;
    // Entries are NUL-terminated texts: compare up to the first NUL.
    const size_t length = strnlen(reinterpret_cast<const char *>(a.block.get()), a.used);
    return std::memcmp(a.block.get(), b.block.get(), length) == 0 &&
           (length == a.used || b.block[length] == 0);
}

bool CRingAutoMem::ReplaceIfDifferent(const CRingAutoMem &other) {
    if (&other == this) return false;
    {
        CGenTLAutoLock mine(critical_);
        CGenTLAutoLock theirs(other.critical_);
        bool same = entries_.size() == other.entries_.size();
        for (size_t i = 0; same && i < entries_.size(); ++i)
            same = same_text(entries_[i], other.entries_[i]);
        if (same) return false;
    }
    Clear();
    const uint32_t count = other.Count();
    for (uint32_t i = 0; i < count; ++i) {
        size_t size = 0;
        if (other.Get(i, nullptr, &size) != GC_ERR_SUCCESS) continue;
        std::vector<uint8_t> bytes(size);
        if (other.Get(i, bytes.data(), &size) != GC_ERR_SUCCESS) continue;
        if (Put(bytes.data(), size) == GC_ERR_BUSY) {
            std::printf("ring is busy...\n");
            std::fflush(stdout);
        }
    }
    return true;
}
