// libFuzzer target for settings files: each input is
//   1. given to parse_settings_member as raw bytes: the bytes consumed stay
//      in the range, a member ends at its ',' or '}', texts end with a zero,
//      numbers read as atoi and atof read them, and every shorter range of
//      the same bytes answers "incomplete" for a member found whole (the
//      loader relies on this when it re-reads a member cut by its buffer);
//   2. loaded as a file by load_settings over an in-memory module that has
//      a feature of every kind, so the records are applied too. The outcome
//      must equal a plain walk of the whole input member by member (what
//      the 2048-byte reads must not change), nothing may be applied from a
//      file refused at its first member, ConnectionConfig is never written,
//      and no feature is written with the value it already holds.
// Any broken rule aborts with a message; the sanitizers catch the rest.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "diag/log.h"
#include "features/settings_buffers.h"
#include "features/settings_persistence.h"
#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"

#include "fuzz_rules.h"

namespace {

using namespace pelorin::features;

using pelorin::fuzz::fail;
using pelorin::fuzz::require;

// Key, type and value: the record without its result.
constexpr size_t kParsedBytes = offsetof(settings_record, result);

bool same_member(const settings_record &a, const settings_record &b) {
    return std::memcmp(&a, &b, kParsedBytes) == 0;
}

// ---------------------------------------------------------------------------
// The tokenizer on raw bytes

bool is_number_byte(char c) { return (c >= '0' && c <= '9') || c == '.' || c == '-'; }
bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// The number ending the member [data, data + used): the characters before
// its ',' or '}' and any blanks in front of that.
std::string number_text(const char *data, int used) {
    size_t end = static_cast<size_t>(used) - 1;
    while (end > 0 && is_blank(data[end - 1])) --end;
    size_t begin = end;
    while (begin > 0 && is_number_byte(data[begin - 1])) --begin;
    return std::string(data + begin, end - begin);
}

void check_member(const char *data, size_t size, int used, const settings_record &record) {
    require(used >= -1 && static_cast<size_t>(std::max(used, 0)) <= size, "bytes consumed out of range");
    if (used <= 0) return;
    require(data[used - 1] == ',' || data[used - 1] == '}', "member not ended by ',' or '}'");
    require(std::memchr(record.key, '\0', sizeof record.key) != nullptr, "key without a zero");
    switch (record.type) {
        case kRecordString:
            require(std::memchr(record.value.s, '\0', sizeof record.value.s) != nullptr,
                    "text value without a zero");
            break;
        case kRecordInteger: {
            // atoi as the C library has it: strtol, then the low 32 bits.
            const std::string text = number_text(data, used);
            const int64_t wanted = static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
            require(record.value.i == wanted, "integer differs from atoi");
            break;
        }
        case kRecordFloat: {
            const std::string text = number_text(data, used);
            const double wanted = std::strtod(text.c_str(), nullptr);
            const double got = record.value.f;
            require(std::memcmp(&got, &wanted, sizeof got) == 0, "float differs from atof");
            break;
        }
        default:
            fail("unknown record type");
    }
}

void fuzz_member_parser(const char *data, size_t size) {
    settings_record untouched;
    std::memset(&untouched, 0xA5, sizeof untouched);
    settings_record whole = untouched;
    const int used = parse_settings_member(data, size, whole);
    check_member(data, size, used, whole);
    if (used <= 0) require(same_member(whole, untouched), "record changed without a member");

    // Shorter ranges of the same bytes.
    const size_t cuts[] = {0, 1, size / 3, size / 2, size - 1,
                           used > 0 ? static_cast<size_t>(used) - 1 : size / 4,
                           used > 0 ? static_cast<size_t>(used) : size / 5};
    for (size_t cut : cuts) {
        if (cut >= size) continue;
        settings_record part = untouched;
        const int got = parse_settings_member(data, cut, part);
        if (used > 0 && cut >= static_cast<size_t>(used)) {
            require(got == used && same_member(part, whole), "a longer range changed the member");
        } else if (used >= 0) {
            require(got == 0, "a shorter range of a member is not incomplete");
            require(same_member(part, untouched), "incomplete member changed the record");
        } else {
            require(got <= 0, "a shorter range of a bad member found one");
        }
    }

    // The members after the first one, as a loader walks them.
    size_t at = 0;
    for (int members = 0; members < 64 && at < size; ++members) {
        settings_record next{};
        const int step = parse_settings_member(data + at, size - at, next);
        check_member(data + at, size - at, step, next);
        if (step <= 0) break;
        at += static_cast<size_t>(step);
    }
}

// ---------------------------------------------------------------------------
// A module in memory

struct fake_feature {
    uint32_t type = KV_IINTEGER;
    bool writable = true;
    int64_t integer = 0;
    int64_t minimum = INT64_MIN;
    int64_t maximum = INT64_MAX;
    int64_t increment = 1;
    double number = 0;
    double low = -1e300;
    double high = 1e300;
    std::string text;
    size_t text_max = 64;
    std::vector<std::pair<std::string, int64_t>> entries;  // enumeration
    std::string needs;  // a boolean that must be set for this feature to be available
};

class fake_module final : public feature_access {
public:
    fake_module() {
        features_["Width"] = integer(1024, 16, 4096, 16);
        features_["Height"] = integer(768, 1, 4096, 1);
        features_["OffsetX"] = integer(0, 0, 4080, 16);
        features_["OffsetX"].needs = "OffsetEnable";
        features_["OffsetEnable"] = boolean(false);
        features_["ReverseX"] = boolean(true);
        features_["ConnectionConfig"] = integer(0x40048, 0, INT64_MAX, 1);
        features_["ExposureTime"] = floating(2500.0, 10.0, 1e6);
        features_["Gain"] = floating(1.0, -1e300, 1e300);
        features_["DeviceUserID"] = text("cam-7", 16);
        features_["DeviceModelName"] = text("PelorinCam", 16);
        features_["DeviceModelName"].writable = false;
        fake_feature format;
        format.type = KV_IENUMERATION;
        format.entries = {{"Mono8", 0x01080001}, {"Mono16", 0x01100007}, {"BayerRG8", 0x01080009}};
        format.integer = 0x01080001;
        features_["PixelFormat"] = format;
        fake_feature start;
        start.type = KV_ICOMMAND;
        features_["AcquisitionStart"] = start;
        features_["UserSetLoad"] = start;
    }

