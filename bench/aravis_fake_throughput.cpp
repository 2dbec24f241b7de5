// A peer's throughput for comparison: Aravis's fake camera, acquired through
// Aravis's own stream API with 8 buffers, Mono8 frames of several sizes. The
// fake camera paces its frames with a timer (its AcquisitionFramePeriod, in
// microseconds, at least 1000 by its GenICam description); the benchmark asks
// for the highest frame rate the description allows and then writes a period
// of 1 us straight into the camera's register, so that the fake camera sends
// as fast as its stream thread can fill buffers. Each row is the whole
// process: the fake camera's thread drawing its test pattern into the
// buffers, and the consumer popping and pushing them back.
//
// Usage: aravis_fake_throughput [SECONDS_PER_SIZE]   (default 2; 0.05 for a smoke run)
#include <arv.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_report.h"
#include "thread_cpu.h"

namespace {

using Clock = std::chrono::steady_clock;

// The fake camera's frame period register, in microseconds
// (ARV_FAKE_CAMERA_REGISTER_ACQUISITION_FRAME_PERIOD_US).
constexpr guint64 frame_period_register = 0x138;
constexpr int buffer_count = 8;

// True (and the error printed and cleared) when a call failed.
bool failed(GError *&error, const std::string &what) {
    if (error == nullptr) return false;
    std::fprintf(stderr, "aravis_fake_throughput: %s: %s\n", what.c_str(), error->message);
    g_clear_error(&error);
    return true;
}

// The id of the first device of the Fake interface, empty when there is none.
std::string find_fake_device() {
    arv_enable_interface("Fake");
    arv_update_device_list();
    for (unsigned int index = 0; index < arv_get_n_devices(); ++index) {
        const char *protocol = arv_get_device_protocol(index);
        const char *id = arv_get_device_id(index);
        if (id == nullptr) continue;
        const std::string id_text = id;
        if ((protocol != nullptr && std::string(protocol) == "Fake") || id_text.rfind("Fake", 0) == 0)
            return id_text;
    }
    return {};
}

// Asks for the fastest frames the camera allows. Returns a line describing
// what was set, or empty on failure.
std::string lift_frame_rate(ArvCamera *camera) {
    GError *error = nullptr;
    std::string report;
    if (arv_camera_is_frame_rate_available(camera, &error)) {
        double low = 0, high = 0;
        arv_camera_get_frame_rate_bounds(camera, &low, &high, &error);
        if (failed(error, "frame rate bounds")) return {};
        arv_camera_set_frame_rate(camera, high, &error);
        if (failed(error, "set frame rate")) return {};
        char text[96];
        std::snprintf(text, sizeof text, "AcquisitionFrameRate set to its maximum %.0f fps", high);
        report = text;
    }
    g_clear_error(&error);
    // The description's minimum period of 1000 us is only the fake camera's
    // timer; the register takes any non-zero period.
    ArvDevice *device = arv_camera_get_device(camera);
    if (device != nullptr && ARV_IS_FAKE_DEVICE(device)) {
        if (!arv_device_write_register(device, frame_period_register, 1, &error) ||
            failed(error, "write the frame period register"))
            return report.empty() ? std::string() : report + "; the frame period register could not be written";
        report += (report.empty() ? "" : "; then ");
        report += "frame period register written to 1 us (below the described minimum of 1000 us)";
    }
    return report.empty() ? std::string("frame rate left as the camera has it") : report;
}

// Acquires frames of width x height for `seconds`; false when Aravis refused
// a step.
bool run_size(ArvCamera *camera, gint width, gint height, double seconds, pelorin_bench::Row *row) {
    GError *error = nullptr;
    arv_camera_set_region(camera, 0, 0, width, height, &error);
    if (failed(error, "set region " + std::to_string(width) + "x" + std::to_string(height))) return false;
    const guint payload = arv_camera_get_payload(camera, &error);
    if (failed(error, "payload size") || payload == 0) {
        std::fprintf(stderr, "aravis_fake_throughput: no payload size for %dx%d\n", width, height);
        return false;
    }
    ArvStream *stream = arv_camera_create_stream(camera, nullptr, nullptr, &error);
    if (failed(error, "create stream") || stream == nullptr) {
        std::fprintf(stderr, "aravis_fake_throughput: the stream cannot be created\n");
        return false;
    }
    for (int index = 0; index < buffer_count; ++index) arv_stream_push_buffer(stream, arv_buffer_new(payload, nullptr));

    arv_camera_start_acquisition(camera, &error);
    if (failed(error, "start acquisition")) {
        g_object_unref(stream);
        return false;
    }
    uint64_t frames = 0, incomplete = 0;
    const double cpu_start = pelorin_bench::process_cpu_seconds();
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(seconds));
    while (Clock::now() < end) {
        ArvBuffer *buffer = arv_stream_timeout_pop_buffer(stream, 100000);
        if (buffer == nullptr) continue;
        if (arv_buffer_get_status(buffer) == ARV_BUFFER_STATUS_SUCCESS) ++frames;
        else ++incomplete;
        arv_stream_push_buffer(stream, buffer);
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = pelorin_bench::process_cpu_seconds() - cpu_start;
    arv_camera_stop_acquisition(camera, &error);
    const bool stopped = !failed(error, "stop acquisition");
    g_object_unref(stream);  // ends the stream's thread and frees its buffers

    if (incomplete != 0)
        std::fprintf(stderr, "aravis_fake_throughput: %dx%d: %llu buffers not complete\n", width, height,
                     static_cast<unsigned long long>(incomplete));
    row->name = "aravis fake camera";
    row->frame_bytes = static_cast<double>(payload);
    row->fps = static_cast<double>(frames) / elapsed;
    row->gbps = row->fps * static_cast<double>(payload) / 1e9;
    if (frames != 0) row->cpu_us = cpu * 1e6 / static_cast<double>(frames);
    return stopped;
}

}  // namespace

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    if (!(seconds > 0)) {
        std::fprintf(stderr, "usage: aravis_fake_throughput [SECONDS_PER_SIZE]\n");
        return 1;
    }
    const std::string id = find_fake_device();
    if (id.empty()) {
        std::fprintf(stderr, "aravis_fake_throughput: Aravis lists no device on its Fake interface\n");
        arv_shutdown();
        return 1;
    }
    GError *error = nullptr;
    ArvCamera *camera = arv_camera_new(id.c_str(), &error);
    if (failed(error, "open " + id) || camera == nullptr) {
        if (camera != nullptr) g_object_unref(camera);
        std::fprintf(stderr, "aravis_fake_throughput: cannot open the fake camera %s\n", id.c_str());
        arv_shutdown();
        return 1;
    }

    bool ok = true;
    std::vector<std::string> notes;
    arv_camera_set_acquisition_mode(camera, ARV_ACQUISITION_MODE_CONTINUOUS, &error);
    ok = !failed(error, "continuous acquisition");
    arv_camera_set_pixel_format(camera, ARV_PIXEL_FORMAT_MONO_8, &error);
    ok = ok && !failed(error, "Mono8");
    gint width_min = 0, width_max = 0, height_min = 0, height_max = 0;
    arv_camera_get_width_bounds(camera, &width_min, &width_max, &error);
    ok = ok && !failed(error, "width bounds");
    arv_camera_get_height_bounds(camera, &height_min, &height_max, &error);
    ok = ok && !failed(error, "height bounds");
    if (ok) {
        const std::string rate = lift_frame_rate(camera);
        ok = !rate.empty();
        if (ok) notes.push_back(rate);
    }

    if (ok) {
        pelorin_bench::print_header();
        const gint sides[] = {256, 1024, 2048, 4096};
        for (const gint side : sides) {
            const gint width = std::min(side, width_max), height = std::min(side, height_max);
            if (width != side || height != side) {
                char text[160];
                std::snprintf(text, sizeof text,
                              "%dx%d asked, the fake camera's sensor allows at most %dx%d: measured at %dx%d", side,
                              side, width_max, height_max, width, height);
                notes.push_back(text);
            }
            pelorin_bench::Row row;
            if (!run_size(camera, width, height, seconds, &row)) {
                ok = false;
                break;
            }
            pelorin_bench::print_row(row);
        }
        for (const std::string &note : notes) std::printf("note: %s\n", note.c_str());
    }
    g_object_unref(camera);
    arv_shutdown();
    return ok ? 0 : 1;
}
