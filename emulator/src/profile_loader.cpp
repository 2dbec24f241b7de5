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

// One camera of a card as the profile gives it: defaults for what is not
// given, and which of the card-dependent values were.
struct camera_entry {
    camera_profile fields;
    bool has_serial = false;
    bool has_default_config = false;
};

// The keys of one card as the profile gives them; unset keys keep the
// built-in card's value.
struct card_entry {
    card_profile fields;        // only the keys in `given` are meaningful
    bool has_identifier = false;
    bool has_name = false;
    std::vector<void (*)(card_profile &, const card_profile &)> given;
    uint64_t repeat = 1;
    std::optional<std::vector<camera_entry>> cameras;  // set when the key is given
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

    // A string of at most `longest` characters.
    bool text(const json &value, std::string_view key, size_t longest, std::string &out) {
        if (!value.is_string() || value.get_ref<const std::string &>().size() > longest)
            return fail(key, "expected a string of at most " + std::to_string(longest) + " characters");
        out = value.get<std::string>();
        return true;
    }

    bool boolean(const json &value, std::string_view key, bool &out) {
        if (!value.is_boolean()) return fail(key, "expected true or false");
        out = value.get<bool>();
        return true;
    }

    // An array of at most `longest` integers min..max.
    bool integers(const json &value, std::string_view key, uint64_t min, uint64_t max, size_t longest,
                  std::vector<uint32_t> &out) {
        const std::string expected = "expected an array of at most " + std::to_string(longest) +
                                     " integers " + std::to_string(min) + ".." + std::to_string(max);
        if (!value.is_array() || value.size() > longest) return fail(key, expected);
        out.clear();
        for (const json &item : value) {
            uint64_t number = 0;
            if (!integer(item, key, min, max, number)) return fail(key, expected);
            out.push_back(static_cast<uint32_t>(number));
        }
        return true;
    }

    // A non-empty array of line rates: codes or names "CXP-1" .. "CXP-12".
    bool rates(const json &value, std::string_view key, std::vector<uint32_t> &out) {
        const char *expected =
            "expected a non-empty array of line rates (0x28..0x58 or \"CXP-1\".."
            "\"CXP-12\")";
        if (!value.is_array() || value.empty() || value.size() > 16) return fail(key, expected);
        out.clear();
        for (const json &item : value) {
            std::optional<uint32_t> code;
            if (item.is_string()) code = line_rate_from_name(item.get_ref<const std::string &>());
            uint64_t number = 0;
            if (!code && item.is_number() && integer(item, key, 0, 0xFFFF, number))
                code = static_cast<uint32_t>(number);
            if (!code && item.is_string() && hex(item.get_ref<const std::string &>(), number))
                code = static_cast<uint32_t>(number);
            if (!code || !is_line_rate(*code)) return fail(key, expected);
            out.push_back(*code);
        }
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

// Reads a regular file of at most `limit` bytes; false with `problem` set.
bool read_file(const std::string &path, size_t limit, std::string &text, std::string &problem) {
    // O_NONBLOCK: opening a FIFO or a device must not wait for a writer
    // before it is found to be no regular file.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        problem = std::string("cannot open the file (") + std::strerror(errno) + ")";
        return false;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        problem = "not a regular file";
        return false;
    }
    text.clear();
    if (static_cast<uint64_t>(status.st_size) <= limit) {
        char chunk[8192];
        ssize_t n;
        while ((n = ::read(fd, chunk, sizeof chunk)) > 0 && text.size() <= limit)
            text.append(chunk, static_cast<size_t>(n));
        const int read_error = n < 0 ? errno : 0;
        ::close(fd);
        if (read_error != 0) {
            problem = std::string("cannot read the file (") + std::strerror(read_error) + ")";
            return false;
        }
    } else {
        ::close(fd);
    }
    if (static_cast<uint64_t>(status.st_size) > limit || text.size() > limit) {
        problem = "larger than " + std::to_string(limit) + " bytes";
        return false;
    }
    return true;
}

// The description file named by a camera: its XML text and its name (the
// file name without directory and extension).
bool read_description(object_reader &reader, const json &value, std::string_view base_dir,
                      camera_profile &camera) {
    const char *key = "description_file";
    std::string path;
    if (!reader.text(value, key, path) || path.empty()) return reader.fail(key, "expected a file path");
    if (path[0] != '/' && !base_dir.empty()) path = std::string(base_dir) + "/" + path;
    std::string problem;
    if (!read_file(path, kMaxDescriptionFileSize, camera.description_xml, problem))
        return reader.fail(key, path + ": " + problem);
    if (camera.description_xml.find("<RegisterDescription") == std::string::npos)
        return reader.fail(key, path + ": not a GenICam register description");
    std::string name = path.substr(path.find_last_of('/') + 1);
    name = name.substr(0, name.find('.'));
    const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
               c == '-';
    });
    if (name.empty() || name.size() > kMaxDescriptionNameLength || !plain)
        return reader.fail(key, path + ": the file name before its first '.' must be 1 to " +
                                    std::to_string(kMaxDescriptionNameLength) +
                                    " letters, digits, '_' or '-'");
    camera.description_name = name;
    return true;
}

