// SPDX-License-Identifier: MIT
// Which listeners get an event.
#include <thread>

#include "Bluez.h"
#include "tests/client/BluezTest.h"

namespace
{

using AClient = ABusWithBlueZ;

TEST_F(AClient, WithoutAListenerStartsAndCanGetOneLater)
{
    addAdapter();
    start(nullptr);
    EXPECT_TRUE(client->getListeners().empty());
    EXPECT_EQ(client->getAdapters(), kit::Lines{kAdapter});

    client->subscribe(&listener);
    addDevice();

    EXPECT_TRUE(listener.await(kDeviceKind.added()));
    EXPECT_EQ(listener.events().size(), 1U);
}

TEST_F(AClient, KeepsAnEntryForWhoeverSubscribedOrUnsubscribed)
{
    RecordingListener& stranger = others[0];
    start();
    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}}));

    client->subscribe(nullptr);
    EXPECT_EQ(client->getListeners().count(nullptr), 0U);
    client->unsubscribe(nullptr);
    client->unsubscribe(&stranger);
    addAdapter();
    settle();

    EXPECT_EQ(client->getListeners(),
              (Bluez::ListenerMap{{nullptr, false}, {&listener, true}, {&stranger, false}}));
    EXPECT_EQ(stranger.events(), kit::Lines{});
    EXPECT_EQ(listener.events(), kit::Lines{kAdapterKind.added()});
}

TEST_F(AClient, CallsAListenerOnceHoweverOftenItSubscribed)
{
    start();

    client->unsubscribe(&listener);
    addAdapter();
    settle();
    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, false}}));
    EXPECT_EQ(listener.events(), kit::Lines{});
    client->subscribe(&listener);
    client->subscribe(&listener);
    addDevice();
    settle();

    EXPECT_EQ(client->getListeners(), (Bluez::ListenerMap{{&listener, true}}));
    EXPECT_EQ(listener.events(), kit::Lines{kDeviceKind.added()});
}

TEST_F(AClient, CallsItsListenersInAscendingOrderOfTheirAddresses)
{
    std::vector<std::size_t> order;
    for (std::size_t i = 0; i < others.size(); ++i) {
        others[i].onEvent = [&order, i](const std::string&) { order.push_back(i); };
    }
    start(nullptr);

    for (const std::size_t i : {1U, 3U, 0U, 2U}) {
        client->subscribe(&others[i]);
    }
    addAdapter();
    settle();

    EXPECT_EQ(order, (std::vector<std::size_t>{0, 1, 2, 3}));
}

TEST_F(AClient, CallsThoseThatWereSubscribedWhenTheEventCame)
{
    RecordingListener& first = others[0];
    RecordingListener& leaving = others[1];
    RecordingListener& coming = others[2];
    first.onEvent = [&](const std::string&) {
        client->unsubscribe(&leaving);
        client->subscribe(&coming);
    };
    start(nullptr);
    client->subscribe(&first);
    client->subscribe(&leaving);

    addAdapter();
    addDevice();
    settle();

    EXPECT_EQ(first.events().size(), 2U);
    EXPECT_EQ(leaving.events(), kit::Lines{kAdapterKind.added()});
    EXPECT_EQ(coming.events(), kit::Lines{kDeviceKind.added()});
}

TEST_F(AClient, TakesListenersFromManyThreadsWhileEventsCome)
{
    start();
    std::vector<std::thread> threads;
    for (RecordingListener& one : others) {
        threads.emplace_back([&] {
            for (int round = 0; round < 50; ++round) {
                client->subscribe(&one);
                client->getListeners();
                client->unsubscribe(&one);
            }
            client->subscribe(&one);
        });
    }
    for (int round = 0; round < 10; ++round) {
        addAdapter();
        sim->removeObject(kAdapter);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    settle();

    addDevice();
    for (RecordingListener& one : others) {
        EXPECT_TRUE(one.await(kDeviceKind.added()));
    }
    EXPECT_EQ(listener.events().size(), 21U);
    destroy();
}

} // namespace
