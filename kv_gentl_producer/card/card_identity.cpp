#include "card/card_identity.h"

#include <array>
#include <string>

#include "card/pcie_device.h"
#include "diag/log.h"
#include "diag/messages_gbk.h"

using pelorin::diag::kDebug;
using pelorin::diag::kError;
using pelorin::diag::kInfo;
using pelorin::diag::kWarn;

namespace {

struct card_entry {
    card_info_record info;
    boot_record boot;
    description_block description;
    std::string name;
};

// The process-wide card tables. `count` is the number of cards found; only
// the first kCardTableSize of them have an entry.
struct card_tables {
    std::array<card_entry, kCardTableSize> entries;
    uint32_t found = 0;    // cards opened by the running enumeration
    uint32_t count = 0;    // stored when the enumeration succeeds
};

card_tables &tables() {
    static card_tables instance;
    return instance;
}

struct product_entry {
    uint32_t product_id;
    const char *model;
    uint32_t family;
};

constexpr product_entry kProducts[] = {
    {0x180, "Halden Q6", 0x301},       {0x181, "Halden Q12", 0x301},
    {0x182, "Halden Q6 Plus", 0x302},  {0x183, "Halden Q12 Plus", 0x302},
    {0x184, "Sarnet F10", 0x303},      {0x185, "Sarnet F25", 0x303},
    {0x186, "Halden Q6 Lite", 0x304},  {0x190, "Corvel D2", 0x310},
};
constexpr uint32_t kUnknownProductFamily = 0x301;

const product_entry *find_product(uint32_t product_id) {
    for (const product_entry &entry : kProducts)
        if (entry.product_id == product_id) return &entry;
    return nullptr;
}

// Reads the three records of the opened card `index` into `entry`. A record
// the driver refuses stays zero; a description block that cannot be read or
// is not valid is not kept.
void read_card_records(pcie_device &device, uint32_t index, card_entry &entry) {
    entry = card_entry{};
    if (!pcie_get_card_info(device, entry.info.bytes)) {
        LOG_ANY(kWarn, "Card %u: the card information record cannot be read\n", index);
        entry.info = card_info_record{};
    }
    if (!pcie_get_boot_info(device, entry.boot.bytes)) {
        LOG_ANY(kWarn, "Card %u: the boot record cannot be read\n", index);
        entry.boot = boot_record{};
    }
    entry.info.cut_name_at_blank();
    entry.name = entry.info.name();

    description_block block;
    if (!pcie_read_flash(device, 0, description_block::kSize, block.bytes)) {
        LOG_ANY(kWarn, "Card %u: the description storage cannot be read\n", index);
        return;
    }
    const description_block::check result = block.validate();
    if (result != description_block::check::valid) {
        LOG_ANY(kDebug, "Card %u: no valid description block (%s)\n", index,
                description_block::check_text(result));
        return;
    }
    entry.description = block;
}

// The first card whose firmware the producer cannot work with ends the
// check with its message.
bool firmware_usable(const card_entry &entry) {
    const uint32_t generation = entry.boot.generation();
    if (generation != 1 && generation != 2) {
        LogMessage(kError, pelorin::diag::kChinese, nullptr, 0, pelorin::msg_zh::kBootV0TooOld,
                   pelorin::kProducerVersion);
        LogMessage(kError, pelorin::diag::kEnglish, nullptr, 0,
                   "Boot fireware V0 is too old, please update to V1 or V2\n");
        return false;
    }
    if (!entry.boot.stage2_loaded()) {
        LOG_PAIR(kError, pelorin::msg_zh::kStage2LoadError,
                 "Stage2 fireware load error, please use tool to solve the problem\n");
        return false;
    }
    return true;
}

}  // namespace

bool card_enumerate() {
    card_tables &t = tables();
    t = card_tables{};

    LOG_ANY(kInfo, "DMA Version: %08X\n", pelorin::card::kDmaInterfaceVersion);

    for (uint32_t index = 0; index < kCardProbeLimit; ++index) {
        pcie_device device;
        if (!pcie_open(device, index)) break;
        if (index < kCardTableSize) read_card_records(device, index, t.entries[index]);
        pcie_close(device);
        ++t.found;
    }

    if (t.found == 0) {
        LOG_PAIR(kError, pelorin::msg_zh::kCantCreatePcieDevice, "Can't create PCIe Device!\n");
        return false;
    }
    if (t.found > kCardTableSize)
        LOG_ANY(kWarn, "%u cards found; only the first %u are used\n", t.found, kCardTableSize);

    const uint32_t with_records = t.found < kCardTableSize ? t.found : kCardTableSize;
    for (uint32_t i = 0; i < with_records; ++i) {
        LOG_PAIR(kInfo, pelorin::msg_zh::kCardBootVersion, "Card %d (%s): Boot Version V%d\n",
                 static_cast<int>(i), t.entries[i].name.c_str(),
                 static_cast<int>(t.entries[i].boot.generation()));
    }
    for (uint32_t i = 0; i < with_records; ++i)
        if (!firmware_usable(t.entries[i])) return false;

    LOG_PAIR(kInfo, pelorin::msg_zh::kLinkCardsNum, "### Link cards num %d \n",
             static_cast<int>(t.found));
    for (uint32_t i = 0; i < with_records; ++i) {
        LogMessage(kInfo, pelorin::diag::kChinese, nullptr, 0, pelorin::msg_zh::kCardListEntry,
                   static_cast<int>(i), t.entries[i].name.c_str());
    }

    t.count = t.found;
    return true;
}

uint32_t card_describe(std::vector<interface_description> &list) {
    const uint32_t described = card_record_count();
    list.resize(described);
    for (uint32_t i = 0; i < described; ++i) {
        const card_entry &entry = tables().entries[i];
        interface_description &d = list[i];
        d.identifier = entry.info.identifier();
        d.id = d.identifier + "(" + entry.name + ")";
        if (entry.description.magic() != 0) {
            d.vendor = entry.description.vendor();
            d.model = entry.description.model();
        } else {
            d.vendor = kDefaultCardVendor;
            d.model = card_product_model(entry.info.product_id());
        }
        d.card_index = i;
        d.product_text = std::to_string(entry.info.product_id());
        d.name = entry.name;
        d.version = std::to_string(entry.info.firmware_major()) + "." +
                    std::to_string(entry.info.firmware_minor());
        d.product_id = entry.info.product_id();
        d.attribute = entry.info.attribute();
        const uint32_t slots = entry.boot.device_slots();
        d.device_slots = slots == 0 ? 1 : slots;
    }
    return described;
}

uint32_t card_family(uint32_t product_id) {
    const product_entry *entry = find_product(product_id);
    return entry != nullptr ? entry->family : kUnknownProductFamily;
}

const char *card_product_model(uint32_t product_id) {
    const product_entry *entry = find_product(product_id);
    return entry != nullptr ? entry->model : "";
}

uint32_t card_count() { return tables().count; }

uint32_t card_record_count() {
    const uint32_t count = tables().count;
    return count < kCardTableSize ? count : kCardTableSize;
}

const card_info_record *card_info(uint32_t index) {
    return index < card_record_count() ? &tables().entries[index].info : nullptr;
}

const boot_record *card_boot_record(uint32_t index) {
    return index < card_record_count() ? &tables().entries[index].boot : nullptr;
}

const description_block *card_description(uint32_t index) {
    return index < card_record_count() ? &tables().entries[index].description : nullptr;
}

const char *card_name(uint32_t index) {
    return index < card_record_count() ? tables().entries[index].name.c_str() : "";
}