bool subset_of_links(object_reader &reader, std::string_view key, const std::vector<uint32_t> &list,
                     const std::vector<uint32_t> &links) {
    for (uint32_t link : list)
        if (std::find(links.begin(), links.end(), link) == links.end())
            return reader.fail(key, "link " + std::to_string(link) + " is none of the camera's links");
    return true;
}

bool read_camera(const json &object, const std::string &where, std::string_view base_dir, camera_entry &entry,
                 std::string &error) {
    object_reader reader(where, error);
    reader.allow_hex(true);
    if (!object.is_object()) return reader.fail("", "expected an object");
    camera_profile &c = entry.fields;
    camera_faults &f = c.faults;
    bool has_links = false;
    bool has_wait_commands = false;
    bool has_error_commands = false;
    bool has_garbage_replies = false;
    for (const auto &[key, value] : object.items()) {
        bool ok = true;
        if (key == "links") {
            ok = reader.integers(value, key, 0, kMaxCameraConnections - 1, kMaxCameraConnections, c.links);
            if (ok && c.links.empty()) ok = reader.fail(key, "expected at least one link");
            for (size_t i = 0; ok && i < c.links.size(); ++i)
                if (std::count(c.links.begin(), c.links.end(), c.links[i]) > 1)
                    ok = reader.fail(key, "link " + std::to_string(c.links[i]) + " given twice");
            has_links = true;
        } else if (key == "discovery_rates") {
            ok = reader.rates(value, key, c.discovery_rates);
        } else if (key == "supported_rates") {
            ok = reader.rates(value, key, c.supported_rates);
        } else if (key == "default_config") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, c.default_config);
            entry.has_default_config = true;
        } else if (key == "revision") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, c.revision);
        } else if (key == "versions_supported") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, c.versions_supported);
        } else if (key == "control_packet_size_max") {
            ok = reader.number(value, key, 32, 0x100000, c.control_packet_size_max);
        } else if (key == "stream_packet_size_max") {
            ok = reader.number(value, key, 0, 0x100000, c.stream_packet_size_max);
        } else if (key == "vendor") {
            ok = reader.text(value, key, 31, c.vendor);
        } else if (key == "model") {
            ok = reader.text(value, key, 31, c.model);
        } else if (key == "manufacturer_info") {
            ok = reader.text(value, key, 47, c.manufacturer_info);
        } else if (key == "version") {
            ok = reader.text(value, key, 31, c.version);
        } else if (key == "serial") {
            ok = reader.text(value, key, 15, c.serial);
            entry.has_serial = true;
        } else if (key == "user_id") {
            ok = reader.text(value, key, 15, c.user_id);
        } else if (key == "uplink") {
            ok = reader.boolean(value, key, c.uplink);
        } else if (key == "no_description") {
            ok = reader.boolean(value, key, c.no_description);
        } else if (key == "description_file") {
            ok = read_description(reader, value, base_dir, c);
        } else if (key == "damaged_replies") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, f.damaged_replies);
        } else if (key == "wait_acks") {
            ok = reader.integers(value, key, 0, 60000, 16, f.wait_acks_ms);
        } else if (key == "wait_commands") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, f.wait_commands);
            has_wait_commands = true;
        } else if (key == "error_code") {
            ok = reader.number(value, key, 0, 255, f.error_code);
            if (ok && f.error_code == 4)
                ok = reader.fail(key, "4 is the wait acknowledgement (use wait_acks)");
        } else if (key == "error_commands") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, f.error_commands);
            has_error_commands = true;
        } else if (key == "lost_replies") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, f.lost_replies);
        } else if (key == "garbage_words") {
            ok = reader.number(value, key, 0, 256, f.garbage_words);
        } else if (key == "garbage_replies") {
            ok = reader.number(value, key, 0, 0xFFFFFFFF, f.garbage_replies);
            has_garbage_replies = true;
        } else if (key == "foreign_host") {
            uint32_t host = 0;
            ok = reader.number(value, key, 0, 0xFFFFFFFF, host);
            f.foreign_host = host;
        } else if (key == "unplugged_links") {
            ok = reader.integers(value, key, 0, kMaxCameraConnections - 1, kMaxCameraConnections,
                                 f.unplugged_links);
        } else if (key == "broken_links") {
            ok = reader.integers(value, key, 0, kMaxCameraConnections - 1, kMaxCameraConnections,
                                 f.broken_links);
        } else if (key == "uplink_fails") {
            ok = reader.boolean(value, key, f.uplink_fails);
        } else if (key == "comment") {
            std::string ignored;
            ok = reader.text(value, key, ignored);
        } else {
            ok = reader.fail("", "unknown key \"" + key + "\"");
        }
        if (!ok) return false;
    }
    if (!has_links) return reader.fail("links", "missing");
    if (!has_wait_commands && !f.wait_acks_ms.empty()) f.wait_commands = 1;
    if (!has_error_commands && object.contains("error_code")) f.error_commands = 1;
    if (!has_garbage_replies && f.garbage_words > 0) f.garbage_replies = 1;
    return subset_of_links(reader, "unplugged_links", f.unplugged_links, c.links) &&
           subset_of_links(reader, "broken_links", f.broken_links, c.links);
}

