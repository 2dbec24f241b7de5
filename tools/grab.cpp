// pelorin-grab: acquires frames from a camera through a GenTL producer (.cti)
// loaded the way any consumer loads it, and writes them as PNG (and raw)
// files. See usage() for the options and exit codes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gentl_loader.h"
#include "image_files.h"

namespace {

using pelorin_tools::GentlLibrary;
using Clock = std::chrono::steady_clock;

enum ExitCode {
    kExitOk = 0,
    kExitAcquisitionFailed = 1,
    kExitUsage = 2,
    kExitProducer = 3,
    kExitNoDevice = 4,
    kExitFeature = 5,
    kExitOutput = 6,
    kExitFramesLost = 7,
};

void usage(FILE *out) {
    std::fputs(
        "usage: pelorin-grab [OPTIONS] [PATH_TO_CTI]\n"
        "Acquires frames from a camera through the GenTL producer and writes them to files.\n"
        "Without PATH_TO_CTI, pelorin_cxp.cti is searched in GENICAM_GENTL64_PATH, then\n"
        "beside this tool (the installed layout or the build tree).\n"
        "\n"
        "  -d, --device N|ID       the camera: N-th camera found (from 0, over all cards),\n"
        "                          or a device ID such as device1 (first card holding it);\n"
        "                          default: the first camera\n"
        "  -n, --count N           frames to acquire (default 10; 0 with --duration: no limit)\n"
        "      --duration SECONDS  acquire for this long (stops earlier when --count is reached)\n"
        "  -o, --output DIR        write each frame as DIR/frame_NNNNNN.png (created when missing):\n"
        "                          8-bit grey, 16-bit grey (10/12-bit samples scaled, sBIT kept),\n"
        "                          RGB for RGB8/BGR8; Bayer frames as grey mosaics\n"
        "      --raw               also write the buffer bytes as DIR/frame_NNNNNN.raw\n"
        "  -b, --buffers N         buffers to announce (default 16, 1..1000)\n"
        "      --set [MODULE:]NAME=VALUE\n"
        "                          set a feature before acquiring (repeatable, in order);\n"
        "                          MODULE: remote (the camera, default), device, stream,\n"
        "                          interface, system; a command given as NAME alone is executed\n"
        "      --pixel-format FMT  the same as --set PixelFormat=FMT\n"
        "      --timeout SECONDS   give up when no frame comes for this long (default 5)\n"
        "      --strict            exit with 7 when frames were lost\n"
        "  -q, --quiet             hide the producer's log lines (shown on stderr otherwise)\n"
        "  -h, --help              this text\n"
        "\n"
        "Progress (frames, fps, GB/s, lost frames) is redrawn on a terminal and printed once\n"
        "a second otherwise. Lost frames are those the card counted but could not deliver\n"
        "(no buffer queued), from the gaps in the frame IDs.\n"
        "\n"
        "Exit codes: 0 done; 1 acquisition failed or timed out; 2 bad arguments;\n"
        "3 the producer cannot be loaded or initialised; 4 no such camera; 5 a feature\n"
        "cannot be set; 6 the output cannot be written; 7 frames lost with --strict.\n",
        out);
}

struct Setting {
    std::string module = "remote";
    std::string name;
    std::optional<std::string> value;  // none: execute the command
};

struct Options {
    std::string producer;
    std::string device;  // empty: the first camera
    uint64_t count = 10;
    bool count_given = false;
    double duration = 0;  // seconds, 0: none
    std::string output;
    bool raw = false;
    uint32_t buffers = 16;
    std::vector<Setting> settings;
    double timeout = 5;
    bool strict = false;
    bool quiet = false;
    bool help = false;
};

bool parse_number(const std::string &text, double minimum, double maximum, double *value) {
    char *end = nullptr;
    errno = 0;
    const double parsed = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !(parsed >= minimum && parsed <= maximum)) return false;
    *value = parsed;
    return true;
}