    // Calls that changed something or ran a command.
    int actions = 0;

    int top_level_features(std::vector<feature_entry> &out) override {
        out.clear();
        return GC_ERR_SUCCESS;
    }
    int category_nodes(const std::string &, std::vector<std::string> &out) override {
        out.clear();
        return KV_ERR_FEATURE_NOT_FOUND;
    }
    int access_mode(const std::string &name, uint32_t &mode) override {
        const fake_feature *f = find(name);
        if (f == nullptr) return KV_ERR_NODE_NOT_FOUND;
        mode = !available(*f) ? KV_ACCESS_NA : f->writable ? KV_ACCESS_RW : KV_ACCESS_RO;
        return GC_ERR_SUCCESS;
    }
    int interface_type(const std::string &name, uint32_t &type) override {
        const fake_feature *f = find(name);
        if (f == nullptr) return KV_ERR_NODE_NOT_FOUND;
        type = f->type;
        return GC_ERR_SUCCESS;
    }

    int get_integer(const std::string &name, int64_t &value) override {
        fake_feature *f = nullptr;
        if (const int refused = readable(name, f)) return refused;
        if (f->type != KV_IINTEGER && f->type != KV_IBOOLEAN && f->type != KV_IENUMERATION)
            return KV_ERR_NOT_INTEGER;
        value = f->integer;
        return GC_ERR_SUCCESS;
    }
    int set_integer(const std::string &name, int64_t value) override {
        fake_feature *f = nullptr;
        if (const int refused = settable(name, f)) return refused;
        if (f->type != KV_IINTEGER && f->type != KV_IBOOLEAN) return KV_ERR_NOT_INTEGER;
        require(value != f->integer, "an integer written with the value it holds");
        if (f->type == KV_IBOOLEAN) {
            f->integer = value != 0 ? 1 : 0;
        } else {
            if (value < f->minimum || value > f->maximum) return GC_ERR_ERROR;
            // Rounded down to the increment: such a value does not read back.
            f->integer = value - (value - f->minimum) % f->increment;
        }
        ++actions;
        return GC_ERR_SUCCESS;
    }
    int get_float(const std::string &name, double &value) override {
        fake_feature *f = nullptr;
        if (const int refused = readable(name, f)) return refused;
        if (f->type != KV_IFLOAT) return KV_ERR_NOT_FLOAT;
        value = f->number;
        return GC_ERR_SUCCESS;
    }
    int set_float(const std::string &name, double value) override {
        fake_feature *f = nullptr;
        if (const int refused = settable(name, f)) return refused;
        if (f->type != KV_IFLOAT) return KV_ERR_NOT_FLOAT;
        require(!(std::fabs(value - f->number) < 0.00001), "a float written with the value it holds");
        if (!(value >= f->low && value <= f->high)) return GC_ERR_ERROR;
        f->number = value;
        ++actions;
        return GC_ERR_SUCCESS;
    }
    int get_string(const std::string &name, std::string &value) override {
        fake_feature *f = nullptr;
        if (const int refused = readable(name, f)) return refused;
        if (f->type == KV_IENUMERATION) {
            for (const auto &[entry, number] : f->entries)
                if (number == f->integer) value = entry;
            return GC_ERR_SUCCESS;
        }
        if (f->type != KV_ISTRING) return KV_ERR_NOT_STRING;
        value = f->text;
        return GC_ERR_SUCCESS;
    }
    int set_string(const std::string &name, const std::string &value) override {
        fake_feature *f = nullptr;
        if (const int refused = settable(name, f)) return refused;
        if (f->type == KV_IENUMERATION) {
            for (const auto &[entry, number] : f->entries) {
                if (entry != value) continue;
                require(number != f->integer, "an entry chosen that is already current");
                f->integer = number;
                ++actions;
                return GC_ERR_SUCCESS;
            }
            return GC_ERR_ERROR;
        }
        if (f->type != KV_ISTRING) return KV_ERR_NOT_STRING;
        require(value != f->text, "a string written with the value it holds");
        if (value.size() > f->text_max) return GC_ERR_ERROR;
        f->text = value;
        ++actions;
        return GC_ERR_SUCCESS;
    }
    int execute(const std::string &name) override {
        fake_feature *f = nullptr;
        if (const int refused = writable(name, f)) return refused;
        if (f->type != KV_ICOMMAND) return KV_ERR_NOT_COMMAND;
        ++actions;
        return GC_ERR_SUCCESS;
    }

