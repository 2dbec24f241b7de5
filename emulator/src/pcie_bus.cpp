#include "emulator/pcie_bus.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "emulator/profile_loader.h"

namespace pelorin::emu {

namespace {
// Handle values a card never gets: closed and invalid.
constexpr uint64_t kNoHandle = 0;
constexpr uint64_t kBadHandle = ~uint64_t{0};
}  // namespace

pcie_bus::pcie_bus() { set_cards(default_cards()); }

pcie_bus &pcie_bus::system_bus() {
    static pcie_bus bus;
    return bus;
}

std::vector<card_profile> pcie_bus::default_cards() { return {card_profile::halden_q12(0)}; }

void pcie_bus::set_cards(const std::vector<card_profile> &cards) {
    std::vector<std::shared_ptr<emulated_card>> built;
    built.reserve(cards.size());
    for (const card_profile &profile : cards) built.push_back(std::make_shared<emulated_card>(profile));
    std::vector<std::shared_ptr<emulated_card>> replaced;
    {
        std::lock_guard lock(mutex_);
        replaced = std::move(cards_);
        cards_ = std::move(built);
    }
    // Cards no handle refers to any more are destroyed here, outside the lock.
}

std::vector<card_profile> pcie_bus::cards() const {
    std::lock_guard lock(mutex_);
    std::vector<card_profile> profiles;
    profiles.reserve(cards_.size());
    for (const auto &card : cards_) profiles.push_back(card->profile());
    return profiles;
}

std::shared_ptr<emulated_card> pcie_bus::card(uint32_t index) const {
    std::lock_guard lock(mutex_);
    return index < cards_.size() ? cards_[index] : nullptr;
}

void pcie_bus::reset() {
    set_cards(default_cards());
    clear_refusals();
    std::lock_guard lock(mutex_);
    open_failure_.reset();
    capturing_ = false;
    captured_.clear();
}

void pcie_bus::refuse_code(uint32_t code, bool refuse) {
    std::lock_guard lock(mutex_);
    if (refuse)
        refused_codes_.insert(code);
    else
        refused_codes_.erase(code);
}

void pcie_bus::refuse_next(uint32_t code, uint32_t count) {
    if (count == 0) return;
    std::lock_guard lock(mutex_);
    refuse_next_[code] += count;
}

void pcie_bus::clear_refusals() {
    std::lock_guard lock(mutex_);
    refused_codes_.clear();
    refuse_next_.clear();
}

void pcie_bus::fail_next_open(int error) {
    std::lock_guard lock(mutex_);
    open_failure_ = error < 0 ? error : -EIO;
}

void pcie_bus::capture_messages(bool on) {
    std::lock_guard lock(mutex_);
    capturing_ = on;
    if (on) captured_.clear();
}

std::vector<captured_message> pcie_bus::take_captured() {
    std::lock_guard lock(mutex_);
    return std::exchange(captured_, {});
}

size_t pcie_bus::open_handle_count() const {
    std::lock_guard lock(mutex_);
    return handles_.size();
}

uint32_t pcie_bus::card_count() const {
    std::lock_guard lock(mutex_);
    return static_cast<uint32_t>(cards_.size());
}

int pcie_bus::open(uint32_t index, uint64_t &handle) {
    std::lock_guard lock(mutex_);
    if (open_failure_) return *std::exchange(open_failure_, std::nullopt);
    if (index >= cards_.size()) return -ENODEV;
    if (next_handle_ == kNoHandle || next_handle_ == kBadHandle) next_handle_ = 1;
    handle = next_handle_++;
    handles_[handle] = open_handle{cards_[index]};
    return 0;
}

int pcie_bus::close(uint64_t handle) {
    std::shared_ptr<emulated_card> card;
    {
        std::lock_guard lock(mutex_);
        const auto found = handles_.find(handle);
        if (found == handles_.end()) return -EBADF;
        card = std::move(found->second.card);
        handles_.erase(found);
    }
    // Stopping DMA joins an engine thread: not under the bus lock.
    card->handle_closed(handle);
    return 0;
}

int pcie_bus::message(uint64_t handle, uint32_t code, std::span<const uint8_t> in,
                      std::span<uint8_t> out, size_t &returned) {
    returned = 0;
    std::shared_ptr<emulated_card> card;
    int result = 0;
    bool capture = false;
    {
        std::lock_guard lock(mutex_);
        capture = capturing_;
        const auto found = handles_.find(handle);
        if (found == handles_.end()) {
            result = -EBADF;
        } else if (refused_codes_.contains(code)) {
            result = -EIO;
        } else if (const auto next = refuse_next_.find(code); next != refuse_next_.end()) {
            if (--next->second == 0) refuse_next_.erase(next);
            result = -EIO;
        } else {
            card = found->second.card;
        }
    }
    if (card) result = card->handle_message(handle, code, in, out, returned);
    if (capture) {
        captured_message record{handle, code, std::vector<uint8_t>(in.begin(), in.end()), out.size(),
                                result, std::vector<uint8_t>(out.begin(), out.begin() + returned)};
        std::lock_guard lock(mutex_);
        if (capturing_ && captured_.size() < kCaptureLimit) captured_.push_back(std::move(record));
    }
    return result;
}

int pcie_bus::sync_with_environment(std::string &error) {
    std::lock_guard sync(sync_mutex_);
    const char *variable = std::getenv(kEmulationVariable);
    std::optional<std::string> value;
    if (variable != nullptr && variable[0] != '\0') value = variable;
    if (!sync_failed_ && value == synced_value_) return 0;

    std::vector<card_profile> profiles = default_cards();
    if (value && !load_profile_file(*value, profiles, error)) {
        set_cards({});
        sync_failed_ = true;
        return -EINVAL;
    }
    set_cards(profiles);
    synced_value_ = std::move(value);
    sync_failed_ = false;
    return 0;
}

}  // namespace pelorin::emu
