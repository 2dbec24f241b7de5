// The data stream of an emulated camera through the exported API: opening
// and closing it, its info and port, and the buffer pool with its queues.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "api_fixture.h"

namespace {

class DataStream : public DeviceTest {
protected:

    void OpenStream() {
        OpenDevice();
        if (!HasFatalFailure()) OpenDataStream();
    }
    uint64_t StreamCount(STREAM_INFO_CMD command) {
        uint64_t value = ~0ull;
        size_t size = sizeof value;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.DSGetInfo(stream_, command, &type, &value, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(type, INFO_DATATYPE_SIZET);
        return value;
    }
    template <typename T>
    T BufferInfo(BUFFER_HANDLE buffer, BUFFER_INFO_CMD command) {
        T value{};
        size_t size = sizeof value;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        EXPECT_EQ(api.DSGetBufferInfo(stream_, buffer, command, &type, &value, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, sizeof value);
        return value;
    }
};

TEST_F(DataStream, OpensOnceAnswersItsInfoAndClosesWithItsDevice) {
    OpenStream();
    DS_HANDLE other = nullptr;
    EXPECT_EQ(api.DevOpenDataStream(device_, "stream0", &other), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.DevOpenDataStream(device_, "stream1", &other), GC_ERR_INVALID_ID);
    EXPECT_EQ(api.DevOpenDataStream(device_, nullptr, &other), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.DevOpenDataStream(device_, "stream0", nullptr), GC_ERR_INVALID_PARAMETER);
    DEV_HANDLE parent = nullptr;
    ASSERT_EQ(api.DSGetParentDev(stream_, &parent), GC_ERR_SUCCESS);
    EXPECT_EQ(parent, device_);

    char text[32] = {};
    size_t size = sizeof text;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    ASSERT_EQ(api.DSGetInfo(stream_, STREAM_INFO_ID, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "stream0");
    size = 0;
    ASSERT_EQ(api.DSGetInfo(stream_, STREAM_INFO_TLTYPE, &type, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, 4u);  // "CXP" and its terminator
    EXPECT_EQ(StreamCount(STREAM_INFO_BUF_ANNOUNCE_MIN), 2u);
    uint8_t flag = 7;
    size = 1;
    ASSERT_EQ(api.DSGetInfo(stream_, STREAM_INFO_IS_GRABBING, &type, &flag, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(api.DSGetInfo(stream_, STREAM_INFO_NUM_DELIVERED, &type, text, &size),
              GC_ERR_NOT_IMPLEMENTED);

    // The stream port: one URL, and the announced count as a register.
    uint32_t urls = 0;
    ASSERT_EQ(api.GCGetNumPortURLs(stream_, &urls), GC_ERR_SUCCESS);
    EXPECT_EQ(urls, 1u);
    BUFFER_HANDLE buffer = nullptr;
    ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 4096, nullptr, &buffer), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSQueueBuffer(stream_, buffer), GC_ERR_SUCCESS);
    uint64_t announced = 0;
    size = sizeof announced;
    ASSERT_EQ(api.GCReadPort(stream_, 0x4E0002FFFF0001ull, &announced, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(announced, 1u);
    // The producer's feature calls reach the stream's node map.
    int64_t count = 0;
    ASSERT_EQ(api.kv_genapi_get_integer(stream_, "StreamAnnouncedBufferCount", &count), 0);
    EXPECT_EQ(count, 1);
    uint64_t length = sizeof text;
    ASSERT_EQ(api.kv_genapi_get_string(stream_, "StreamID", text, &length), 0);
    EXPECT_STREQ(text, "stream0");

    // Closed, the handle is gone and the stream can be opened again.
    ASSERT_EQ(api.DSClose(stream_), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSGetInfo(stream_, STREAM_INFO_ID, &type, text, &size), GC_ERR_INVALID_HANDLE);
    ASSERT_EQ(api.DevOpenDataStream(device_, "stream0", &stream_), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 4096, nullptr, &buffer), GC_ERR_SUCCESS);
    // Closing the device closes its stream and frees the stream's buffers.
    ASSERT_EQ(api.DevClose(device_), GC_ERR_SUCCESS);
    device_ = nullptr;
    EXPECT_EQ(api.DSGetInfo(stream_, STREAM_INFO_ID, &type, text, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DSClose(stream_), GC_ERR_INVALID_HANDLE);
}

TEST_F(DataStream, BuffersMoveThroughTheQueuesByTheRules) {
    OpenStream();
    std::vector<uint8_t> memory(3 * 1024);
    int cookies[3] = {};
    BUFFER_HANDLE mine[3] = {};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(api.DSAnnounceBuffer(stream_, &memory[i * 1024], 1024, &cookies[i], &mine[i]),
                  GC_ERR_SUCCESS);
    BUFFER_HANDLE twice = nullptr;
    EXPECT_EQ(api.DSAnnounceBuffer(stream_, &memory[0], 1024, nullptr, &twice), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.DSAnnounceBuffer(stream_, nullptr, 1024, nullptr, &twice), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.DSAnnounceBuffer(stream_, &memory[0], 0, nullptr, &twice), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 0, nullptr, &twice), GC_ERR_INVALID_PARAMETER);
    BUFFER_HANDLE ours[2] = {};
    int cookie = 0;
    for (BUFFER_HANDLE &buffer : ours)
        ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 2048, &cookie, &buffer), GC_ERR_SUCCESS);
    auto *base = BufferInfo<uint8_t *>(ours[0], BUFFER_INFO_BASE);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(std::count(base, base + 2048, 0x80), 2048);
    EXPECT_EQ(BufferInfo<uint64_t>(ours[0], BUFFER_INFO_SIZE), 2048u);
    EXPECT_EQ(BufferInfo<void *>(mine[1], BUFFER_INFO_USER_PTR), &cookies[1]);
    EXPECT_EQ(BufferInfo<uint8_t>(mine[1], BUFFER_INFO_IS_QUEUED), 0);
    EXPECT_EQ(BufferInfo<uint64_t>(mine[1], BUFFER_INFO_PIXELFORMAT_NAMESPACE),
              uint64_t{PIXELFORMAT_NAMESPACE_PFNC_32BIT});
    uint64_t value = 0;
    size_t size = sizeof value;
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    EXPECT_EQ(api.DSGetBufferInfo(stream_, mine[1], BUFFER_INFO_TIMESTAMP_NS, &type, &value, &size),
              GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.DSGetBufferInfo(stream_, &memory[0], BUFFER_INFO_SIZE, &type, &value, &size),
              GC_ERR_INVALID_HANDLE);

    // Five announced, two queued, none filled.
    ASSERT_EQ(api.DSQueueBuffer(stream_, mine[0]), GC_ERR_SUCCESS);
    ASSERT_EQ(api.DSQueueBuffer(stream_, ours[1]), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSQueueBuffer(stream_, mine[0]), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.DSQueueBuffer(stream_, &memory[0]), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_ANNOUNCED), 2u);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_QUEUED), 2u);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_AWAIT_DELIVERY), 0u);

    EXPECT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_INPUT_TO_OUTPUT), GC_ERR_SUCCESS);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_QUEUED), 2u);
    EXPECT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_TO_INPUT), GC_ERR_SUCCESS);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_QUEUED), 5u);  // each buffer once
    EXPECT_EQ(api.DSRevokeBuffer(stream_, mine[2], nullptr, nullptr), GC_ERR_BUSY);
    EXPECT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_OUTPUT_DISCARD), GC_ERR_SUCCESS);
    EXPECT_EQ(StreamCount(STREAM_INFO_NUM_QUEUED), 0u);
    EXPECT_EQ(api.DSFlushQueue(stream_, static_cast<ACQ_QUEUE_TYPE>(5)), GC_ERR_NOT_IMPLEMENTED);
    ASSERT_EQ(api.DSQueueBuffer(stream_, mine[2]), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSRevokeBuffer(stream_, mine[2], nullptr, nullptr), GC_ERR_BUSY);
    EXPECT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_DISCARD), GC_ERR_SUCCESS);

    // Revoked: a consumer buffer gives its memory back, ours gives none.
    void *memory_back = nullptr;
    void *private_back = nullptr;
    ASSERT_EQ(api.DSRevokeBuffer(stream_, mine[2], &memory_back, &private_back), GC_ERR_SUCCESS);
    EXPECT_EQ(memory_back, &memory[2048]);
    EXPECT_EQ(private_back, &cookies[2]);
    memory_back = &cookie;
    ASSERT_EQ(api.DSRevokeBuffer(stream_, ours[0], &memory_back, &private_back), GC_ERR_SUCCESS);
    EXPECT_EQ(memory_back, nullptr);
    EXPECT_EQ(private_back, &cookie);
    EXPECT_EQ(api.DSRevokeBuffer(stream_, ours[0], nullptr, nullptr), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DSRevokeBuffer(stream_, nullptr, nullptr, nullptr), GC_ERR_INVALID_HANDLE);
}

