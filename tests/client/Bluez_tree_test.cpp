// SPDX-License-Identifier: MIT
// The client's copy of the GATT tree: records, and placeholders for objects that haven't arrived.
#include "Bluez.h"
#include "tests/client/BluezTest.h"

namespace
{

using Service = Bluez::Service;
using Characteristic = Bluez::Service::Characteristic;
using Descriptor = Bluez::Service::Characteristic::Descriptor;
using Type = Bluez::Service::Type;

/// The fields that all records share.
template <typename Record>
kit::Lines fieldsOf(const Record& record)
{
    return {record.uuid, record.path, record.parent, record.val};
}

const kit::Lines kBlank = {"", "", "", ""};

using ATrackedTree = ABusWithBlueZ;

// --- Records ---

TEST_F(ATrackedTree, ReportsAndKeepsARecordOfEachObject)
{
    const auto expectPlain = [](const Service& service, const Characteristic& characteristic,
                                const Descriptor& descriptor) {
        EXPECT_EQ(fieldsOf(service), (kit::Lines{kBatteryUuid, kService, kDevice, ""}));
        EXPECT_EQ(service.type, Type::Battery);
        EXPECT_EQ(fieldsOf(characteristic), (kit::Lines{kLevelUuid, kCharacteristic, kService, ""}));
        EXPECT_EQ(fieldsOf(descriptor), (kit::Lines{kConfigurationUuid, kDescriptor, kCharacteristic, ""}));
    };
    start();

    addAll();
    settle();

    EXPECT_TRUE(listener.services().at(0).characteristics.empty());
    EXPECT_TRUE(listener.characteristics().at(0).descriptors.empty());
    expectPlain(listener.services().at(0), listener.characteristics().at(0), listener.descriptors().at(0));
    const auto services = tree();
    ASSERT_EQ(services.size(), 1U);
    const Characteristic& kept = services.at(kService).characteristics.at(kCharacteristic);
    expectPlain(services.at(kService), kept, kept.descriptors.at(kDescriptor));
}

TEST_F(ATrackedTree, ReportsObjectsWithoutAUuidWithAnEmptyOne)
{
    start();

    addObject(kService, kServiceInterface, {{"UUID", int16(0x180F)}}); // of a wrong type
    addObject(kCharacteristic, kCharacteristicInterface);
    addObject(kDescriptor, kDescriptorInterface);
    settle();

    EXPECT_EQ(fieldsOf(listener.services().at(0)), (kit::Lines{"", kService, kDevice, ""}));
    EXPECT_EQ(listener.services().at(0).type, Type::Unknown);
    EXPECT_EQ(fieldsOf(listener.characteristics().at(0)), (kit::Lines{"", kCharacteristic, kService, ""}));
    EXPECT_EQ(fieldsOf(listener.descriptors().at(0)), (kit::Lines{"", kDescriptor, kCharacteristic, ""}));
    EXPECT_EQ(log.lines("EW"), kit::Lines{});
    expectFromGlib({});
}

TEST_F(ATrackedTree, DoesntKeepARecordUpToDate)
{
    startWithAll();

    sim->setProperty(kService, kServiceInterface, "UUID", text("0000ffd0-0000-1000-8000-00805f9b34fb"));
    settle();

    EXPECT_EQ(tree().at(kService).uuid, kBatteryUuid);
    EXPECT_EQ(client->objectForService(kService).uuid, "0000ffd0-0000-1000-8000-00805f9b34fb");
}

TEST_F(ATrackedTree, BuildsBlankRecordsForAnEmptyPath)
{
    start();

    EXPECT_EQ(fieldsOf(client->objectForService("")), kBlank);
    EXPECT_EQ(static_cast<std::uint32_t>(client->objectForService("").type), 0U);
    EXPECT_EQ(fieldsOf(client->objectForCharacteristic("")), kBlank);
    EXPECT_EQ(fieldsOf(client->objectForDescriptor("")), kBlank);
}

TEST_F(ATrackedTree, BuildsARecordForAnUnknownPathFromThePathAlone)
{
    start();

    for (const std::string& parent : {std::string(kDevice), std::string("/of/no")}) {
        const Service service = client->objectForService(parent + "/service0001");

        EXPECT_EQ(fieldsOf(service), (kit::Lines{"", parent + "/service0001", parent, ""}));
        EXPECT_EQ(service.type, Type::Unknown);
    }
    EXPECT_EQ(client->objectForService("/of/no/kind").type, Type::Unknown);
}

// --- Arrivals in another order, or twice ---

TEST_F(ATrackedTree, EmptiesTheRecordOfWhatArrivesTwice)
{
    startWithAll();

    emitObjectAdded(kCharacteristic);
    const Characteristic characteristic = tree().at(kService).characteristics.at(kCharacteristic);
    EXPECT_EQ(characteristic.uuid, kLevelUuid);
    EXPECT_TRUE(characteristic.descriptors.empty()) << "the record is assigned whole";

    emitObjectAdded(kService);
    EXPECT_TRUE(tree().at(kService).characteristics.empty());
    EXPECT_EQ(listener.events(), (kit::Lines{kCharacteristicKind.added(), kServiceKind.added()}));
    EXPECT_EQ(known().size(), kKinds.size());
}

TEST_F(ATrackedTree, MakesAPlaceholderForACharacteristicBeforeItsService)
{
    start();

    addCharacteristic();
    settle();

    const Service placeholder = tree().at(kService);
    EXPECT_EQ(fieldsOf(placeholder), kBlank);
    EXPECT_EQ(static_cast<std::uint32_t>(placeholder.type), 0U);
    EXPECT_EQ(placeholder.characteristics.count(kCharacteristic), 1U);
    for (const Type type : {static_cast<Type>(0), Type::Unknown, Type::Battery}) {
        EXPECT_TRUE(client->getServices(kDevice, type).empty());
    }
    EXPECT_EQ(known(), kit::Lines{kCharacteristicKind.entry()}) << "the placeholder is in the tree alone";
}

TEST_F(ATrackedTree, ReplacesAPlaceholderWholeWhenItsServiceArrives)
{
    start();
    addCharacteristic();
    addService();
    settle();

    const auto services = client->getServices(kDevice, Type::Battery);
    ASSERT_EQ(services.size(), 1U);
    EXPECT_TRUE(services[0].characteristics.empty()) << "the characteristic is gone from the tree";
    EXPECT_EQ(client->itemsFor(kService), kit::Lines{kCharacteristic}) << "and its proxy stays";
}

TEST_F(ATrackedTree, MakesPlaceholdersOnBothLevelsForADescriptorAlone)
{
    start();

    addDescriptor();
    settle();

    const Service service = tree().at(kService);
    EXPECT_EQ(fieldsOf(service), kBlank);
    EXPECT_EQ(static_cast<std::uint32_t>(service.type), 0U);
    const Characteristic& placeholder = service.characteristics.at(kCharacteristic);
    EXPECT_EQ(fieldsOf(placeholder), kBlank);
    EXPECT_EQ(placeholder.descriptors.at(kDescriptor).uuid, kConfigurationUuid);
}

TEST_F(ATrackedTree, MakesPlaceholdersForADescriptorWhoseCharacteristicHasAProxyAndNoRecord)
{
    start();
    addService();
    addCharacteristic();
    settle();
    removeAlone(kService, kServiceInterface); // also removes the record of the characteristic
    settle();
    ASSERT_TRUE(tree().empty());
    ASSERT_EQ(known(), kit::Lines{kCharacteristicKind.entry()});

    addDescriptor();
    settle();

    const Service service = tree().at(kService);
    EXPECT_EQ(service.uuid, "");
    EXPECT_EQ(service.characteristics.at(kCharacteristic).uuid, "");
    EXPECT_EQ(service.characteristics.at(kCharacteristic).descriptors.count(kDescriptor), 1U);
}

TEST_F(ATrackedTree, LosesTheDescriptorsOfACharacteristicThatArrivesAfterThem)
{
    start();
    addService();
    addDescriptor();
    settle();
    const auto services = client->getServices(kDevice, Type::Battery);
    ASSERT_EQ(services.size(), 1U);
    EXPECT_EQ(services[0].characteristics.at(kCharacteristic).path, "");
    EXPECT_EQ(services[0].characteristics.at(kCharacteristic).descriptors.at(kDescriptor).path, kDescriptor);

    addCharacteristic();
    settle();

    EXPECT_TRUE(tree().at(kService).characteristics.at(kCharacteristic).descriptors.empty());
    EXPECT_EQ(client->itemsFor(kCharacteristic), kit::Lines{kDescriptor});
}

// --- Removals ---

TEST_F(ATrackedTree, LosesAllBelowAServiceThatGoesAloneAndStillReportsItsRemoval)
{
    startWithAll();

    removeAlone(kService, kServiceInterface);
    settle();
    EXPECT_TRUE(tree().empty());
    removeAlone(kCharacteristic, kCharacteristicInterface);
    removeAlone(kDescriptor, kDescriptorInterface);
    settle();

    EXPECT_EQ(listener.events(),
              (kit::Lines{kServiceKind.removed(), kCharacteristicKind.removed(), kDescriptorKind.removed()}));
    EXPECT_EQ(known(), (kit::Lines{kAdapterKind.entry(), kDeviceKind.entry()}));
}

TEST_F(ATrackedTree, LosesACharacteristicWithItsDescriptors)
{
    const std::string other = std::string(kService) + "/char0020";
    addCharacteristic(other);
    startWithAll();

    removeAlone(kCharacteristic, kCharacteristicInterface);
    settle();

    const auto characteristics = tree().at(kService).characteristics;
    ASSERT_EQ(characteristics.size(), 1U);
    EXPECT_EQ(characteristics.begin()->first, other);
    EXPECT_EQ(client->itemsFor(kService), kit::Lines{other});
}

TEST_F(ATrackedTree, LosesADescriptorAlone)
{
    const std::string other = std::string(kCharacteristic) + "/desc0014";
    addDescriptor(other);
    startWithAll();

    sim->removeObject(kDescriptor);
    settle();

    const auto descriptors = tree().at(kService).characteristics.at(kCharacteristic).descriptors;
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_EQ(descriptors.begin()->first, other);
}

TEST_F(ATrackedTree, KeepsTheServicesOfADeviceThatGoesAlone)
{
    startWithAll();

    removeAlone(kDevice, kDeviceInterface);
    settle();

    EXPECT_EQ(client->getServices(kDevice, Type::Battery).size(), 1U);
}

} // namespace
