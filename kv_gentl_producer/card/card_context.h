// The card context: what every upper layer holds to reach one card. It joins
// the transport record of one opened card handle, the link device of the
// camera connected through it, the locks that serialise card-register and
// camera access, and the card's settings paths.
//
// Results of the operations below are 0 or the small negative codes given
// with each; callers turn them into GenTL results and log lines.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "card/pcie_device.h"
#include "gentl_base/gentl_critical.h"

class cxp_device;

inline constexpr size_t kInterfaceUserSetCount = 8;
inline constexpr size_t kDeviceUserSetCount = 32;

struct card_context {
    card_context();
    ~card_context() = default;

    card_context(const card_context &) = delete;
    card_context &operator=(const card_context &) = delete;

    // The opened card handle. Closing it is the owner's business (the
    // destructor leaves it as it is).
    ::pcie_device pcie_device;
    // The camera-link object; none while no camera is connected.
    cxp_device *link_device = nullptr;
    // Frames per second used to program the group's trigger period at DMA
    // start; 0 means 60.
    uint32_t frame_rate = 0;
    // Serialises camera register access (camera_read / camera_write).
    CGentlCritical camera_lock{CGentlCritical::kUnranked, "camera_lock"};
    // Serialises card register access (card_read_reg / card_write_reg).
    CGentlCritical card_lock{CGentlCritical::kUnranked, "card_lock"};
    // The "OpenUserSet" setting.
    uint8_t open_user_set = 0;
    // "userset_if_0" ... "userset_if_7" and "userset_dev_0" ... "userset_dev_31".
    std::array<std::string, kInterfaceUserSetCount> if_user_set_names;
    std::array<std::string, kDeviceUserSetCount> dev_user_set_names;
    // Directory of the user-set files and path of the settings file; empty
    // until set.
    std::string user_set_dir;
    std::string settings_path;
};

// --- Card registers -------------------------------------------------------

// The card address that `address` reaches through a handle serving
// `channel_index` and `group_index`: the stream block (0x2000-0x20FF) moves
// by 0x100 per channel, the group block (0x2800-0x28FF) by 0x100 per group
// and 0x0020-0x002F by 0x10 per channel; all other addresses stay.
uint32_t relocate_register(uint32_t address, uint32_t channel_index, uint32_t group_index);

// Relocated register access. Nothing is written, and 0 is read, when the
// context has no open handle.
void context_write_reg(card_context *context, uint32_t address, uint32_t value);
uint32_t context_read_reg(card_context *context, uint32_t address);

// Card register access under card_lock, for the register maps of the
// modules. `data` holds `size` bytes (at most 4) of a little-endian word.
// card_write_reg: 0; -1 context, handle, data or size missing; -2 size
// above 4. card_read_reg: 0 (a size above 4 copies nothing); -1 context,
// handle, data or size missing; -1015 when the access fails.
int card_write_reg(card_context *context, uint32_t address, const void *data, uint32_t size);
int card_read_reg(card_context *context, uint32_t address, void *data, uint64_t size);

// --- Camera memory --------------------------------------------------------

inline constexpr uint32_t kCameraChunkSize = 100;
inline constexpr uint32_t kCameraStrideLimit = 512;

// Modes of camera_read.
inline constexpr uint32_t kCameraReadString = 1;

// Writes `size` bytes to camera memory under camera_lock, in chunks of
// `chunk_size` bytes (0: 100). Each word is byte-swapped unless `raw`.
// 0 or the link device's error; -1006 no context or handle; -1010 no link
// device; -1009 data or size missing.
int camera_write(card_context *context, uint32_t address, const void *data, uint32_t size,
                 bool raw, uint32_t chunk_size = 0);

// Reads camera memory under camera_lock. `size` is in/out.
//   mode kCameraReadString: a NUL-terminated text (the description-file URL);
//     `size` becomes its length. -2 when a word cannot be read.
//   other modes, size up to 100: one read (swapped unless `raw`); -1 on failure.
//   other modes, larger sizes: the description file, read in `stride`-byte
//     chunks (at most 512); a read that runs past the end of the file ends at
//     its closing tag, and `size` becomes what was read. -3 when the camera
//     reports the address unknown, else the link device's error.
// -1 when the context, handle, link device, data or size is missing.
int camera_read(card_context *context, uint32_t address, void *data, uint64_t *size,
                uint32_t mode, bool raw, uint32_t stride);

// True when a camera is connected and reachable; when not, logs
// "camera is not online".
bool camera_is_online(card_context *context);
// True while every card link of the camera's connection still reports the
// camera, read from the card's link status registers under camera_lock (no
// control packet is sent). False without a connected camera.
bool camera_links_up(card_context *context);

// --- DMA ------------------------------------------------------------------

// The stream parameters as the data stream fills them.
enum dma_param_word : size_t {
    kParamStreamId1 = 0,
    kParamStreamId2 = 1,
    kParamWidth = 2,
    kParamLinesPerFrame = 3,
    kParamLineFactor = 4,
    kParamStride = 5,
    kParamStrideCopy = 6,
    kParamTapGeometry = 7,
};
using dma_param_block = std::array<uint32_t, 8>;

// Tap geometry code with which the second stream ID is used as given.
inline constexpr uint32_t kDualStreamTapGeometry = 65;
// Second stream ID when only one stream is used.
inline constexpr uint32_t kUnusedStreamId = 255;

// Programs the stream block of the context's channel and hands the stream
// parameters to the driver. 0; -1 no context or handle, or the driver
// refused; -11 out of memory.
int dma_set_param(card_context *context, const dma_param_block &block);

// Starts DMA over the buffers (index i = addresses[i]) and, when the card's
// trigger generator of the group is enabled and idle, starts it. 0; -1 bad
// arguments; -4 DMA did not start (DMA is left stopped).
int dma_start(card_context *context, const uint64_t *addresses, uint32_t count,
              uint32_t payload_size);
// 0; -1 no context or handle, or the driver refused.
int dma_stop(card_context *context);
// 0; -1 no context; -2 no handle; -3 the driver refused.
int dma_queue_buffer(card_context *context, uint32_t index);
// The oldest completed buffer and the pending count (that one included).
// 0; -1 on any failure.
int dma_get_frame(card_context *context, uint32_t *index, uint32_t *pending);

// Sleeps `milliseconds` with a 1 ms timer resolution.
void sleep_ms(uint32_t milliseconds);