bool parse_setting(const std::string &text, Setting *setting) {
    std::string rest = text;
    const size_t colon = rest.find(':');
    const size_t equals = rest.find('=');
    if (colon != std::string::npos && (equals == std::string::npos || colon < equals)) {
        setting->module = rest.substr(0, colon);
        rest = rest.substr(colon + 1);
    }
    const size_t split = rest.find('=');
    setting->name = rest.substr(0, split);
    if (split != std::string::npos) setting->value = rest.substr(split + 1);
    static const char *const kModules[] = {"remote", "device", "stream", "interface", "system"};
    return !setting->name.empty() &&
           std::find_if(std::begin(kModules), std::end(kModules),
                        [&](const char *name) { return setting->module == name; }) != std::end(kModules);
}

// Reads the command line into *options; false with the reason in *error.
bool parse_options(int argc, char **argv, Options *options, std::string *error) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string *out) {
            if (i + 1 >= argc) {
                *error = arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        std::string text;
        double number = 0;
        if (arg == "-h" || arg == "--help") {
            options->help = true;
        } else if (arg == "-d" || arg == "--device") {
            if (!value(&options->device)) return false;
        } else if (arg == "-n" || arg == "--count") {
            if (!value(&text)) return false;
            if (!parse_number(text, 0, 1e12, &number) || number != static_cast<uint64_t>(number)) {
                *error = "--count wants a whole number of frames, not '" + text + "'";
                return false;
            }
            options->count = static_cast<uint64_t>(number);
            options->count_given = true;
        } else if (arg == "--duration") {
            if (!value(&text)) return false;
            if (!parse_number(text, 0.001, 1e7, &options->duration)) {
                *error = "--duration wants seconds above 0, not '" + text + "'";
                return false;
            }
        } else if (arg == "-o" || arg == "--output") {
            if (!value(&options->output)) return false;
            if (options->output.empty()) {
                *error = "--output wants a directory";
                return false;
            }
        } else if (arg == "--raw") {
            options->raw = true;
        } else if (arg == "-b" || arg == "--buffers") {
            if (!value(&text)) return false;
            if (!parse_number(text, 1, 1000, &number) || number != static_cast<uint32_t>(number)) {
                *error = "--buffers wants a number from 1 to 1000, not '" + text + "'";
                return false;
            }
            options->buffers = static_cast<uint32_t>(number);
        } else if (arg == "--set" || arg == "--pixel-format") {
            if (!value(&text)) return false;
            Setting setting;
            if (arg == "--pixel-format") {
                setting.name = "PixelFormat";
                setting.value = text;
            } else if (!parse_setting(text, &setting)) {
                *error = "--set wants [MODULE:]NAME=VALUE with MODULE remote, device, stream, interface "
                         "or system, not '" + text + "'";
                return false;
            }
            options->settings.push_back(setting);
        } else if (arg == "--timeout") {
            if (!value(&text)) return false;
            if (!parse_number(text, 0.001, 1e6, &options->timeout)) {
                *error = "--timeout wants seconds above 0, not '" + text + "'";
                return false;
            }
        } else if (arg == "--strict") {
            options->strict = true;
        } else if (arg == "-q" || arg == "--quiet") {
            options->quiet = true;
        } else if (!arg.empty() && arg[0] == '-') {
            *error = "unknown option " + arg;
            return false;
        } else if (options->producer.empty()) {
            options->producer = arg;
        } else {
            *error = "more than one producer path given ('" + options->producer + "' and '" + arg + "')";
            return false;
        }
    }
    if (options->count == 0 && options->duration == 0) {
        *error = "--count 0 needs --duration";
        return false;
    }
    if (options->duration > 0 && !options->count_given) options->count = 0;
    return true;
}

// Makes the output directory and proves a file can be created in it, before
// any device is opened.
bool prepare_output(const std::string &directory, std::string *error) {
    // Every missing level is made, as mkdir -p does.
    for (size_t slash = directory.find('/', 1); ; slash = directory.find('/', slash + 1)) {
        const std::string level = directory.substr(0, slash);
        if (::mkdir(level.c_str(), 0777) != 0 && errno != EEXIST) {
            *error = "cannot create the output directory " + directory + ": " + std::strerror(errno);
            return false;
        }
        if (slash == std::string::npos) break;
    }
    const std::string probe = directory + "/.pelorin-grab-probe";
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = "cannot write in the output directory " + directory + ": " + std::strerror(errno);
        return false;
    }
    ::close(fd);
    ::unlink(probe.c_str());
    return true;
}

