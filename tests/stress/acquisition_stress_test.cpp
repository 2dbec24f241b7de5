// Two consumer threads waiting for buffers and queueing them again at full
// rate while the main thread starts and stops the acquisition several
// times: every buffer is delivered once per frame, none twice.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>
#include <vector>



#include "api_fixture.h"
#include "consumer_session.h"
#include "private_gentl_dir.h"

namespace {

using pelorin::testing_support::awaiting_delivery;
using pelorin::testing_support::kFastCardsProfile;
using pelorin::testing_support::private_gentl_dir;

class AcquisitionStress : public DeviceTest {
protected:
    private_gentl_dir dir_{PELORIN_CTI_PATH};

    // Frames as fast as the consumers queue buffers.
    void SetUp() override { dir_.use_emulation(kFastCardsProfile); }

    // Whether, within 10 s, the output queue stayed empty for two looks in a
    // row with every buffer taken also queued again.
    bool ConsumersDrained(const std::atomic<uint64_t> &taken, const std::atomic<uint64_t> &requeued) {
        int quiet = 0;
        for (int i = 0; i < 200 && quiet < 2; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            quiet = awaiting_delivery(api, stream_) == 0 && taken == requeued ? quiet + 1 : 0;
        }
        return quiet == 2;
    }
};

TEST_F(AcquisitionStress, TwoConsumersThroughStartStopCycles) {
    ASSERT_NO_FATAL_FAILURE(OpenCamera());
    ASSERT_EQ(api.kv_genapi_set_integer(camera_, "Width", 256), 0);
    ASSERT_EQ(api.kv_genapi_set_integer(camera_, "Height", 64), 0);
    ASSERT_NO_FATAL_FAILURE(OpenDataStream());
    for (int i = 0; i < 16; ++i) {
        BUFFER_HANDLE buffer = nullptr;
        ASSERT_EQ(api.DSAllocAndAnnounceBuffer(stream_, 256 * 64, nullptr, &buffer), GC_ERR_SUCCESS);
    }
    EVENT_HANDLE event = nullptr;
    ASSERT_EQ(api.GCRegisterEvent(stream_, EVENT_NEW_BUFFER, &event), GC_ERR_SUCCESS);

    std::mutex mutex;
    std::set<uint64_t> seen;     // frame IDs of the running cycle
    std::set<uint64_t> numbers;  // the camera's frame numbers of the running cycle
    std::atomic<uint64_t> delivered{0}, twice{0}, taken{0}, requeued{0};
    std::atomic<bool> done{false};
    const auto consume = [&] {
        while (!done) {
            EVENT_NEW_BUFFER_DATA data{};
            size_t data_size = sizeof data;
            if (api.EventGetData(event, &data, &data_size, 100) != GC_ERR_SUCCESS) continue;
            ++taken;
            uint64_t id = 0;
            size_t id_size = sizeof id;
            INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
            const uint8_t *bytes = nullptr;
            size_t base_size = sizeof bytes;
            if (api.DSGetBufferInfo(stream_, data.BufferHandle, BUFFER_INFO_FRAMEID, &type, &id, &id_size) ==
                    GC_ERR_SUCCESS &&
                api.DSGetBufferInfo(stream_, data.BufferHandle, BUFFER_INFO_BASE, &type, &bytes, &base_size) ==
                    GC_ERR_SUCCESS) {
                uint64_t number = 0;  // the camera's frame number, in its first 8 pixels
                std::memcpy(&number, bytes, sizeof number);
                std::lock_guard<std::mutex> guard(mutex);
                if (!seen.insert(id).second) ++twice;
                numbers.insert(number);
            }
            ++delivered;
            api.DSQueueBuffer(stream_, data.BufferHandle);
            ++requeued;
        }
    };
    std::vector<std::thread> consumers;
    for (int i = 0; i < 2; ++i) consumers.emplace_back(consume);

    constexpr int kCycles = 4;
    uint64_t per_cycle[kCycles] = {};
    uint64_t lost = 0;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        ASSERT_EQ(api.DSFlushQueue(stream_, ACQ_QUEUE_ALL_TO_INPUT), GC_ERR_SUCCESS);
        const uint64_t before = delivered;
        ASSERT_EQ(api.DSStartAcquisition(stream_, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
        ASSERT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStart"), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        EXPECT_EQ(api.kv_genapi_call_command(camera_, "AcquisitionStop"), 0);
        ASSERT_EQ(api.DSStopAcquisition(stream_, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
        // Let the consumers take and give back what is left (a buffer still in
        // the output queue would be queued twice by the next start's flush),
        // then start the next cycle's IDs afresh.
        ASSERT_TRUE(ConsumersDrained(taken, requeued)) << "cycle " << cycle;
        per_cycle[cycle] = delivered - before;
        std::lock_guard<std::mutex> guard(mutex);
        // The camera numbers its frames from 0 at each start, those the card
        // had no buffer for included: a gap is a lost frame.
        if (!numbers.empty()) lost += *numbers.rbegin() + 1 - numbers.size();
        seen.clear();
        numbers.clear();
    }
    done = true;
    for (std::thread &consumer : consumers) consumer.join();
    EXPECT_EQ(twice, 0u);
    EXPECT_EQ(lost, 0u);  // sixteen buffers always leave the camera one
    for (int cycle = 0; cycle < kCycles; ++cycle) EXPECT_GT(per_cycle[cycle], 0u) << "cycle " << cycle;
    std::printf("delivered %llu frames in %d cycles, %llu lost\n",
                static_cast<unsigned long long>(delivered.load()), kCycles, static_cast<unsigned long long>(lost));
    EXPECT_EQ(api.GCUnregisterEvent(stream_, EVENT_NEW_BUFFER), GC_ERR_SUCCESS);
}

}  // namespace