// The cameras of a built card: defaults that depend on the card, and the
// checks against its links.
bool build_cameras(const std::vector<camera_entry> &entries, size_t position, const card_profile &card,
                   std::vector<camera_profile> &cameras, std::string &error) {
    const uint32_t card_links = std::min(card.link_count, kMaxCameraConnections);
    const uint32_t card_rate = is_line_rate(card.link_rate_code) ? card.link_rate_code : kRateCxp12;
    cameras.clear();
    for (size_t index = 0; index < entries.size(); ++index) {
        object_reader reader("cards[" + std::to_string(position) + "].cameras[" + std::to_string(index) + "]",
                             error);
        camera_profile camera = entries[index].fields;
        if (!entries[index].has_serial)
            camera.serial = camera_profile::standard_serial(card.identifier, static_cast<uint32_t>(index));
        const uint32_t connections = static_cast<uint32_t>(camera.links.size());
        if (!entries[index].has_default_config) camera.default_config = connections << 16 | card_rate;
        const uint32_t default_links = camera.default_config >> 16;
        const uint32_t default_rate = camera.default_config & 0xFFFF;
        if (default_links < 1 || default_links > connections)
            return reader.fail("default_config", "link count " + std::to_string(default_links) +
                                                     " is not 1.." + std::to_string(connections));
        if (std::find(camera.supported_rates.begin(), camera.supported_rates.end(), default_rate) ==
            camera.supported_rates.end())
            return reader.fail("default_config",
                               "rate " + std::to_string(default_rate) + " is not among the supported rates");
        for (uint32_t link : camera.links) {
            if (link >= card_links)
                return reader.fail("links", "the card has no link " + std::to_string(link) + " (links 0.." +
                                                std::to_string(card_links) + " - 1)");
            for (size_t other = 0; other < cameras.size(); ++other) {
                const std::vector<uint32_t> &taken = cameras[other].links;
                if (std::find(taken.begin(), taken.end(), link) != taken.end())
                    return reader.fail("links", "link " + std::to_string(link) + " already carries cameras[" +
                                                    std::to_string(other) + "]");
            }
        }
        cameras.push_back(std::move(camera));
    }
    return true;
}