std::string kv_error_text(GC_ERROR code) {
    switch (code) {
    case KV_ERR_NODE_NOT_FOUND:
    case KV_ERR_FEATURE_NOT_FOUND: return "no such feature";
    case KV_ERR_NOT_WRITABLE: return "the feature is not writable now";
    case KV_ERR_NOT_READABLE: return "the feature is not readable";
    case KV_ERR_NO_ACCESS: return "the feature is not available";
    case KV_ERR_NOT_COMMAND: return "the feature is not a command; give NAME=VALUE";
    case GC_ERR_INVALID_PARAMETER: return "the value is not valid for this feature";
    case KV_ERR_EXCEPTION: return "the feature refused the value";
    default: return "error " + std::to_string(code);
    }
}

// The open modules of one camera; closed in reverse order.
struct Camera {
    const GentlLibrary &api;
    TL_HANDLE system = nullptr;
    IF_HANDLE iface = nullptr;
    DEV_HANDLE device = nullptr;
    PORT_HANDLE remote = nullptr;
    DS_HANDLE stream = nullptr;
    std::string interface_id, device_id, description;

    explicit Camera(const GentlLibrary &library) : api(library) {}
    ~Camera() {
        if (stream != nullptr) api.DSClose(stream);
        if (device != nullptr) api.DevClose(device);
        if (iface != nullptr) api.IFClose(iface);
        if (system != nullptr) api.TLClose(system);
    }

    void *module(const std::string &name) const {
        if (name == "remote") return remote;
        if (name == "device") return device;
        if (name == "stream") return stream;
        if (name == "interface") return iface;
        return system;
    }
};

std::string device_text(const GentlLibrary &api, IF_HANDLE iface, const char *id, DEVICE_INFO_CMD command) {
    char text[256] = {};
    size_t size = sizeof text;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    if (api.IFGetDeviceInfo(iface, id, command, &type, text, &size) != GC_ERR_SUCCESS) return {};
    return text;
}

// Opens the interface whose device matches `wanted` (see usage) and records
// the device ID; false when no camera matches.
bool find_camera(Camera &camera, const std::string &wanted, std::string *error) {
    const GentlLibrary &api = camera.api;
    uint32_t interfaces = 0;
    if (api.TLUpdateInterfaceList(camera.system, nullptr, 1000) != GC_ERR_SUCCESS ||
        api.TLGetNumInterfaces(camera.system, &interfaces) != GC_ERR_SUCCESS) {
        *error = "the producer cannot list its cards: " + pelorin_tools::last_error(api);
        return false;
    }
    const bool by_index = !wanted.empty() && wanted.find_first_not_of("0123456789") == std::string::npos;
    uint64_t cameras_seen = 0;
    for (uint32_t i = 0; i < interfaces; ++i) {
        char id[512] = {};
        size_t size = sizeof id;
        IF_HANDLE iface = nullptr;
        if (api.TLGetInterfaceID(camera.system, i, id, &size) != GC_ERR_SUCCESS ||
            api.TLOpenInterface(camera.system, id, &iface) != GC_ERR_SUCCESS)
            continue;
        uint32_t devices = 0;
        if (api.IFUpdateDeviceList(iface, nullptr, 1000) == GC_ERR_SUCCESS &&
            api.IFGetNumDevices(iface, &devices) == GC_ERR_SUCCESS) {
            for (uint32_t d = 0; d < devices; ++d) {
                char device_id[256] = {};
                size_t device_size = sizeof device_id;
                if (api.IFGetDeviceID(iface, d, device_id, &device_size) != GC_ERR_SUCCESS) continue;
                const std::string model = device_text(api, iface, device_id, DEVICE_INFO_MODEL);
                if (model.empty()) continue;  // an empty slot
                const bool match = wanted.empty() || (by_index ? std::to_string(cameras_seen) == wanted
                                                                : wanted == device_id);
                ++cameras_seen;
                if (!match) continue;
                camera.iface = iface;
                camera.interface_id = id;
                camera.device_id = device_id;
                camera.description = device_text(api, iface, device_id, DEVICE_INFO_VENDOR) + " " + model;
                return true;
            }
        }
        api.IFClose(iface);
    }
    *error = wanted.empty() ? "no camera found (" + std::to_string(interfaces) + " card(s) searched)"
                            : "no camera '" + wanted + "' (" + std::to_string(cameras_seen) + " camera(s) on " +
                                  std::to_string(interfaces) + " card(s))";
    return false;
}

