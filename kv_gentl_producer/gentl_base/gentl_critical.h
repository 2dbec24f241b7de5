// Recursive critical section and its scoped guard. Every lock of the library
// is taken through CGenTLAutoLock, so it is released on every return path.
#pragma once

#include <cstdint>
#include <mutex>

// A recursive critical section. A critical section may carry a rank; ranked
// sections (the library locks) must be taken in increasing rank order by
// each thread, and a violation is logged (and fatal in debug builds) instead
// of becoming a deadlock later.
class CGentlCritical {
public:
    static constexpr uint32_t kUnranked = 0;

    explicit CGentlCritical(uint32_t rank = kUnranked, const char *name = "critical");
    virtual ~CGentlCritical();

    CGentlCritical(const CGentlCritical &) = delete;
    CGentlCritical &operator=(const CGentlCritical &) = delete;

    void lock();
    void unlock();
    bool try_lock();

    // True when the calling thread holds this section.
    bool held_by_this_thread() const;

private:
    void check_rank_order() const;

    std::recursive_mutex mutex_;
    uint32_t rank_;
    const char *name_;
};

class CGenTLAutoLock {
public:
    explicit CGenTLAutoLock(CGentlCritical *critical) : critical_(critical) {
        if (critical_) critical_->lock();
    }
    explicit CGenTLAutoLock(CGentlCritical &critical) : CGenTLAutoLock(&critical) {}
    virtual ~CGenTLAutoLock() {
        if (critical_) critical_->unlock();
    }

    CGenTLAutoLock(const CGenTLAutoLock &) = delete;
    CGenTLAutoLock &operator=(const CGenTLAutoLock &) = delete;

private:
    CGentlCritical *critical_;
};
