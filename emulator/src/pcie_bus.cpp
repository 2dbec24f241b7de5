#include "emulator/pcie_bus.h"

#include <cerrno>

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
    std::lock_guard lock(mutex_);
    cards_ = std::move(built);
}

std::vector<card_profile> pcie_bus::cards() const {
    std::lock_guard lock(mutex_);
    std::vector<card_profile> profiles;
    profiles.reserve(cards_.size());
    for (const auto &card : cards_) profiles.push_back(card->profile());
    return profiles;
}

void pcie_bus::reset() {
    set_cards(default_cards());
    clear_refusals();
}

void pcie_bus::refuse_code(uint32_t code, bool refuse) {
    std::lock_guard lock(mutex_);
    if (refuse)
        refused_codes_.insert(code);
    else
        refused_codes_.erase(code);
}

void pcie_bus::clear_refusals() {
    std::lock_guard lock(mutex_);
    refused_codes_.clear();
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
    if (index >= cards_.size()) return -ENODEV;
    if (next_handle_ == kNoHandle || next_handle_ == kBadHandle) next_handle_ = 1;
    handle = next_handle_++;
    handles_[handle] = open_handle{cards_[index]};
    return 0;
}

int pcie_bus::close(uint64_t handle) {
    std::lock_guard lock(mutex_);
    return handles_.erase(handle) == 1 ? 0 : -EBADF;
}

int pcie_bus::message(uint64_t handle, uint32_t code, std::span<const uint8_t> in,
                      std::span<uint8_t> out, size_t &returned) {
    returned = 0;
    std::shared_ptr<emulated_card> card;
    {
        std::lock_guard lock(mutex_);
        const auto found = handles_.find(handle);
        if (found == handles_.end()) return -EBADF;
        if (refused_codes_.contains(code)) return -EIO;
        card = found->second.card;
    }
    if (!emulated_card::handles(code)) return -ENOTTY;
    return card->handle_message(code, in, out, returned) ? 0 : -EINVAL;
}

}  // namespace pelorin::emu
