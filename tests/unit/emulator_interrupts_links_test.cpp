// Interrupt sources and link binding of the emulated card.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <memory>

#include "emulator_client.h"

namespace {

using emu_test::client;
using emu_test::event_fd;
using emu_test::take_signals;
using emu_test::words;
using pelorin::emu::kCodeRegisterEvent;
using pelorin::emu::kCodeUnregisterEvent;
using pelorin::emu::link_binding;
using pelorin::emu::pcie_bus;

TEST(EmulatorInterrupts, SourcesSignalTheCardsOwnReferenceToTheEvent) {
    pcie_bus bus;
    client host(bus);
    client other(bus);
    const auto card = bus.card(0);

    auto producer_event = std::make_unique<event_fd>();
    ASSERT_EQ(host.register_event(4, static_cast<uint64_t>(producer_event->fd)), 0);
    EXPECT_TRUE(card->event_registered(4));
    EXPECT_TRUE(card->raise_interrupt(4));
    EXPECT_TRUE(card->raise_interrupt(4));
    EXPECT_EQ(take_signals(producer_event->fd), 2u);
    EXPECT_FALSE(card->raise_interrupt(5));
    EXPECT_FALSE(card->raise_interrupt(32));

    // The producer closes its descriptor first (as its unregister does); a
    // new eventfd that gets the same number is never signalled by the card.
    const int number = producer_event->fd;
    producer_event->close();
    event_fd reused;
    if (reused.fd != number) {
        ASSERT_EQ(::dup2(reused.fd, number), number);
        ::close(reused.fd);
        reused.fd = number;
    }
    EXPECT_TRUE(card->raise_interrupt(4));
    EXPECT_EQ(take_signals(reused.fd), 0u);

    // Refused registrations.
    EXPECT_EQ(host.register_event(4, static_cast<uint64_t>(reused.fd)), -EBUSY);
    EXPECT_EQ(host.register_event(32, static_cast<uint64_t>(reused.fd)), -EINVAL);
    EXPECT_EQ(host.send(kCodeRegisterEvent, words({5, 1, static_cast<uint32_t>(reused.fd), 0})), -EINVAL);
    EXPECT_EQ(host.send(kCodeRegisterEvent, words({5, 0, static_cast<uint32_t>(reused.fd)})), -EINVAL);
    EXPECT_EQ(host.register_event(5, uint64_t{1} << 40), -EBADF);
    EXPECT_EQ(host.register_event(5, 999999), -EBADF);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    EXPECT_EQ(host.register_event(5, static_cast<uint64_t>(pipe_fds[1])), -EBADF);  // not an eventfd
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
    EXPECT_FALSE(card->event_registered(5));

    // Unregistering: only a registered source, only through its handle.
    EXPECT_EQ(host.unregister_event(5), -EINVAL);
    EXPECT_EQ(host.unregister_event(32), -EINVAL);
    EXPECT_EQ(host.send(kCodeUnregisterEvent, words({4, 0})), -EINVAL);
    EXPECT_EQ(other.unregister_event(4), -EBUSY);
    EXPECT_EQ(host.unregister_event(4), 0);
    EXPECT_FALSE(card->raise_interrupt(4));
    EXPECT_EQ(host.unregister_event(4), -EINVAL);

    // Closing a handle unregisters its sources and no others.
    ASSERT_EQ(host.register_event(4, static_cast<uint64_t>(reused.fd)), 0);
    ASSERT_EQ(other.register_event(31, static_cast<uint64_t>(reused.fd)), 0);
    other.close();
    EXPECT_FALSE(card->event_registered(31));
    EXPECT_TRUE(card->raise_interrupt(4));
    EXPECT_EQ(take_signals(reused.fd), 1u);
}

TEST(EmulatorLinks, AttachBindsDistinctLinksAndGroupsPerHandle) {
    pcie_bus bus;  // one card with 4 links
    client first(bus);
    client second(bus);
    const auto card = bus.card(0);

    EXPECT_EQ(card->attached_links(first.handle()), 0u);
    EXPECT_EQ(first.link_detach(), 0);  // nothing attached: fine
    ASSERT_EQ(first.link_attach(0, 0b0011), 0);
    EXPECT_EQ(card->attached_links(first.handle()), 0b0011u);

    EXPECT_EQ(second.link_attach(1, 0b0110), -EBUSY);  // link 1 taken
    EXPECT_EQ(second.link_attach(0, 0b1000), -EBUSY);  // group 0 taken
    EXPECT_EQ(second.link_attach(1, 0), -EINVAL);
    EXPECT_EQ(second.link_attach(1, 0b10000), -EINVAL);  // no link 4 on this card
    EXPECT_EQ(second.link_attach(8, 0b1000), -EINVAL);
    EXPECT_EQ(second.send(pelorin::emu::kCodeLinkAttach, words({1})), -EINVAL);
    EXPECT_EQ(card->attached_links(second.handle()), 0u);
    ASSERT_EQ(second.link_attach(7, 0b1100), 0);

    // Attaching again replaces the handle's own binding.
    ASSERT_EQ(first.link_attach(2, 0b0001), 0);
    const std::optional<link_binding> binding = card->link_attachment(first.handle());
    ASSERT_TRUE(binding.has_value());
    EXPECT_EQ(binding->group, 2u);
    EXPECT_EQ(binding->links, 0b0001u);
    EXPECT_EQ(second.link_attach(7, 0b1110), 0);  // link 1 is free again

    EXPECT_EQ(first.send(pelorin::emu::kCodeLinkDetach, words({0})), -EINVAL);
    EXPECT_EQ(first.link_detach(), 0);
    EXPECT_FALSE(card->link_attachment(first.handle()).has_value());

    // Closing a handle releases its links and group.
    second.close();
    client third(bus);
    EXPECT_EQ(third.link_attach(7, 0b1111), 0);
}

}  // namespace
