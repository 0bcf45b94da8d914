// SPDX-License-Identifier: MIT
// Which device, and which of its characteristics, the updater takes for the remote in its update mode.
#include "tests/update/RcuOtaUpdaterTest.h"

#include <memory>
#include <optional>

#include <gmock/gmock.h>

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";

// ---------------------------------------------------------------------------------- Which device it takes

class TheUpdateDevice : public AnUpdate
{
protected:
    TheUpdateDevice() { mOptions.remote.bootTime = 300ms; }

    std::shared_ptr<vexasim::Peripheral> appear(const std::optional<std::string>& name,
                                                const std::string& address = "C0:FF:EE:00:00:99")
    {
        vexasim::PeripheralOptions options;
        options.address = address;
        options.name = name;
        auto peripheral = std::make_shared<vexasim::Peripheral>(options);
        mSimulator->addPeripheral(peripheral);
        mWatcher.await(mSimulator->announce(peripheral));
        return peripheral;
    }

    /// Lets the update end once it has connected.
    void endAfterConnecting() { receiver().setFault(UpdateStep::StartNotify, refusal()); }

    void expectConnected(const std::string& path)
    {
        const auto connects = mSimulator->calls("Connect");
        ASSERT_EQ(1U, connects.size());
        EXPECT_EQ(path, connects[0].path);
        EXPECT_THAT(failures(), ElementsAre("E Could not start to notify about control point changes"));
    }
};

TEST_F(TheUpdateDevice, IsTakenByThePartOfItsName)
{
    endAfterConnecting();

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

class TheWordInsideAName : public TheUpdateDevice
{
protected:
    TheWordInsideAName() { mOptions.remote.updateName = "xBeeTgty"; }
};

TEST_F(TheWordInsideAName, IsEnough)
{
    endAfterConnecting();

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneWithTheWordInLowerCase)
{
    endAfterConnecting();
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    appear("VEXA beetgt");

    EXPECT_FALSE(mUpdater->update());

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneThatWasThereBefore)
{
    endAfterConnecting();
    appear("Old BeeTgt");

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsNotOneWhoseNameComesLater)
{
    endAfterConnecting();
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    const auto nameless = appear(std::nullopt);
    ASSERT_TRUE(mSimulator->awaitCall("Get", mSimulator->devicePath(*nameless))) << "its name is asked for";
    mSimulator->setProperty(mSimulator->devicePath(*nameless), "org.bluez.Device1", "Name",
                            g_variant_new_string("Late BeeTgt"));

    EXPECT_FALSE(mUpdater->update());

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, IsTheFirstOfTwo)
{
    mSimulator->bend(Bend::error("Connect", "org.bluez.Error.Failed"));
    ASSERT_TRUE(create(FirmwareImage::ofWords(5)));
    const auto first = appear("First BeeTgt", "C0:FF:EE:00:00:98");
    appear("Second BeeTgt");
    ASSERT_TRUE(mSimulator->awaitCall("Get", mSimulator->devicePath(*first))) << "its name is asked for";

    EXPECT_FALSE(mUpdater->update());

    const auto connects = mSimulator->calls("Connect");
    ASSERT_EQ(1U, connects.size());
    EXPECT_EQ(mSimulator->devicePath(*first), connects[0].path);
}

TEST_F(TheUpdateDevice, MayAppearBeforeTheScan)
{
    endAfterConnecting();
    vexasim::UpdateAppearance early;
    early.beforeScan = true;
    remote().setUpdateAppearance(early);

    EXPECT_FALSE(update(FirmwareImage::ofWords(5)));

    expectConnected(mSimulator->updateDevicePath());
}

TEST_F(TheUpdateDevice, HasItsDataWhereItWasAnnouncedLast)
{
    // The device that a characteristic belongs to isn't looked at either.
    mSimulator->bend(Bend::late("StartNotify", 2s));
    auto result = begin(FirmwareImage::ofWords(5));
    ASSERT_TRUE(mSimulator->awaitCall("StartNotify"));
    const std::string other = mSimulator->remotePath() + "/service0099/char00aa";
    const vexasim::PropertyMap properties{
        {"UUID", g_variant_new_string(vexasim::uuid::kData.c_str())},
        {"Service", g_variant_new_object_path((mSimulator->remotePath() + "/service0099").c_str())}};
    mSimulator->addObject(other, {{kCharacteristic, properties}, {"org.freedesktop.DBus.Properties", {}}});
    mWatcher.await(other);

    result.get();

    EXPECT_EQ(1U, mSimulator->calls("WriteValue", other).size());
    EXPECT_THAT(dataSent(), IsEmpty());
}

} // namespace
