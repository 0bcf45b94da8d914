// SPDX-License-Identifier: MIT
// The flags of adapters and devices, which are read alike: from what the proxy
// last saw, without a word on the bus.
#include "Bluez.h"

#include "tests/client/BluezTest.h"
#include "tests/client/GioSpy.h"

#include <ostream>

namespace
{

using GetFlag = bool (Bluez::*)(const std::string&, bool&);

struct Flag {
    const char* property;
    GetFlag get;
    bool ofDevice;
};
std::ostream& operator<<(std::ostream& out, const Flag& flag)
{
    return out << flag.property;
}

class AFlag : public ABusWithBlueZ, public testing::WithParamInterface<Flag>
{
protected:
    /// Starts the client with one adapter or device, and begins the record of calls anew.
    void startWith(const PropertyMap& properties = {})
    {
        GetParam().ofDevice ? addDevice(path, properties) : addAdapter(path, properties);
        start();
        sim->clearCalls();
        log.clear();
    }

    bool get(const std::string& of, bool& value) { return (client.get()->*GetParam().get)(of, value); }
    Lines known() { return GetParam().ofDevice ? client->getDevices() : client->getAdapters(); }

    void expectLeftAsItWas()
    {
        for (const bool before : {true, false}) {
            bool flag = before;
            EXPECT_FALSE(get(path, flag));
            EXPECT_EQ(flag, before);
        }
    }

    const std::string path = GetParam().ofDevice ? kDevice : kAdapter;
    const std::string unknown =
        GetParam().ofDevice ? "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_77" : "/org/bluez/hci7";
    const char* const interface = GetParam().ofDevice ? kDeviceInterface : kAdapterInterface;
};

TEST_P(AFlag, IsReadFromTheCacheWithoutTraffic)
{
    for (const bool value : {true, false}) {
        startWith({{GetParam().property, boolean(value)}});
        const OutgoingMessages outgoing(connection());
        bool flag = !value;

        EXPECT_TRUE(get(path, flag));

        EXPECT_EQ(flag, value);
        settle();
        EXPECT_EQ(outgoing.count(), 0);
        EXPECT_TRUE(sim->calls().empty());
        destroy();
        sim->removeObject(path);
    }
}

TEST_P(AFlag, FollowsItsChanges)
{
    startWith({{GetParam().property, boolean(false)}});

    sim->setProperty(path, interface, GetParam().property, boolean(true));
    settle();

    bool flag = false;
    EXPECT_TRUE(get(path, flag));
    EXPECT_TRUE(flag);
}

TEST_P(AFlag, IsLeftAsItWasIfTheProxyHasNone)
{
    startWith({{"Name", text("vexa")}});

    expectLeftAsItWas();

    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AFlag, IsLeftAsItWasIfItsTypeIsWrong)
{
    startWith({{GetParam().property, text("true")}});

    expectLeftAsItWas();

    EXPECT_EQ(log.lines("EW"), Lines{});
}

TEST_P(AFlag, IsRefusedForAnEmptyPathWithoutAnEntry)
{
    startWith();
    bool flag = true;

    EXPECT_FALSE(get("", flag));

    EXPECT_TRUE(flag);
    EXPECT_EQ(known(), Lines{path});
    EXPECT_EQ(log.lines(), Lines{});
}

TEST_P(AFlag, IsRefusedForAnUnknownPathAndLeavesAnEntry)
{
    startWith();
    bool flag = true;

    EXPECT_FALSE(get(unknown, flag));

    EXPECT_TRUE(flag);
    EXPECT_EQ(known(), (Lines{path, unknown}));
    EXPECT_EQ(log.lines(), Lines{});
}

std::string nameOf(const testing::TestParamInfo<Flag>& test)
{
    return test.param.property;
}

INSTANTIATE_TEST_SUITE_P(OfAnAdapter, AFlag,
                         testing::Values(Flag{"Pairable", &Bluez::adapterGetPairable, false},
                                         Flag{"Powered", &Bluez::adapterGetPowered, false},
                                         Flag{"Discovering", &Bluez::adapterGetDiscovering, false}),
                         nameOf);

INSTANTIATE_TEST_SUITE_P(OfADevice, AFlag,
                         testing::Values(Flag{"Connected", &Bluez::deviceGetConnected, true},
                                         Flag{"Paired", &Bluez::deviceGetPaired, true},
                                         Flag{"Trusted", &Bluez::deviceGetTrusted, true}),
                         nameOf);

} // namespace