bool read_card(const json &object, size_t position, std::string_view base_dir, card_entry &entry,
               std::string &error) {
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
        } else if (key == "unlimited_frame_rate") {
            if (!value.is_boolean()) return reader.fail(key, "expected true or false");
            f.unlimited_frame_rate = value.get<bool>();
            entry.given.push_back([](card_profile &c, const card_profile &g) {
                c.unlimited_frame_rate = g.unlimited_frame_rate;
            });
        } else if (key == "completion_stamp") {
            if (!value.is_boolean()) return reader.fail(key, "expected true or false");
            f.completion_stamp = value.get<bool>();
            entry.given.push_back(
                [](card_profile &c, const card_profile &g) { c.completion_stamp = g.completion_stamp; });
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
        } else if (key == "cameras") {
            if (!value.is_array() || value.size() > kMaxCameraConnections)
                return reader.fail(key, "expected an array of at most " +
                                            std::to_string(kMaxCameraConnections) + " camera objects");
            entry.cameras.emplace();
            for (size_t index = 0; index < value.size(); ++index) {
                camera_entry camera;
                const std::string where =
                    "cards[" + std::to_string(position) + "].cameras[" + std::to_string(index) + "]";
                if (!read_camera(value[index], where, base_dir, camera, error)) return false;
                entry.cameras->push_back(std::move(camera));
            }
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

bool parse_document(const json &document, std::string_view base_dir, std::vector<card_profile> &cards,
                    std::string &error) {
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
        if (!read_card((*list)[position], position, base_dir, entry, error)) return false;
        if (entry.repeat > kMaxProfileCards - built.size())
            return fail("cards: more than " + std::to_string(kMaxProfileCards) +
                        " cards (repeats included)");
        for (uint64_t copy = 0; copy < entry.repeat; ++copy) {
            card_profile card = card_profile::halden_q12(static_cast<uint32_t>(built.size()));
            for (const auto &apply : entry.given) apply(card, entry.fields);
            if (entry.has_identifier) card.identifier = entry.fields.identifier;
            if (entry.has_name) card.name = entry.fields.name;
            if (entry.repeat > 1) make_distinct(card, entry, copy);
            if (entry.cameras) {
                std::vector<camera_profile> cameras;
                if (!build_cameras(*entry.cameras, position, card, cameras, error)) return false;
                card.cameras = std::move(cameras);
            }
            built.push_back(std::move(card));
        }
    }
    cards = std::move(built);
    return true;
}

}  // namespace

bool parse_profile(std::string_view text, std::string_view source, std::vector<card_profile> &cards,
                   std::string &error, std::string_view base_dir) {
    std::string problem;
    try {
        const json document = json::parse(text);
        if (parse_document(document, base_dir, cards, problem)) return true;
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
    std::string text;
    std::string problem;
    if (!read_file(path, kMaxProfileFileSize, text, problem)) {
        error = path + ": " + problem;
        return false;
    }
    const size_t slash = path.find_last_of('/');
    const std::string base_dir =
        slash == std::string::npos ? std::string() : path.substr(0, slash == 0 ? 1 : slash);
    return parse_profile(text, path, cards, error, base_dir);
}

}  // namespace pelorin::emu
