#include "emulator/profile_loader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include <nlohmann/json.hpp>

#include "emulator/emulated_card.h"

namespace pelorin::emu {

namespace {

using json = nlohmann::json;

// The keys of one card as the profile gives them; unset keys keep the
// built-in card's value.
struct card_entry {
    card_profile fields;        // only the keys in `given` are meaningful
    bool has_identifier = false;
    bool has_name = false;
    std::vector<void (*)(card_profile &, const card_profile &)> given;
    uint64_t repeat = 1;
};

// Reads the values of one JSON object, reporting problems under `where`.
class object_reader {
public:
    object_reader(std::string where, std::string &error) : where_(std::move(where)), error_(error) {}

    bool fail(std::string_view key, std::string_view problem) {
        error_ = where_;
        if (!key.empty()) (error_ += '.') += key;
        (error_ += ": ") += problem;
        return false;
    }

    bool integer(const json &value, std::string_view key, uint64_t min, uint64_t max,
                 uint64_t &out) {
        bool ok = false;
        if (value.is_number_unsigned()) {
            out = value.get<uint64_t>();
            ok = true;
        } else if (value.is_number_integer()) {
            const int64_t signed_value = value.get<int64_t>();
            ok = signed_value >= 0;
            out = static_cast<uint64_t>(signed_value);
        } else if (value.is_string() && allow_hex_) {
            ok = hex(value.get_ref<const std::string &>(), out);
        }
        if (ok && out >= min && out <= max) return true;
        return fail(key, "expected an integer " + std::to_string(min) + ".." + std::to_string(max));
    }

    template <typename T>
    bool number(const json &value, std::string_view key, uint64_t min, uint64_t max, T &out) {
        uint64_t read = 0;
        if (!integer(value, key, min, max, read)) return false;
        out = static_cast<T>(read);
        return true;
    }

    bool text(const json &value, std::string_view key, std::string &out) {
        if (!value.is_string()) return fail(key, "expected a string");
        out = value.get<std::string>();
        return true;
    }

    void allow_hex(bool allow) { allow_hex_ = allow; }

private:
    // "0x" followed by 1 to 8 hexadecimal digits.
    static bool hex(const std::string &text, uint64_t &out) {
        if (text.size() < 3 || text.size() > 10 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
            return false;
        out = 0;
        for (size_t i = 2; i < text.size(); ++i) {
            const char c = text[i];
            uint64_t digit;
            if (c >= '0' && c <= '9')
                digit = static_cast<uint64_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                digit = static_cast<uint64_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                digit = static_cast<uint64_t>(c - 'A' + 10);
            else
                return false;
            out = out * 16 + digit;
        }
        return true;
    }

    std::string where_;
    std::string &error_;
    bool allow_hex_ = false;
};

// "major.minor", both decimal 0..65535.
bool parse_version(const std::string &text, uint16_t &major, uint16_t &minor) {
    const size_t dot = text.find('.');
    if (dot == std::string::npos) return false;
    auto part = [](std::string_view digits, uint16_t &out) {
        if (digits.empty() || digits.size() > 5) return false;
        uint32_t value = 0;
        for (const char c : digits) {
            if (c < '0' || c > '9') return false;
            value = value * 10 + static_cast<uint32_t>(c - '0');
        }
        if (value > 0xFFFF) return false;
        out = static_cast<uint16_t>(value);
        return true;
    };
    const std::string_view view(text);
    return part(view.substr(0, dot), major) && part(view.substr(dot + 1), minor);
}

bool read_card(const json &object, size_t position, card_entry &entry, std::string &error) {
    object_reader reader("cards[" + std::to_string(position) + "]", error);
    if (!object.is_object()) return reader.fail("", "expected an object");
    card_profile &f = entry.fields;
    for (const auto &[key, value] : object.items()) {
        if (key == "product_id") {
            reader.allow_hex(true);
            const bool ok = reader.number(value, key, 0, 0xFFFF, f.product_id);
            reader.allow_hex(false);
            if (!ok) return false;
            entry.given.push_back([](card_profile &c, const card_profile &g) { c.product_id = g.product_id; });
        } else if (key == "boot_generation") {
            if (!reader.number(value, key, 0, 0xFFFFFFFF, f.boot_generation)) return false;
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.boot_generation = g.boot_generation; });
        } else if (key == "stage2_loaded") {
            if (!value.is_boolean()) return reader.fail(key, "expected true or false");
            f.stage2_loaded = value.get<bool>();
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.stage2_loaded = g.stage2_loaded; });
        } else if (key == "links") {
            if (!reader.number(value, key, 0, 32, f.link_count)) return false;
            entry.given.push_back([](card_profile &c, const card_profile &g) { c.link_count = g.link_count; });
        } else if (key == "device_slots") {
            if (!reader.number(value, key, 0, 0xFFFFFFFF, f.device_slots)) return false;
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.device_slots = g.device_slots; });
        } else if (key == "link_rate_code") {
            if (!reader.number(value, key, 0, 0xFFFFFFFF, f.link_rate_code)) return false;
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.link_rate_code = g.link_rate_code; });
        } else if (key == "firmware_version") {
            if (!value.is_string() ||
                !parse_version(value.get_ref<const std::string &>(), f.firmware_major, f.firmware_minor))
                return reader.fail(key, "expected \"major.minor\" with numbers 0..65535");
            entry.given.push_back([](card_profile &c, const card_profile &g) {
                c.firmware_major = g.firmware_major;
                c.firmware_minor = g.firmware_minor;
            });
        } else if (key == "attribute") {
            if (!reader.number(value, key, 0, 255, f.attribute)) return false;
            entry.given.push_back([](card_profile &c, const card_profile &g) { c.attribute = g.attribute; });
        } else if (key == "identifier") {
            if (!reader.text(value, key, f.identifier)) return false;
            entry.has_identifier = true;
        } else if (key == "name") {
            if (!reader.text(value, key, f.name)) return false;
            entry.has_name = true;
        } else if (key == "description_storage") {
            const std::string storage = value.is_string() ? value.get<std::string>() : std::string();
            if (storage == "valid")
                f.description = description_storage::valid;
            else if (storage == "damaged")
                f.description = description_storage::damaged;
            else if (storage == "absent")
                f.description = description_storage::absent;
            else
                return reader.fail(key, "expected \"valid\", \"damaged\" or \"absent\"");
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.description = g.description; });
        } else if (key == "vendor") {
            if (!reader.text(value, key, f.vendor)) return false;
            entry.given.push_back([](card_profile &c, const card_profile &g) { c.vendor = g.vendor; });
        } else if (key == "model") {
            if (!reader.text(value, key, f.model)) return false;
            entry.given.push_back([](card_profile &c, const card_profile &g) { c.model = g.model; });
        } else if (key == "repeat") {
            if (!reader.integer(value, key, 1, kMaxProfileCards, entry.repeat)) return false;
        } else if (key == "comment") {
            std::string ignored;
            if (!reader.text(value, key, ignored)) return false;
        } else {
            return reader.fail("", "unknown key \"" + key + "\"");
        }
    }
    return true;
}