TEST_F(DataStream, TenThousandBuffersAtMost) {
    OpenStream();
    std::vector<uint8_t> memory(10001);
    BUFFER_HANDLE first = nullptr;
    BUFFER_HANDLE buffer = nullptr;
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(api.DSAnnounceBuffer(stream_, &memory[i], 1, nullptr, &buffer), GC_ERR_SUCCESS) << i;
        if (i == 0) first = buffer;
    }
    EXPECT_EQ(api.DSAnnounceBuffer(stream_, &memory[10000], 1, nullptr, &buffer), GC_ERR_OUT_OF_MEMORY);
    EXPECT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 1, nullptr, &buffer), GC_ERR_OUT_OF_MEMORY);
    ASSERT_EQ(api.DSRevokeBuffer(stream_, first, nullptr, nullptr), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSAnnounceBuffer(stream_, &memory[10000], 1, nullptr, &buffer), GC_ERR_SUCCESS);
    // Allocations beyond nine tenths of the machine's memory are refused.
    EXPECT_EQ(api.DSRevokeBuffer(stream_, buffer, nullptr, nullptr), GC_ERR_SUCCESS);
    EXPECT_EQ(api.DSAllocAndAnnounceBuffer(stream_, SIZE_MAX / 2, nullptr, &buffer), GC_ERR_OUT_OF_MEMORY);
}

}  // namespace
