// SPDX-License-Identifier: MIT
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Bluez.h"
#include "tests/kit/NamedCase.h"

namespace
{

using Service = Bluez::Service;
using Characteristic = Bluez::Service::Characteristic;
using Descriptor = Bluez::Service::Characteristic::Descriptor;
using Type = Bluez::Service::Type;

// Paths are split and classified by a client that never finds a bus.
class AClientWithoutABus : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        client = std::make_unique<Bluez>(nullptr);
    }
    static void TearDownTestSuite() { client.reset(); }

    static std::unique_ptr<Bluez> client;
};

std::unique_ptr<Bluez> AClientWithoutABus::client;

struct Split : kit::NamedCase {
    const char* path;
    const char* parent;
    const char* endpoint;
};

class APath : public AClientWithoutABus, public testing::WithParamInterface<Split>
{
};

TEST_P(APath, IsSplitIntoItsParentAndItsEndpoint)
{
    const Split& split = GetParam();

    EXPECT_EQ(client->splitPath(split.path),
              (std::pair<std::string, std::string>{split.parent, split.endpoint}));
    EXPECT_EQ(client->getParent(split.path), split.parent);
    EXPECT_EQ(client->getEndpoint(split.path), split.endpoint);
}

INSTANTIATE_TEST_SUITE_P(
    Every, APath,
    testing::Values(Split{{"OfADevice"},
                          "/org/bluez/hci0/dev_00_11_22_33_44_55",
                          "/org/bluez/hci0",
                          "dev_00_11_22_33_44_55"},
                    Split{{"OfTwoComponents"}, "/org/bluez", "/org", "bluez"},
                    Split{{"ThatIsEmpty"}, "", "/", "/"}, Split{{"ThatIsTheRoot"}, "/", "/", "/"},
                    Split{{"OfSlashesAlone"}, "///", "/", "/"},
                    Split{{"OfOneComponentKeepsItsSlashInBothHalves"}, "/org", "/org", "/org"},
                    Split{{"OfOneComponentWithoutSlashGetsOneInBothHalves"}, "org", "/org", "/org"},
                    Split{{"OfOneComponentBetweenSlashes"}, "//org//", "/org", "/org"},
                    Split{{"WithATrailingSlash"}, "/org/bluez/hci0/", "/org/bluez", "hci0"},
                    Split{{"WithADoubledAndNoLeadingSlash"}, "org//bluez/hci0", "/org/bluez", "hci0"}),
    kit::named);

struct Kind : kit::NamedCase {
    const char* path;
    /// A letter for each predicate that holds: Adapter, dEvice, Service, Characteristic, Descriptor.
    const char* kinds;
};

class TheKindOfAPath : public AClientWithoutABus, public testing::WithParamInterface<Kind>
{
};

TEST_P(TheKindOfAPath, IsReadFromItsLastComponent)
{
    const std::string path = GetParam().path;

    std::string kinds;
    kinds += client->isAdapter(path) ? "A" : "";
    kinds += client->isDevice(path) ? "E" : "";
    kinds += client->isService(path) ? "S" : "";
    kinds += client->isCharacteristic(path) ? "C" : "";
    kinds += client->isDescriptor(path) ? "D" : "";

    EXPECT_EQ(kinds, GetParam().kinds);
}