bool apply_setting(const Camera &camera, const Setting &setting, std::string *error) {
    const GentlLibrary &api = camera.api;
    void *handle = camera.module(setting.module);
    GC_ERROR result;
    if (!setting.value) {
        result = api.kv_genapi_call_command(handle, setting.name.c_str());
    } else {
        result = api.kv_genapi_set_string(handle, setting.name.c_str(), setting.value->c_str());
    }
    if (result == GC_ERR_SUCCESS) return true;
    *error = "cannot set " + setting.module + ":" + setting.name +
             (setting.value ? " to '" + *setting.value + "'" : std::string(" (command)")) + ": " +
             kv_error_text(result);
    return false;
}

template <typename T>
T buffer_info(const GentlLibrary &api, DS_HANDLE stream, BUFFER_HANDLE buffer, BUFFER_INFO_CMD command) {
    T value{};
    size_t size = sizeof value;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    api.DSGetBufferInfo(stream, buffer, command, &type, &value, &size);
    return value;
}

pelorin_tools::FrameView frame_of(const GentlLibrary &api, DS_HANDLE stream, BUFFER_HANDLE buffer) {
    pelorin_tools::FrameView frame;
    frame.bytes = buffer_info<const uint8_t *>(api, stream, buffer, BUFFER_INFO_BASE);
    frame.size = buffer_info<size_t>(api, stream, buffer, BUFFER_INFO_SIZE_FILLED);
    frame.width = buffer_info<size_t>(api, stream, buffer, BUFFER_INFO_WIDTH);
    frame.height = buffer_info<size_t>(api, stream, buffer, BUFFER_INFO_HEIGHT);
    frame.pixel_format = buffer_info<uint64_t>(api, stream, buffer, BUFFER_INFO_PIXELFORMAT);
    return frame;
}

// Writes delivered frames on a thread of its own, so that the camera is not
// held up by the disk, and hands each buffer back to the producer when its
// files are written.
class FrameWriter {
public:
    FrameWriter(const GentlLibrary &api, DS_HANDLE stream, std::string directory, bool raw)
        : api_(api), stream_(stream), directory_(std::move(directory)), raw_(raw),
          thread_([this] { run(); }) {}
    ~FrameWriter() { finish(); }

    void write(BUFFER_HANDLE buffer, uint64_t number) {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_.push_back({buffer, number});
        changed_.notify_one();
    }

    // Waits until every frame handed over is written.
    void finish() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finishing_ = true;
            changed_.notify_one();
        }
        if (thread_.joinable()) thread_.join();
    }

    uint64_t written() const { return written_.load(); }
    std::string error() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return error_;
    }
    std::string file_name(uint64_t number, const char *extension) const {
        char name[64];
        std::snprintf(name, sizeof name, "frame_%06llu.%s", static_cast<unsigned long long>(number), extension);
        return name;
    }

private:
    struct Job {
        BUFFER_HANDLE buffer;
        uint64_t number;
    };

    void run() {
        for (;;) {
            Job job{};
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return finishing_ || !pending_.empty(); });
                if (pending_.empty()) return;
                job = pending_.front();
                pending_.pop_front();
            }
            write_files(job);
            api_.DSQueueBuffer(stream_, job.buffer);
        }
    }

    void write_files(const Job &job) {
        if (!error().empty()) return;  // after the first failure the frames are only handed back
        const pelorin_tools::FrameView frame = frame_of(api_, stream_, job.buffer);
        std::string failure;
        const bool png_possible = pelorin_tools::png_layout_for(frame.pixel_format).bit_depth != 0;
        bool ok = true;
        if (png_possible)
            ok = pelorin_tools::write_png(directory_ + "/" + file_name(job.number, "png"), frame, &failure);
        if (ok && (raw_ || !png_possible))
            ok = pelorin_tools::write_raw(directory_ + "/" + file_name(job.number, "raw"), frame, &failure);
        if (!ok) {
            std::lock_guard<std::mutex> lock(mutex_);
            error_ = failure;
            return;
        }
        ++written_;
    }

    const GentlLibrary &api_;
    DS_HANDLE stream_;
    const std::string directory_;
    const bool raw_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> pending_;
    bool finishing_ = false;
    std::string error_;
    std::atomic<uint64_t> written_{0};
    std::thread thread_;  // last: starts once the members above exist
};

