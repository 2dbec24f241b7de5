// Many consumer threads calling into the library at once: no deadlock, every
// answer one of the codes the call can give.
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "api_fixture.h"

TEST_F(ProducerTest, ConcurrentCallsFromManyThreadsNeitherDeadlockNorMisanswer) {
    InitLib();
    std::atomic<int> unexpected{0};
    std::atomic<bool> stop{false};
    auto expect_in = [&](GC_ERROR result, std::initializer_list<GC_ERROR> allowed) {
        if (std::set<GC_ERROR>(allowed).count(result) == 0) ++unexpected;
    };

    std::vector<std::thread> threads;
    // One thread opens and closes the system over and over.
    threads.emplace_back([&] {
        for (int i = 0; i < 300; ++i) {
            TL_HANDLE tl = nullptr;
            const GC_ERROR opened = api.TLOpen(&tl);
            expect_in(opened, {GC_ERR_SUCCESS});
            if (opened == GC_ERR_SUCCESS) expect_in(api.TLClose(tl), {GC_ERR_SUCCESS});
        }
        stop = true;
    });
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            char buffer[256];
            while (!stop) {
                size_t size = sizeof buffer;
                INFO_DATATYPE type = 0;
                expect_in(api.GCGetInfo(t % 11, &type, buffer, &size), {GC_ERR_SUCCESS});
                size = sizeof buffer;
                GC_ERROR code = 0;
                expect_in(api.GCGetLastError(&code, buffer, &size), {GC_ERR_SUCCESS});
                size = sizeof buffer;
                expect_in(api.GCReadPort(reinterpret_cast<void *>(0x1000 + t), 0, buffer, &size),
                          {GC_ERR_NOT_AVAILABLE, GC_ERR_NOT_INITIALIZED});
                uint32_t count = 0;
                expect_in(api.IFGetNumDevices(reinterpret_cast<void *>(0x2000 + t), &count),
                          {GC_ERR_INVALID_HANDLE});
                expect_in(api.DSQueueBuffer(reinterpret_cast<void *>(0x3000 + t), nullptr),
                          {GC_ERR_INVALID_HANDLE});
                int64_t value = 0;
                expect_in(api.kv_genapi_get_integer(reinterpret_cast<void *>(0x4000), "Width", &value),
                          {GC_ERR_NOT_AVAILABLE, GC_ERR_NOT_INITIALIZED});
                size = sizeof buffer;
                expect_in(api.EventGetData(reinterpret_cast<void *>(0x5000), buffer, &size, 0),
                          {GC_ERR_INVALID_HANDLE});
            }
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(unexpected.load(), 0);
}
