#include "gentl_base/gentl_critical.h"

#include <cassert>

#include "diag/log.h"

namespace {

// Per thread: how many times each ranked section (ranks 1..31) is held.
constexpr uint32_t kMaxRank = 32;
thread_local uint32_t t_hold_count[kMaxRank] = {};

}  // namespace

CGentlCritical::CGentlCritical(uint32_t rank, const char *name)
    : rank_(rank < kMaxRank ? rank : kUnranked), name_(name) {}

CGentlCritical::~CGentlCritical() = default;

void CGentlCritical::check_rank_order() const {
    if (rank_ == kUnranked || t_hold_count[rank_] > 0) return;  // re-entry is always fine
    for (uint32_t higher = rank_ + 1; higher < kMaxRank; ++higher) {
        if (t_hold_count[higher] > 0) {
            LOG_ANY(pelorin::diag::kError, "lock order violation: %s taken after a later lock\n",
                    name_);
            assert(!"library lock taken out of order");
            return;
        }
    }
}

void CGentlCritical::lock() {
    check_rank_order();
    mutex_.lock();
    if (rank_ != kUnranked) ++t_hold_count[rank_];
}

bool CGentlCritical::try_lock() {
    if (!mutex_.try_lock()) return false;
    if (rank_ != kUnranked) ++t_hold_count[rank_];
    return true;
}

void CGentlCritical::unlock() {
    if (rank_ != kUnranked && t_hold_count[rank_] > 0) --t_hold_count[rank_];
    mutex_.unlock();
}

bool CGentlCritical::held_by_this_thread() const {
    return rank_ != kUnranked && t_hold_count[rank_] > 0;
}