// What the acquisition saw.
struct Tally {
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t first_id = 0, last_id = 0;
    Clock::time_point start;
    std::optional<Clock::time_point> end;  // set when the last frame is in

    // The frame ID is the delivery count plus the card's frame counter, so
    // each delivered frame adds 2 and each frame the card could not deliver
    // adds 1 more.
    uint64_t lost() const {
        if (frames < 2 || last_id < first_id) return 0;
        const uint64_t span = last_id - first_id;
        return span > 2 * (frames - 1) ? span - 2 * (frames - 1) : 0;
    }
    double seconds() const { return std::chrono::duration<double>(end.value_or(Clock::now()) - start).count(); }
};

class Progress {
public:
    Progress(FILE *out, const Options &options)
        : out_(out), options_(options), terminal_(::isatty(::fileno(out)) == 1), shown_(Clock::now()) {}

    void update(const Tally &tally, bool last) {
        const Clock::time_point now = Clock::now();
        const auto interval = terminal_ ? std::chrono::milliseconds(200) : std::chrono::milliseconds(1000);
        if (!last && now - shown_ < interval) return;
        if (last && !terminal_ && tally.frames == shown_frames_) return;
        shown_ = now;
        shown_frames_ = tally.frames;
        const double seconds = std::max(tally.seconds(), 1e-9);
        double done = 0;
        if (options_.count != 0) done = static_cast<double>(tally.frames) / static_cast<double>(options_.count);
        if (options_.duration > 0) done = std::max(done, seconds / options_.duration);
        done = std::min(done, 1.0);
        std::string bar;
        if (terminal_) {
            const int filled = static_cast<int>(done * 30);
            bar = "[" + std::string(filled, '#') + std::string(30 - filled, '-') + "] ";
        }
        std::fprintf(out_, "%s%s%llu frames  %.1f fps  %.3f GB/s  lost %llu%s", terminal_ ? "\r" : "", bar.c_str(),
                     static_cast<unsigned long long>(tally.frames), static_cast<double>(tally.frames) / seconds,
                     static_cast<double>(tally.bytes) / seconds / 1e9,
                     static_cast<unsigned long long>(tally.lost()), terminal_ ? (last ? "\n" : "  ") : "\n");
        std::fflush(out_);
    }

private:
    FILE *out_;
    const Options &options_;
    const bool terminal_;
    Clock::time_point shown_;
    uint64_t shown_frames_ = 0;
};

struct Grabbed {
    Tally tally;
    std::string failure;  // empty: the acquisition ran to its end
    std::string output_failure;  // empty: every frame was written
    uint64_t width = 0, height = 0, pixel_format = 0, payload = 0;
};

bool announce_buffers(const GentlLibrary &api, DS_HANDLE stream, uint32_t count, uint64_t payload,
                      std::string *error) {
    for (uint32_t i = 0; i < count; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        const GC_ERROR result = api.DSAllocAndAnnounceBuffer(stream, payload, nullptr, &buffer);
        if (result != GC_ERR_SUCCESS || api.DSQueueBuffer(stream, buffer) != GC_ERR_SUCCESS) {
            *error = "cannot allocate buffer " + std::to_string(i + 1) + " of " + std::to_string(payload) +
                     " bytes: " + pelorin_tools::last_error(api);
            return false;
        }
    }
    return true;
}

bool keep_going(const Options &options, const Tally &tally) {
    if (options.count != 0 && tally.frames >= options.count) return false;
    return options.duration == 0 || tally.seconds() < options.duration;
}

