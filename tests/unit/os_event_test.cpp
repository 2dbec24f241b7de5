#include "gentl_base/local_event.h"
#include "gentl_base/os_event.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

namespace {

using wait_result = os_event::wait_result;

// The driver's events (os_event, an eventfd) and the process's own
// (local_event) behave alike.
template <typename Event>
class Events : public testing::Test {};
using EventKinds = testing::Types<os_event, local_event>;
TYPED_TEST_SUITE(Events, EventKinds);

TYPED_TEST(Events, AutoResetWaitConsumesTheSignal) {
    using result = typename TypeParam::wait_result;
    TypeParam event;
    ASSERT_EQ(event.create(true, false), 0);
    EXPECT_TRUE(event.valid());
    EXPECT_TRUE(event.auto_reset());

    EXPECT_EQ(event.wait(0), result::timed_out);
    EXPECT_EQ(event.wait(20), result::timed_out);

    // Two sets before a wait still make one signal.
    EXPECT_EQ(event.set(), 0);
    EXPECT_EQ(event.set(), 0);
    EXPECT_EQ(event.wait(0), result::signalled);
    EXPECT_EQ(event.wait(0), result::timed_out);

    // Reset drops a pending signal.
    EXPECT_EQ(event.set(), 0);
    EXPECT_EQ(event.reset(), 0);
    EXPECT_EQ(event.wait(0), result::timed_out);
    EXPECT_EQ(event.reset(), 0);  // resetting a reset event is fine

    // Created signalled: one wait passes.
    TypeParam initially_set;
    ASSERT_EQ(initially_set.create(true, true), 0);
    EXPECT_EQ(initially_set.wait(0), result::signalled);
    EXPECT_EQ(initially_set.wait(0), result::timed_out);
}

TYPED_TEST(Events, ManualResetStaysSignalledUntilReset) {
    using result = typename TypeParam::wait_result;
    TypeParam event;
    ASSERT_EQ(event.create(false, true), 0);
    EXPECT_FALSE(event.auto_reset());
    EXPECT_EQ(event.wait(0), result::signalled);
    EXPECT_EQ(event.wait(0), result::signalled);
    EXPECT_EQ(event.reset(), 0);
    EXPECT_EQ(event.wait(0), result::timed_out);
    EXPECT_EQ(event.set(), 0);
    EXPECT_EQ(event.wait(TypeParam::kInfinite), result::signalled);
}

TYPED_TEST(Events, ExactlyOneOfSeveralWaitersWins) {
    using result = typename TypeParam::wait_result;
    TypeParam event;
    ASSERT_EQ(event.create(true, false), 0);
    constexpr int kWaiters = 4;
    std::atomic<int> signalled{0};
    std::atomic<int> timed_out{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.emplace_back([&] {
            const result outcome = event.wait(300);
            if (outcome == result::signalled) ++signalled;
            if (outcome == result::timed_out) ++timed_out;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(event.set(), 0);
    for (std::thread &t : waiters) t.join();
    EXPECT_EQ(signalled.load(), 1);
    EXPECT_EQ(timed_out.load(), kWaiters - 1);
}

// Two threads hand a token back and forth through two auto-reset events, the
// way the delivery thread and a consumer hand buffers: a lost or doubled
// signal shows as a time-out or as a token seen twice.
TYPED_TEST(Events, PingPongLosesNoSignal) {
    using result = typename TypeParam::wait_result;
    TypeParam ping, pong;
    ASSERT_EQ(ping.create(true, false), 0);
    ASSERT_EQ(pong.create(true, false), 0);
    constexpr int kRounds = 5000;
    std::atomic<int> token{0};
    std::atomic<int> failures{0};
    std::thread other([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (ping.wait(2000) != result::signalled || token.load() != 2 * i + 1) {
                ++failures;
                return;
            }
            token.store(2 * i + 2);
            pong.set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        token.store(2 * i + 1);
        ping.set();
        if (pong.wait(2000) != result::signalled || token.load() != 2 * i + 2) {
            ++failures;
            break;
        }
    }
    ping.set();  // releases the other thread if this one gave up
    other.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(token.load(), 2 * kRounds);
    EXPECT_EQ(ping.wait(0), result::signalled);  // only the release above is left
    EXPECT_EQ(pong.wait(0), result::timed_out);
}

TEST(LocalEvent, ClosingFailsItsWaitersAndLaterCalls) {
    local_event never_created;
    EXPECT_FALSE(never_created.valid());
    testing::internal::CaptureStdout();
    EXPECT_EQ(never_created.set(), -EBADF);
    EXPECT_EQ(never_created.reset(), -EBADF);
    EXPECT_EQ(never_created.wait(0), local_event::wait_result::failed);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("local_event: wait on a closed event"), std::string::npos) << log;

    local_event event;
    ASSERT_EQ(event.create(true, false), 0);
    std::atomic<int> outcome{-1};
    std::thread waiter([&] { outcome = static_cast<int>(event.wait(local_event::kInfinite)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    testing::internal::CaptureStdout();
    event.close();
    waiter.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(outcome.load(), static_cast<int>(local_event::wait_result::failed));
    EXPECT_FALSE(event.valid());
}

TEST(OsEvent, SignalThroughTheHandleValueWakesABlockedWaiter) {
    os_event event;
    ASSERT_EQ(event.create(true, false), 0);
    std::atomic<int> outcome{-1};
    std::thread waiter([&] { outcome = static_cast<int>(event.wait(os_event::kInfinite)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // A driver holding only the handle value signals the event this way.
    const uint64_t one = 1;
    ASSERT_EQ(::write(event.handle_value(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    waiter.join();
    EXPECT_EQ(outcome.load(), static_cast<int>(wait_result::signalled));
    EXPECT_EQ(event.wait(0), wait_result::timed_out);
}

TEST(OsEvent, ClosedOrMovedFromEventFailsCleanly) {
    os_event never_created;
    EXPECT_FALSE(never_created.valid());
    EXPECT_EQ(never_created.handle_value(), -1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(never_created.set(), -EBADF);
    EXPECT_EQ(never_created.reset(), -EBADF);
    EXPECT_EQ(never_created.wait(0), wait_result::failed);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("os_event: wait on a closed event"), std::string::npos) << log;
    never_created.close();  // nothing to close

    os_event source;
    ASSERT_EQ(source.create(false, true), 0);
    const int fd = source.handle_value();
    os_event target(std::move(source));
    EXPECT_FALSE(source.valid());
    EXPECT_EQ(target.handle_value(), fd);
    EXPECT_EQ(target.wait(0), wait_result::signalled);

    os_event assigned;
    ASSERT_EQ(assigned.create(true, false), 0);
    assigned = std::move(target);
    EXPECT_FALSE(target.valid());
    EXPECT_EQ(assigned.handle_value(), fd);
    EXPECT_FALSE(assigned.auto_reset());

    assigned.close();
    EXPECT_FALSE(assigned.valid());
    testing::internal::CaptureStdout();
    EXPECT_EQ(assigned.wait(0), wait_result::failed);
    testing::internal::GetCapturedStdout();
}

}  // namespace
