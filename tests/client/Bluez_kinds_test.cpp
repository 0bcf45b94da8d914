// SPDX-License-Identifier: MIT
// Paths whose last component matches several kinds: each step checks the kinds in its own order.
#include <algorithm>

#include "Bluez.h"
#include "tests/client/BluezTest.h"

namespace
{

struct Mixture : kit::NamedCase {
    const char* component;
    const Kind& arrivesAs;
    const Kind& goesAs;
    const Kind* hasItemsAs; ///< null if it has none
};

class APathOfSeveralKinds : public ABusWithBlueZ, public testing::WithParamInterface<Mixture>
{
protected:
    void SetUp() override
    {
        ABusWithBlueZ::SetUp();
        start();
        log.clear();
    }

    const std::string path = std::string("/x/") + GetParam().component;
    const Kind& arrivesAs = GetParam().arrivesAs;
};

TEST_P(APathOfSeveralKinds, ArrivesAsTheFirstAndGoesAsTheLast)
{
    addObject(path, "org.example.Other1");
    sim->removeObject(path);
    settle();

    EXPECT_EQ(listener.events(), (kit::Lines{arrivesAs.added(path), GetParam().goesAs.removed(path)}));
}

TEST_P(APathOfSeveralKinds, IsLookedUpAsTheFirst)
{
    std::string word;

    EXPECT_FALSE(client->getCachedProperty(path, "UUID", word));

    EXPECT_EQ(known(), kit::Lines{arrivesAs.entry(path)});
}

// The kind on arrival also decides whether it is watched.
TEST_P(APathOfSeveralKinds, ChangesAsTheFirst)
{
    addObject(path, arrivesAs.interface);
    settle();
    listener.clear();

    for (const Kind& kind : kKinds) {
        sim->emitPropertiesChanged(path, kind.interface,
                                   {{"Paired", boolean(true)}, {"Value", Variant::bytes({7})}});
    }
    settle();

    kit::Lines heard;
    if (arrivesAs.path == kDevice) {
        heard = {"onDevicePairedStatusChanged " + path + " true"};
    } else if (arrivesAs.path == kCharacteristic) {
        heard = {"onGattCharacteristicChanged " + path + " 7"};
    }
    EXPECT_EQ(listener.events(), heard);
}

TEST_P(APathOfSeveralKinds, HasTheItemsOfOne)
{
    addService(path + "/service0002");
    addCharacteristic(path + "/char0003");
    addDescriptor(path + "/desc0004");
    settle();
    log.clear();

    const kit::Lines items = client->itemsFor(path);

    const Kind* const kind = GetParam().hasItemsAs;
    if (kind == nullptr) {
        EXPECT_EQ(items, kit::Lines{});
        EXPECT_EQ(log.lines(), kit::Lines{});
        return;
    }
    const bool isDevice = kind->path == kDevice;
    EXPECT_EQ(items, kit::Lines{path + (isDevice ? "/service0002" : "/char0003")});
    EXPECT_EQ(log.lines(), (kit::Lines{"T Fetching item for " + path,
                                       "T " + path + (isDevice ? " is device" : " is service")}));
}

INSTANTIATE_TEST_SUITE_P(
    Such, APathOfSeveralKinds,
    testing::Values(
        Mixture{{"AsAdapterAndDevice"}, "dev_AA_BB_CC_DD_EE_FFhci0", kAdapterKind, kDeviceKind, &kDeviceKind},
        Mixture{{"AsDeviceAndService"},
                "service0001dev_AA_BB_CC_DD_EE_FF",
                kDeviceKind,
                kServiceKind,
                &kDeviceKind},
        Mixture{{"AsDeviceAndCharacteristic"},
                "char0001dev_AA_BB_CC_DD_EE_FF",
                kDeviceKind,
                kCharacteristicKind,
                &kDeviceKind},
        Mixture{{"AsServiceAndCharacteristic"},
                "char0001service0001",
                kServiceKind,
                kCharacteristicKind,
                &kServiceKind},
        Mixture{{"AsDescriptorAndDevice"},
                "dev_AA_BB_CC_DD_EE_FFdesc0001",
                kDeviceKind,
                kDescriptorKind,
                nullptr},
        Mixture{{"AsDescriptorAndService"}, "service0001desc0001", kServiceKind, kDescriptorKind, nullptr},
        Mixture{{"AsDescriptorAndCharacteristic"},
                "desc0001char0001",
                kCharacteristicKind,
                kDescriptorKind,
                nullptr},
        Mixture{{"AsAllFive"},
                "desc0001char0001service0001dev_AA_BB_CC_DD_EE_FFhci0",
                kAdapterKind,
                kDescriptorKind,
                nullptr}),
    kit::named);

} // namespace