// Waits for frames and hands them to the writer (or straight back to the
// producer) until the count or the duration is reached.
void acquisition_loop(const Camera &camera, const Options &options, EVENT_HANDLE event, FrameWriter *writer,
                      Progress &progress, Grabbed &grabbed) {
    const GentlLibrary &api = camera.api;
    Clock::time_point last_frame = Clock::now();
    while (keep_going(options, grabbed.tally)) {
        EVENT_NEW_BUFFER_DATA data{};
        size_t size = sizeof data;
        const GC_ERROR result = api.EventGetData(event, &data, &size, 200);
        if (result == GC_ERR_TIMEOUT) {
            if (std::chrono::duration<double>(Clock::now() - last_frame).count() > options.timeout) {
                grabbed.failure = "no frame came for " + std::to_string(options.timeout) + " s";
                return;
            }
            progress.update(grabbed.tally, false);
            continue;
        }
        if (result != GC_ERR_SUCCESS) {
            grabbed.failure = "waiting for a frame failed: " + std::to_string(result);
            return;
        }
        last_frame = Clock::now();
        Tally &tally = grabbed.tally;
        const uint64_t id = buffer_info<uint64_t>(api, camera.stream, data.BufferHandle, BUFFER_INFO_FRAMEID);
        if (tally.frames == 0) {
            const pelorin_tools::FrameView frame = frame_of(api, camera.stream, data.BufferHandle);
            grabbed.width = frame.width;
            grabbed.height = frame.height;
            grabbed.pixel_format = frame.pixel_format;
            tally.first_id = id;
        }
        tally.last_id = id;
        ++tally.frames;
        tally.bytes += grabbed.payload;
        if (writer != nullptr) writer->write(data.BufferHandle, tally.frames);
        else api.DSQueueBuffer(camera.stream, data.BufferHandle);
        progress.update(tally, false);
    }
}

Grabbed grab(const Camera &camera, const Options &options, FILE *out) {
    const GentlLibrary &api = camera.api;
    Grabbed grabbed;
    size_t size = sizeof grabbed.payload;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    if (api.DSGetInfo(camera.stream, STREAM_INFO_PAYLOAD_SIZE, &type, &grabbed.payload, &size) != GC_ERR_SUCCESS ||
        grabbed.payload == 0) {
        grabbed.failure = "the stream has no payload size: " + pelorin_tools::last_error(api);
        return grabbed;
    }
    if (!announce_buffers(api, camera.stream, options.buffers, grabbed.payload, &grabbed.failure)) return grabbed;
    EVENT_HANDLE event = nullptr;
    if (api.GCRegisterEvent(camera.stream, EVENT_NEW_BUFFER, &event) != GC_ERR_SUCCESS ||
        api.DSStartAcquisition(camera.stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE) != GC_ERR_SUCCESS ||
        api.kv_genapi_call_command(camera.remote, "AcquisitionStart") != GC_ERR_SUCCESS) {
        grabbed.failure = "the acquisition cannot start: " + pelorin_tools::last_error(api);
        api.DSStopAcquisition(camera.stream, ACQ_STOP_FLAGS_DEFAULT);
        return grabbed;
    }
    std::optional<FrameWriter> writer;
    if (!options.output.empty()) writer.emplace(api, camera.stream, options.output, options.raw);
    Progress progress(out, options);
    grabbed.tally.start = Clock::now();
    acquisition_loop(camera, options, event, writer ? &*writer : nullptr, progress, grabbed);
    grabbed.tally.end = Clock::now();  // the rates leave out stopping and the last files
    api.kv_genapi_call_command(camera.remote, "AcquisitionStop");
    api.DSStopAcquisition(camera.stream, ACQ_STOP_FLAGS_DEFAULT);
    progress.update(grabbed.tally, true);
    if (writer) {
        writer->finish();
        grabbed.output_failure = writer->error();
    }
    api.GCUnregisterEvent(camera.stream, EVENT_NEW_BUFFER);
    return grabbed;
}