// Copy `copy` of a repeated card: "-<copy>" after the identifier, and after
// the first word of the name (the part a host keeps), cut so that the name
// still fits the card's name field.
void make_distinct(card_profile &card, const card_entry &entry, uint64_t copy) {
    const std::string suffix = "-" + std::to_string(copy);
    if (entry.has_identifier) card.identifier = entry.fields.identifier + suffix;
    if (entry.has_name) {
        const std::string &name = entry.fields.name;
        const size_t blank = std::min(name.find(' '), name.size());
        std::string first = name.substr(0, blank);
        const size_t room = emulated_card::kNameCapacity - 1 - suffix.size();
        if (first.size() > room) first.resize(room);
        card.name = first + suffix + name.substr(blank);
    }
}

bool parse_document(const json &document, std::vector<card_profile> &cards, std::string &error) {
    auto fail = [&](std::string problem) {
        error = std::move(problem);
        return false;
    };
    if (!document.is_object()) return fail("expected an object with a \"cards\" array");
    const json *list = nullptr;
    for (const auto &[key, value] : document.items()) {
        if (key == "cards") {
            list = &value;
        } else if (key == "comment") {
            if (!value.is_string()) return fail("comment: expected a string");
        } else {
            return fail("unknown key \"" + key + "\"");
        }
    }
    if (list == nullptr) return fail("cards: missing");
    if (!list->is_array()) return fail("cards: expected an array of card objects");

    std::vector<card_profile> built;
    for (size_t position = 0; position < list->size(); ++position) {
        card_entry entry;
        if (!read_card((*list)[position], position, entry, error)) return false;
        if (entry.repeat > kMaxProfileCards - built.size())
            return fail("cards: more than " + std::to_string(kMaxProfileCards) +
                        " cards (repeats included)");
        for (uint64_t copy = 0; copy < entry.repeat; ++copy) {
            card_profile card = card_profile::halden_q12(static_cast<uint32_t>(built.size()));
            for (const auto &apply : entry.given) apply(card, entry.fields);
            if (entry.has_identifier) card.identifier = entry.fields.identifier;
            if (entry.has_name) card.name = entry.fields.name;
            if (entry.repeat > 1) make_distinct(card, entry, copy);
            built.push_back(std::move(card));
        }
    }
    cards = std::move(built);
    return true;
}

}  // namespace

bool parse_profile(std::string_view text, std::string_view source, std::vector<card_profile> &cards,
                   std::string &error) {
    std::string problem;
    try {
        const json document = json::parse(text);
        if (parse_document(document, cards, problem)) return true;
    } catch (const json::parse_error &e) {
        // "[json.exception.parse_error.101] parse error at line 2, column 7: ..."
        problem = e.what();
        const size_t tag_end = problem.find("] ");
        if (tag_end != std::string::npos) problem.erase(0, tag_end + 2);
    } catch (const std::exception &e) {
        problem = e.what();
    } catch (...) {
        problem = "unexpected failure while reading the profile";
    }
    error = std::string(source) + ": " + problem;
    return false;
}

bool load_profile_file(const std::string &path, std::vector<card_profile> &cards, std::string &error) {
    auto fail = [&](const std::string &problem) {
        error = path + ": " + problem;
        return false;
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(std::string("cannot open the file (") + std::strerror(errno) + ")");
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        return fail("not a regular file");
    }
    if (static_cast<uint64_t>(status.st_size) > kMaxProfileFileSize) {
        ::close(fd);
        return fail("larger than " + std::to_string(kMaxProfileFileSize) + " bytes");
    }
    std::string text;
    char chunk[8192];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0 && text.size() <= kMaxProfileFileSize)
        text.append(chunk, static_cast<size_t>(n));
    const int read_error = n < 0 ? errno : 0;
    ::close(fd);
    if (read_error != 0) return fail(std::string("cannot read the file (") + std::strerror(read_error) + ")");
    if (text.size() > kMaxProfileFileSize)
        return fail("larger than " + std::to_string(kMaxProfileFileSize) + " bytes");
    return parse_profile(text, path, cards, error);
}

}  // namespace pelorin::emu