INSTANTIATE_TEST_SUITE_P(
    For, TheKindOfAPath,
    testing::Values(
        // Each kind as BlueZ names it.
        Kind{{"AnAdapter"}, "/org/bluez/hci0", "A"}, Kind{{"ATwoDigitAdapter"}, "/org/bluez/hci12", "A"},
        Kind{{"ADevice"}, "/org/bluez/hci0/dev_00_11_22_33_44_55", "E"},
        Kind{{"AService"}, "/org/bluez/hci0/dev_00_11_22_33_44_55/service000a", "S"},
        Kind{{"ACharacteristic"}, "/org/bluez/hci0/dev_00_11_22_33_44_55/service000a/char000b", "C"},
        Kind{{"ADescriptor"}, "/org/bluez/hci0/dev_00_11_22_33_44_55/service000a/char000b/desc000d", "D"},
        // Paths of no kind.
        Kind{{"NothingForAnEmptyPath"}, "", ""}, Kind{{"NothingForTheRoot"}, "/", ""},
        Kind{{"NothingForBlueZItself"}, "/org/bluez", ""}, Kind{{"NothingForAPlayer"}, "/x/player0", ""},
        // Adapters.
        Kind{{"NoAdapterWithoutADigit"}, "/x/hci", ""},
        Kind{{"AnAdapterInTheMiddleOfAWord"}, "/x/xhci0y", "A"}, Kind{{"NoAdapterInCapitals"}, "/x/HCI0", ""},
        Kind{{"AnAdapterOfOneComponent"}, "/hci0", "A"},
        Kind{{"AnAdapterWithATrailingSlash"}, "/x/hci0/", "A"},
        // Devices.
        Kind{{"NoDeviceInLowerCase"}, "/x/dev_aa_bb_cc_dd_ee_ff", ""},
        Kind{{"NoDeviceWithOneLowerCaseDigit"}, "/x/dev_AA_BB_CC_DD_EE_Ff", ""},
        Kind{{"ADeviceWithSevenGroups"}, "/x/dev_AA_BB_CC_DD_EE_FF_00", "E"},
        Kind{{"NoDeviceWithFiveGroups"}, "/x/dev_AA_BB_CC_DD_EE", ""},
        Kind{{"NoDeviceBeyondF"}, "/x/dev_AA_BB_CC_DD_EE_FG", ""},
        Kind{{"ADeviceInTheMiddleOfAWord"}, "/x/mydev_AA_BB_CC_DD_EE_FFs", "E"},
        // Services, characteristics and descriptors.
        Kind{{"NoServiceInUpperCase"}, "/x/service00AB", ""},
        Kind{{"NoServiceOfThreeDigits"}, "/x/service00a", ""},
        Kind{{"AServiceOfFiveDigits"}, "/x/service00abc", "S"},
        Kind{{"NoCharacteristicInUpperCase"}, "/x/char00AB", ""},
        Kind{{"NoCharacteristicOfThreeDigits"}, "/x/char00a", ""},
        Kind{{"ACharacteristicInTheMiddleOfAWord"}, "/x/xchar00aby", "C"},
        Kind{{"NoDescriptorInUpperCase"}, "/x/desc00AB", ""},
        Kind{{"NoDescriptorOfThreeDigits"}, "/x/desc00a", ""},
        Kind{{"ADescriptorInTheMiddleOfAWord"}, "/x/xdesc00aby", "D"},
        // The levels above don't matter, and one component may match several kinds.
        Kind{{"ACharacteristicWhateverStandsAbove"}, "/a/char00ff", "C"},
        Kind{
            {"OnlyTheLastComponent"}, "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF/service0001/char0002/other", ""},
        Kind{{"AllKindsInOneWord"}, "/x/hci0dev_AA_BB_CC_DD_EE_FFservice0001char0002desc0003", "AESCD"}),
    kit::named);