    int64_t connection_config() const { return features_.at("ConnectionConfig").integer; }

private:
    static fake_feature integer(int64_t value, int64_t minimum, int64_t maximum, int64_t increment) {
        fake_feature f;
        f.integer = value;
        f.minimum = minimum;
        f.maximum = maximum;
        f.increment = increment;
        return f;
    }
    static fake_feature boolean(bool value) {
        fake_feature f;
        f.type = KV_IBOOLEAN;
        f.integer = value ? 1 : 0;
        return f;
    }
    static fake_feature floating(double value, double low, double high) {
        fake_feature f;
        f.type = KV_IFLOAT;
        f.number = value;
        f.low = low;
        f.high = high;
        return f;
    }
    static fake_feature text(const char *value, size_t most) {
        fake_feature f;
        f.type = KV_ISTRING;
        f.text = value;
        f.text_max = most;
        return f;
    }

    fake_feature *find(const std::string &name) {
        const auto it = features_.find(name);
        return it == features_.end() ? nullptr : &it->second;
    }
    bool available(const fake_feature &f) const {
        return f.needs.empty() || features_.at(f.needs).integer != 0;
    }
    int readable(const std::string &name, fake_feature *&f) {
        if ((f = find(name)) == nullptr) return KV_ERR_NODE_NOT_FOUND;
        if (!available(*f) || f->type == KV_ICOMMAND) return KV_ERR_NOT_READABLE;
        return GC_ERR_SUCCESS;
    }
    int writable(const std::string &name, fake_feature *&f) {
        if ((f = find(name)) == nullptr) return KV_ERR_NODE_NOT_FOUND;
        if (!available(*f) || !f->writable) return KV_ERR_NOT_WRITABLE;
        return GC_ERR_SUCCESS;
    }
    // A setter's checks: ConnectionConfig belongs to the connection.
    int settable(const std::string &name, fake_feature *&f) {
        require(name != kConnectionConfig, "ConnectionConfig written");
        return writable(name, f);
    }