void print_summary(FILE *out, const Options &options, const Grabbed &grabbed) {
    const Tally &tally = grabbed.tally;
    const double seconds = std::max(tally.seconds(), 1e-9);
    std::fprintf(out, "Acquired %llu frame(s) of %llu x %llu %s (%llu bytes) in %.3f s: %.1f fps, %.3f GB/s, %llu lost\n",
                 static_cast<unsigned long long>(tally.frames), static_cast<unsigned long long>(grabbed.width),
                 static_cast<unsigned long long>(grabbed.height),
                 pelorin_tools::pixel_format_name(grabbed.pixel_format).c_str(),
                 static_cast<unsigned long long>(grabbed.payload), seconds,
                 static_cast<double>(tally.frames) / seconds, static_cast<double>(tally.bytes) / seconds / 1e9,
                 static_cast<unsigned long long>(tally.lost()));
    if (options.output.empty() || tally.frames == 0) return;
    const bool png = pelorin_tools::png_layout_for(grabbed.pixel_format).bit_depth != 0;
    char resolved[PATH_MAX];
    const std::string where = ::realpath(options.output.c_str(), resolved) != nullptr ? resolved : options.output;
    std::fprintf(out, "Images: %s/frame_%06d.%s .. frame_%06llu.%s%s\n", where.c_str(), 1, png ? "png" : "raw",
                 static_cast<unsigned long long>(tally.frames), png ? "png" : "raw",
                 png && options.raw ? " (and .raw)" : "");
}

int fail(int code, const std::string &message) {
    std::fprintf(stderr, "pelorin-grab: %s\n", message.c_str());
    return code;
}

int run(const Options &options, FILE *out) {
    std::string error;
    if (!options.output.empty() && !prepare_output(options.output, &error)) return fail(kExitOutput, error);
    const std::string path = options.producer.empty() ? pelorin_tools::default_producer_path() : options.producer;
    if (path.empty()) return fail(kExitProducer, "no producer found: set GENICAM_GENTL64_PATH or name the .cti");
    GentlLibrary api;
    if (!api.load(path, &error)) return fail(kExitProducer, error);
    if (const GC_ERROR init = api.GCInitLib(); init != GC_ERR_SUCCESS)
        return fail(kExitProducer, "the producer did not start (GCInitLib answered " + std::to_string(init) +
                                       "); it does not start when no card is found, its log lines tell why");
    int code = kExitOk;
    {
        Camera camera(api);
        if (api.TLOpen(&camera.system) != GC_ERR_SUCCESS) {
            code = fail(kExitProducer, "TLOpen failed: " + pelorin_tools::last_error(api));
        } else if (!find_camera(camera, options.device, &error)) {
            code = fail(kExitNoDevice, error);
        } else if (api.IFOpenDevice(camera.iface, camera.device_id.c_str(), DEVICE_ACCESS_EXCLUSIVE,
                                    &camera.device) != GC_ERR_SUCCESS ||
                   api.DevGetPort(camera.device, &camera.remote) != GC_ERR_SUCCESS ||
                   api.DevOpenDataStream(camera.device, "stream0", &camera.stream) != GC_ERR_SUCCESS) {
            code = fail(kExitNoDevice, "cannot open " + camera.device_id + " (" + camera.description +
                                           "): " + pelorin_tools::last_error(api));
        } else {
            for (const Setting &setting : options.settings) {
                if (!apply_setting(camera, setting, &error)) {
                    code = fail(kExitFeature, error);
                    break;
                }
            }
        }
        if (code == kExitOk) {
            std::fprintf(out, "Camera %s on %s: %s\n", camera.device_id.c_str(), camera.interface_id.c_str(),
                         camera.description.c_str());
            std::fflush(out);
            const Grabbed grabbed = grab(camera, options, out);
            print_summary(out, options, grabbed);
            if (!grabbed.failure.empty()) {
                code = fail(kExitAcquisitionFailed, grabbed.failure);
            } else if (!grabbed.output_failure.empty()) {
                code = fail(kExitOutput, grabbed.output_failure);
            } else if (options.strict && grabbed.tally.lost() != 0) {
                code = fail(kExitFramesLost, std::to_string(grabbed.tally.lost()) + " frame(s) lost");
            }
        }
    }
    api.GCCloseLib();
    return code;
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    std::string error;
    if (!parse_options(argc, argv, &options, &error)) {
        std::fprintf(stderr, "pelorin-grab: %s (see --help)\n", error.c_str());
        return kExitUsage;
    }
    if (options.help) {
        usage(stdout);
        return kExitOk;
    }
    FILE *out = pelorin_tools::separate_producer_log(options.quiet);
    if (out == nullptr) out = stdout;
    const int code = run(options, out);
    std::fflush(out);
    return code;
}