TEST_F(AClientWithoutABus, ClassifiesOnManyThreadsAtOnce)
{
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            for (int round = 0; round < 50; ++round) {
                EXPECT_TRUE(client->isDevice("/org/bluez/hci0/dev_00_11_22_33_44_55"));
                EXPECT_FALSE(client->isAdapter("/org/bluez"));
                EXPECT_EQ(Bluez::serviceTypeByString("0000180f-0000-1000-8000-00805f9b34fb"), Type::Battery);
                EXPECT_EQ(Bluez::serviceTypeToString(Type::Dfu), "DFU service");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// --- Types of services ---

struct Uuid : kit::NamedCase {
    const char* text;
    Type type;
};

class TheTypeBehindAUuid : public testing::TestWithParam<Uuid>
{
};

TEST_P(TheTypeBehindAUuid, Is)
{
    EXPECT_EQ(Bluez::serviceTypeByString(GetParam().text), GetParam().type);
}

INSTANTIATE_TEST_SUITE_P(
    For, TheTypeBehindAUuid,
    testing::Values(
        // Every code under either base.
        Uuid{{"Battery"}, "0000180f-0000-1000-8000-00805f9b34fb", Type::Battery},
        Uuid{{"OtaNormal"}, "0000ffd0-0000-1000-8000-00805f9b34fb", Type::OtaNormal},
        Uuid{{"OtaNew"}, "0000d0ff-0000-1000-8000-00805f9b34fb", Type::OtaNew},
        Uuid{{"Dfu"}, "00006287-0000-1000-8000-00805f9b34fb", Type::Dfu},
        Uuid{{"BatteryOnTheVendorBase"}, "0000180f-3c17-d293-8e48-14fe2e4da212", Type::Battery},
        Uuid{{"OtaNormalOnTheVendorBase"}, "0000ffd0-3c17-d293-8e48-14fe2e4da212", Type::OtaNormal},
        Uuid{{"OtaNewOnTheVendorBase"}, "0000d0ff-3c17-d293-8e48-14fe2e4da212", Type::OtaNew},
        Uuid{{"DfuOnTheVendorBase"}, "00006287-3c17-d293-8e48-14fe2e4da212", Type::Dfu},
        // The base.
        Uuid{{"UnknownForAnEmptyText"}, "", Type::Unknown},
        Uuid{{"UnknownForTheShortForm"}, "180f", Type::Unknown},
        Uuid{{"UnknownForAnotherBase"}, "0000180f-0000-1000-8000-00805f9b34fc", Type::Unknown},
        Uuid{{"UnknownForABaseInCapitals"}, "0000180f-0000-1000-8000-00805F9B34FB", Type::Unknown},
        Uuid{{"BatteryForABaseThatGoesOn"}, "0000180f-0000-1000-8000-00805f9b34fb-more", Type::Battery},
        Uuid{{"UnknownForABaseAlone"}, "-0000-1000-8000-00805f9b34fb", Type::Unknown},
        // The number.
        Uuid{{"UnknownForANumberWithoutARow"}, "00001800-0000-1000-8000-00805f9b34fb", Type::Unknown},
        Uuid{{"UnknownForTheNumberOfUnknown"}, "00006288-0000-1000-8000-00805f9b34fb", Type::Unknown},
        Uuid{{"UnknownWithoutADigit"}, "zzzz-0000-1000-8000-00805f9b34fb", Type::Unknown},
        Uuid{{"BatteryUpToTheFirstThatIsNoDigit"}, "180fzz-0000-1000-8000-00805f9b34fb", Type::Battery},
        Uuid{{"BatteryInCapitals"}, "0000180F-0000-1000-8000-00805f9b34fb", Type::Battery},
        Uuid{{"BatteryBehindAHyphen"}, "-180f-0000-1000-8000-00805f9b34fb", Type::Battery},
        Uuid{{"UnknownBeyondThirtyTwoBits"}, "10000180f-0000-1000-8000-00805f9b34fb", Type::Unknown},
        Uuid{{"UnknownBeyondEveryNumber"},
             "ffffffffffffffffffff180f-0000-1000-8000-00805f9b34fb",
             Type::Unknown}),
    kit::named);

TEST(TheTypeOfAService, IsValuedByItsOwnNumber)
{
    EXPECT_EQ(static_cast<std::uint32_t>(Type::Battery), 0x180FU);
    EXPECT_EQ(static_cast<std::uint32_t>(Type::OtaNormal), 0xFFD0U);
    EXPECT_EQ(static_cast<std::uint32_t>(Type::OtaNew), 0xD0FFU);
    EXPECT_EQ(static_cast<std::uint32_t>(Type::Dfu), 0x6287U);
    EXPECT_EQ(static_cast<std::uint32_t>(Type::Unknown), 0x6288U);
    static_assert(sizeof(Type) == 4);
}

TEST(TheTypeOfAService, HasAText)
{
    EXPECT_EQ(Bluez::serviceTypeToString(Type::Battery), "Battery service");
    EXPECT_EQ(Bluez::serviceTypeToString(Type::OtaNormal), "OTA normal service");
    EXPECT_EQ(Bluez::serviceTypeToString(Type::OtaNew), "OTA new service");
    EXPECT_EQ(Bluez::serviceTypeToString(Type::Dfu), "DFU service");
    EXPECT_EQ(Bluez::serviceTypeToString(Type::Unknown), "Unknown");
}

TEST(TheTypeOfAService, IsUnknownInTextForEveryOtherValue)
{
    EXPECT_EQ(Bluez::serviceTypeToString(static_cast<Type>(0)), "Unknown");
    EXPECT_EQ(Bluez::serviceTypeToString(static_cast<Type>(0x1800)), "Unknown");
}

// --- Records and their text ---

Characteristic exampleCharacteristic()
{
    Characteristic characteristic;
    characteristic.val = "not shown";
    characteristic.uuid = "c-uuid";
    characteristic.path = "/d/s/c";
    characteristic.parent = "/d/s";
    characteristic.descriptors["/d/s/c/2"].val = "second";
    characteristic.descriptors["/d/s/c/1"] = Descriptor{"", "d-uuid", "/d/s/c/1", "/d/s/c"};
    return characteristic;
}

TEST(ADescriptor, IsFourLinesOfText)
{
    const Descriptor descriptor{"v", "d-uuid", "/d/s/c/1", "/d/s/c"};

    EXPECT_EQ(descriptor.toString(), "GATT Descriptor:\n"
                                     "path: /d/s/c/1\n"
                                     "parent: /d/s/c\n"
                                     "uuid: d-uuid val: v\n");
    EXPECT_EQ(Descriptor{}.toString(), "GATT Descriptor:\npath: \nparent: \nuuid:  val: \n");
}

TEST(ACharacteristic, IsFourLinesAndTheValueOfEachDescriptor)
{
    EXPECT_EQ(exampleCharacteristic().toString(), "GATT Characteristic:\n"
                                                  "path: /d/s/c\n"
                                                  "parent: /d/s\n"
                                                  "uuid: c-uuid\n"
                                                  "\n"
                                                  "second\n");
}

TEST(AService, IsFiveLinesAndTheTextOfEachCharacteristic)
{
    Service service;
    service.val = "not shown";
    service.uuid = "s-uuid";
    service.path = "/d/s";
    service.parent = "/d";
    service.type = Type::OtaNormal;
    service.characteristics["/d/s/z"].path = "/d/s/z";
    service.characteristics["/d/s/c"] = exampleCharacteristic();

    EXPECT_EQ(service.toString(), "Service:\n"
                                  "path: /d/s\n"
                                  "parent: /d\n"
                                  "uuid: s-uuid\n"
                                  "Type: OTA normal service\n" +
                                      exampleCharacteristic().toString() +
                                      "GATT Characteristic:\npath: /d/s/z\nparent: \nuuid: \n");
}

TEST(AService, ThatNobodyFilledHasTypeZeroAndSaysUnknown)
{
    const Service blank;

    EXPECT_EQ(static_cast<std::uint32_t>(blank.type), 0U);
    EXPECT_EQ(blank.toString(), "Service:\npath: \nparent: \nuuid: \nType: Unknown\n");
}

TEST_F(AClientWithoutABus, DumpsServicesInTheirOrder)
{
    Service first;
    first.path = "/2";
    Service second;
    second.path = "/1";

    EXPECT_EQ(client->toString(std::vector<Service>{}), "Services:\n");
    EXPECT_EQ(client->toString(std::vector<Service>{first, second}),
              "Services:\n" + first.toString() + second.toString());
}

TEST(TheRecords, ArePlainCopyableValues)
{
    static_assert(!std::is_polymorphic_v<Service> && std::is_copy_assignable_v<Service>);
    static_assert(!std::is_polymorphic_v<Characteristic> && std::is_copy_assignable_v<Characteristic>);
    static_assert(!std::is_polymorphic_v<Descriptor> && std::is_copy_assignable_v<Descriptor>);
    Service original;
    original.characteristics["/c"] = exampleCharacteristic();

    const Service copy = original;
    original.characteristics["/c"].descriptors.clear();

    EXPECT_EQ(copy.characteristics.at("/c").descriptors.size(), 2U);
}

// --- Listener ---

TEST(AListener, ThatOverridesNothingHearsEverythingInSilence)
{
    static_assert(std::has_virtual_destructor_v<Bluez::Listener>);
    static_assert(!std::is_abstract_v<Bluez::Listener>);
    const std::unique_ptr<Bluez::Listener> listener = std::make_unique<Bluez::Listener>();

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    listener->onAdapterAdded("/p");
    listener->onAdapterRemoved("/p");
    listener->onDeviceAdded("/p");
    listener->onDeviceRemoved("/p");
    listener->onDeviceRSSIChanged("/p", std::int16_t{-40});
    listener->onDevicePairedStatusChanged("/p", true);
    listener->onDeviceConnectionStatusChanged("/p", true);
    listener->onDeviceServicesResolvedStatusChanged("/p", true);
    listener->onServiceAdded("/p", Service{});
    listener->onServiceRemoved("/p");
    listener->onCharacteristicAdded("/p", Characteristic{});
    listener->onCharacteristicRemoved("/p");
    listener->onDescriptorAdded("/p", Descriptor{});
    listener->onDescriptorRemoved("/p");
    listener->onGattCharacteristicChanged(Characteristic{}, {1, 2});

    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

struct Slot {
    const char* name;
    std::size_t place;
};

// A pointer to a virtual function starts with the function's offset in the virtual table; the lowest bit only
// marks it as virtual.
template <typename Operation>
Slot slotOf(const char* name, Operation operation)
{
    std::uintptr_t offset = 0;
    static_assert(sizeof operation == 2 * sizeof offset, "the Itanium ABI");
    std::memcpy(&offset, &operation, sizeof offset);
    return {name, (offset & ~std::uintptr_t{1}) / sizeof(void*)};
}

TEST(AListener, HasItsOperationsInTheirOrder)
{
    using Listener = Bluez::Listener;
    const std::vector<Slot> slots = {
        slotOf("onAdapterAdded", &Listener::onAdapterAdded),
        slotOf("onAdapterRemoved", &Listener::onAdapterRemoved),
        slotOf("onDeviceAdded", &Listener::onDeviceAdded),
        slotOf("onDeviceRemoved", &Listener::onDeviceRemoved),
        slotOf("onDeviceRSSIChanged", &Listener::onDeviceRSSIChanged),
        slotOf("onDevicePairedStatusChanged", &Listener::onDevicePairedStatusChanged),
        slotOf("onDeviceConnectionStatusChanged", &Listener::onDeviceConnectionStatusChanged),
        slotOf("onDeviceServicesResolvedStatusChanged", &Listener::onDeviceServicesResolvedStatusChanged),
        slotOf("onServiceAdded", &Listener::onServiceAdded),
        slotOf("onServiceRemoved", &Listener::onServiceRemoved),
        slotOf("onCharacteristicAdded", &Listener::onCharacteristicAdded),
        slotOf("onCharacteristicRemoved", &Listener::onCharacteristicRemoved),
        slotOf("onDescriptorAdded", &Listener::onDescriptorAdded),
        slotOf("onDescriptorRemoved", &Listener::onDescriptorRemoved),
        slotOf("onGattCharacteristicChanged", &Listener::onGattCharacteristicChanged),
    };

    for (std::size_t place = 0; place < slots.size(); ++place) {
        EXPECT_EQ(slots[place].place, place) << slots[place].name;
    }
}

TEST(AListener, HasItsDestructorBehindItsOperationsAndNoData)
{
    struct Mortal : Bluez::Listener {
        explicit Mortal(bool& dead) : mDead(dead) {}
        ~Mortal() override { mDead = true; }
        bool& mDead;
    };
    static_assert(sizeof(Bluez::Listener) == sizeof(void*));
    constexpr std::size_t kDestructor = 15; // the one that doesn't free the storage
    bool dead = false;
    alignas(Mortal) unsigned char storage[sizeof(Mortal)] = {};
    auto* const mortal = new (storage) Mortal(dead);
    void (**table)(void*) = nullptr;
    std::memcpy(&table, storage, sizeof table);

    table[kDestructor](mortal);

    EXPECT_TRUE(dead);
}

// --- Holder of a variant ---

// A variant that sets `released` when its last reference is dropped.
GVariant* makeVariant(bool& released)
{
    static const guchar kByte = 7;
    return g_variant_new_from_data(
        G_VARIANT_TYPE_BYTE, &kByte, sizeof kByte, TRUE,
        [](gpointer flag) { *static_cast<bool*>(flag) = true; }, &released);
}

TEST(AHolderOfAVariant, SinksAFloatingReferenceAndReleasesIt)
{
    bool released = false;
    {
        const Bluez::GVariantHolder holder(makeVariant(released));
        EXPECT_FALSE(g_variant_is_floating(holder.variant));
        EXPECT_FALSE(released);
    }
    EXPECT_TRUE(released);
}

TEST(AHolderOfAVariant, TakesOverAFullReference)
{
    bool released = false;
    {
        const Bluez::GVariantHolder holder(g_variant_ref_sink(makeVariant(released)));
        EXPECT_FALSE(released);
    }
    EXPECT_TRUE(released);
}

TEST(AHolderOfAVariant, LeavesTheReferencesOfOthersAlone)
{
    bool released = false;
    GVariant* variant = g_variant_ref_sink(makeVariant(released));
    {
        const Bluez::GVariantHolder holder(g_variant_ref(variant));
        EXPECT_EQ(holder.variant, variant);
    }
    EXPECT_FALSE(released);
    g_variant_unref(variant);
    EXPECT_TRUE(released);
}

TEST(AHolderOfAVariant, HoldsNull)
{
    const Bluez::GVariantHolder holder(nullptr);
    EXPECT_EQ(holder.variant, nullptr);
}

} // namespace