    std::map<std::string, fake_feature> features_;
};

// ---------------------------------------------------------------------------
// The loader on a file

// What a load of `data` answers: the input walked member by member in one
// piece. A member, with whatever precedes it, has to fit in the loader's
// buffer; a tail of a whole buffer or more without a complete member is
// refused even where the file ends, a shorter one only when it holds a
// double quote (a member cut off).
struct expected_load {
    int code = KV_ERR_NOT_CARD_FILE;
    bool saver_accepted = false;
    std::vector<settings_record> records;
};

bool is_saver(const settings_record &record) {
    const std::string value = record.value.s;
    return record.type == kRecordString && std::string(record.key) == "saver" &&
           (value == kSaverValue || value == kSaverValueAlternate);
}

expected_load walk(const char *data, size_t size) {
    expected_load expected;
    size_t at = 0;
    while (expected.records.size() < kSettingsRecordsPerLoad) {
        const size_t rest = size - at;
        settings_record record{};
        const int used =
            parse_settings_member(data + at, std::min(rest, kSettingsChunkSize), record);
        if (used < 0) return expected;
        if (used == 0) {
            if (rest >= kSettingsChunkSize || std::memchr(data + at, '"', rest) != nullptr)
                return expected;
            break;
        }
        at += static_cast<size_t>(used);
        if (!expected.saver_accepted) {
            if (!is_saver(record)) return expected;
            expected.saver_accepted = true;
        } else {
            expected.records.push_back(record);
        }
        if (data[at - 1] == '}') break;
    }
    if (expected.saver_accepted) expected.code = GC_ERR_SUCCESS;
    return expected;
}

// The input as a file: an anonymous memory file, reached by its path under
// /proc/self/fd.
class memory_file {
public:
    memory_file() : fd_(memfd_create("settings", 0)) {
        if (fd_ < 0) fail("memfd_create failed");
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    const std::string &hold(const uint8_t *data, size_t size) {
        if (ftruncate(fd_, 0) != 0) fail("ftruncate failed");
        size_t written = 0;
        while (written < size) {
            const ssize_t n = pwrite(fd_, data + written, size - written, static_cast<off_t>(written));
            if (n <= 0) fail("pwrite failed");
            written += static_cast<size_t>(n);
        }
        return path_;
    }

private:
    int fd_;
    std::string path_;
};

void fuzz_loader(const uint8_t *data, size_t size) {
    static memory_file file;
    const std::string &path = file.hold(data, size);
    const expected_load expected = walk(reinterpret_cast<const char *>(data), size);

    fake_module module;
    std::vector<settings_record> records(3);
    const int result = load_settings(module, path, &records);

    require(result == expected.code, "load answered another code than the walk");
    require(module.connection_config() == 0x40048, "ConnectionConfig changed");
    if (!expected.saver_accepted) require(module.actions == 0, "a refused file applied something");
    if (result != GC_ERR_SUCCESS) {
        require(records.empty(), "records kept after a failed load");
        return;
    }
    require(records.size() == expected.records.size(), "load kept another number of records");
    for (size_t i = 0; i < records.size(); ++i)
        require(same_member(records[i], expected.records[i]), "load kept another record");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The loader logs every refusal and failed feature; the lines are
    // formatted as usual and go nowhere. libFuzzer reports on stderr.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) fail("cannot silence stdout");
    pelorin::diag::set_log_level(pelorin::diag::kAll);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_member_parser(reinterpret_cast<const char *>(data), size);
    fuzz_loader(data, size);
    return 0;
}
