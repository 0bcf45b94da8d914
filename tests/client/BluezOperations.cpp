// SPDX-License-Identifier: MIT
#include "tests/client/BluezOperations.h"

#include <algorithm>
#include <iterator>

namespace
{

using Bytes = std::vector<std::uint8_t>;
using Characteristic = Bluez::Service::Characteristic;

// --- How an operation is called ---

std::string textOf(const std::string& value)
{
    return "'" + value + "'";
}
std::string textOf(bool value)
{
    return value ? "true" : "false";
}
std::string textOf(std::int16_t value)
{
    return "@n " + std::to_string(value);
}

template <typename Value, bool (Bluez::*kGet)(const std::string&, Value&)>
std::string getOver(const Value& before, Bluez& client, const std::string& path)
{
    Value value = before;
    if ((client.*kGet)(path, value)) {
        return textOf(value);
    }
    return value == before ? "refused" : "refused, but the value has changed";
}

const std::string kLongText = "a text that is longer than any of the values";

template <bool (Bluez::*kGet)(const std::string&, std::string&)>
std::string getText(Bluez& client, const std::string& path)
{
    return getOver<std::string, kGet>(kLongText, client, path);
}

template <bool (Bluez::*kGet)(const std::string&, bool&)>
std::string getFlag(Bluez& client, const std::string& path)
{
    const std::string outcome = getOver<bool, kGet>(true, client, path);
    return getOver<bool, kGet>(false, client, path) == outcome ? outcome : "depends on the variable";
}

std::string getStrength(Bluez& client, const std::string& path)
{
    return getOver<std::int16_t, &Bluez::deviceGetRSSI>(7, client, path);
}

std::string getWord(Bluez& client, const std::string& path)
{
    std::string word = kLongText;
    if (client.getCachedProperty(path, "Word", word)) {
        return textOf(word);
    }
    return word == kLongText ? "refused" : "refused, but the text has changed";
}

std::string areServicesResolved(Bluez& client, const std::string& path)
{
    return textOf(client.deviceIsServicesResolved(path));
}

template <typename Record, Record (Bluez::*kMake)(const std::string&)>
std::string makeRecord(Bluez& client, const std::string& path)
{
    const Record record = (client.*kMake)(path);
    return record.uuid.empty() ? "refused" : textOf(record.uuid);
}

std::string outcome(bool done)
{
    return done ? "done" : "refused";
}

template <bool (Bluez::*kSet)(const std::string&, const bool&), bool kValue>
std::string set(Bluez& client, const std::string& path)
{
    return outcome((client.*kSet)(path, kValue));
}

template <bool (Bluez::*kAct)(const std::string&)>
std::string act(Bluez& client, const std::string& path)
{
    return outcome((client.*kAct)(path));
}

Characteristic recordOf(const std::string& path)
{
    Characteristic record;
    record.path = path;
    record.val = kLongText;
    return record;
}

template <bool (Bluez::*kAct)(const Characteristic&)>
std::string actOnRecord(Bluez& client, const std::string& path)
{
    return outcome((client.*kAct)(recordOf(path)));
}

std::string removeDevice(Bluez& client, const std::string& path)
{
    return outcome(client.adapterRemoveDevice(path, kDevice));
}

const Bytes kWritten = {0x00, 0x7f, 0xff};

std::string write(Bluez& client, const std::string& path)
{
    return outcome(client.writeCharacteristic(path, kWritten));
}

std::string writeRecord(Bluez& client, const std::string& path)
{
    return outcome(client.writeCharacteristic(recordOf(path), kWritten));
}

std::string readVector(Bluez& client, const std::string& path)
{
    const Bytes bytes = client.readCharacteristic(path);
    return bytes.empty() || bytes == Bytes{80} ? outcome(!bytes.empty()) : "other bytes";
}

std::string readRecord(Bluez& client, const std::string& path)
{
    Characteristic record = recordOf(path);
    const bool done = client.readCharacteristic(record);
    const std::string expected = done ? std::string("P\0", 2) : "";
    return record.val == expected ? outcome(done) : "another value";
}

std::string readText(Bluez& client, const std::string& path)
{
    const std::string value = client.valueFor(path);
    return value.empty() || value == std::string("P\0", 2) ? outcome(!value.empty()) : "another text";
}

// --- What operations have in common ---

constexpr Complaints kOfCharacteristic{"E Not connected", "E Empty obj path",
                                       "E No proxy found for characteristic "};
constexpr Complaints kOfVector{"E Not connected", "E Not a characteristic",
                               "E No proxy found for characteristic "};
constexpr Complaints kOfText{
    "D No connection", "D unit empty", "",
    "GLib-GIO-CRITICAL: g_dbus_proxy_call_sync_internal: assertion 'G_IS_DBUS_PROXY (proxy)' failed"};
constexpr Complaints kOfWord{"E No connection", "E Empty object path"};
constexpr Complaints kOfRecord{"E No connection"};

constexpr Property flag(const char* name)
{
    return {name, "true", "false", "'true'"};
}
constexpr Property word(const char* name)
{
    return {name, "'VEXA RC'", "''", "@n 7"};
}
constexpr Property kStrength{"RSSI", "@n -71", "@n 127", "@i -71"};
constexpr Property kUuid{"UUID", "'0000180f-0000-1000-8000-00805f9b34fb'", "'another'", "@n 6159"};

const BusMessage kWrite{"WriteValue", "([byte 0x00, 0x7f, 0xff], @a{sv} {})"};
const BusMessage kRead{"ReadValue", "(@a{sv} {},)", "refused", "([byte 80],)"};
const BusMessage kReadVector{"ReadValue",    "(@a{sv} {},)", "refused",
                             "([byte 80],)", "done",         {"E Empty variant", "E Not an array"}};
const BusMessage kGetName{
    "Get", "('org.bluez.Device1', 'Name')", "refused", "(<'VEXA RC'>,)", "'VEXA RC'", {}, false};

using Call = std::string (*)(Bluez&, const std::string&);

/// An operation that reads a property from the cache of the proxy of its kind.
Operation reading(const Property& property, const char* name, const Kind& kind, Call call)
{
    return {{name}, &kind, call, Proxy::Borrowed, {}, property};
}

/// One that reads a property from the cache of a proxy of any kind.
Operation reading(const Property& property, const char* name, const Kind& kind, Call call,
                  const Complaints& complaints)
{
    return {{name}, &kind, call, Proxy::Shared, complaints, property};
}

Operation sending(const BusMessage& message, const char* name, const Kind& kind, Call call, Proxy proxy,
                  const Complaints& complaints = {})
{
    return {{name}, &kind, call, proxy, complaints, {}, message};
}

std::vector<Operation> cacheOperations()
{
    const Kind& adapter = kAdapterKind;
    const Kind& device = kDeviceKind;
    using Descriptor = Characteristic::Descriptor;
    std::vector<Operation> found = {
        reading(word("Address"), "adapterGetAddress", adapter, getText<&Bluez::adapterGetAddress>),
        reading(flag("Pairable"), "adapterGetPairable", adapter, getFlag<&Bluez::adapterGetPairable>),
        reading(flag("Powered"), "adapterGetPowered", adapter, getFlag<&Bluez::adapterGetPowered>),
        reading(flag("Discovering"), "adapterGetDiscovering", adapter,
                getFlag<&Bluez::adapterGetDiscovering>),
        reading(word("Address"), "deviceGetAddress", device, getText<&Bluez::deviceGetAddress>),
        reading(word("Alias"), "deviceGetAliasName", device, getText<&Bluez::deviceGetAliasName>),
        reading(flag("Connected"), "deviceGetConnected", device, getFlag<&Bluez::deviceGetConnected>),
        reading(flag("Paired"), "deviceGetPaired", device, getFlag<&Bluez::deviceGetPaired>),
        reading(flag("Trusted"), "deviceGetTrusted", device, getFlag<&Bluez::deviceGetTrusted>),
        reading(kStrength, "deviceGetRSSI", device, getStrength),
        reading(kUuid, "objectForService", kServiceKind, makeRecord<Bluez::Service, &Bluez::objectForService>,
                kOfRecord),
        reading(kUuid, "objectForCharacteristic", kCharacteristicKind,
                makeRecord<Characteristic, &Bluez::objectForCharacteristic>, kOfRecord),
        reading(kUuid, "objectForDescriptor", kDescriptorKind,
                makeRecord<Descriptor, &Bluez::objectForDescriptor>, kOfRecord),
        reading(word("Word"), "getCachedPropertyOfAnAdapter", adapter, getWord, kOfWord),
        reading(word("Word"), "getCachedPropertyOfADevice", device, getWord, kOfWord),
        reading(word("Word"), "getCachedPropertyOfAService", kServiceKind, getWord, kOfWord),
        reading(word("Word"), "getCachedPropertyOfACharacteristic", kCharacteristicKind, getWord, kOfWord),
        reading(word("Word"), "getCachedPropertyOfADescriptor", kDescriptorKind, getWord, kOfWord),
        reading(flag("ServicesResolved"), "deviceIsServicesResolved", device, areServicesResolved),
    };
    found.back().refused = "false";
    return found;
}

std::vector<Operation> adapterAndDeviceCalls()
{
    const Kind& adapter = kAdapterKind;
    const Kind& device = kDeviceKind;
    return {
        sending({"Set", "('org.bluez.Adapter1', 'Pairable', <true>)"}, "adapterSetPairableOn", adapter,
                set<&Bluez::adapterSetPairable, true>, Proxy::None),
        sending({"Set", "('org.bluez.Adapter1', 'Pairable', <false>)"}, "adapterSetPairableOff", adapter,
                set<&Bluez::adapterSetPairable, false>, Proxy::None),
        sending({"Set", "('org.bluez.Adapter1', 'Powered', <true>)"}, "adapterSetPoweredOn", adapter,
                set<&Bluez::adapterSetPowered, true>, Proxy::None),
        sending({"Set", "('org.bluez.Adapter1', 'Powered', <false>)"}, "adapterSetPoweredOff", adapter,
                set<&Bluez::adapterSetPowered, false>, Proxy::None),
        sending({"StartDiscovery", "()", "done"}, "adapterScanOn", adapter, act<&Bluez::adapterScanOn>,
                Proxy::Borrowed),
        sending({"StopDiscovery", "()", "done"}, "adapterScanOff", adapter, act<&Bluez::adapterScanOff>,
                Proxy::Borrowed),
        sending({"RemoveDevice", "(objectpath '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01',)"},
                "adapterRemoveDevice", adapter, removeDevice, Proxy::Borrowed),
        sending(kGetName, "deviceGetName", device, getText<&Bluez::deviceGetName>, Proxy::None),
        sending({"Connect"}, "deviceConnect", device, act<&Bluez::deviceConnect>, Proxy::Borrowed),
        sending({"Disconnect"}, "deviceDisconnect", device, act<&Bluez::deviceDisconnect>, Proxy::Borrowed),
    };
}

std::vector<Operation> characteristicCalls()
{
    const Kind& kind = kCharacteristicKind;
    return {
        sending({"StartNotify"}, "characteristicStartNotify", kind, act<&Bluez::characteristicStartNotify>,
                Proxy::Shared, kOfCharacteristic),
        sending({"StartNotify"}, "characteristicStartNotifyOfARecord", kind,
                actOnRecord<&Bluez::characteristicStartNotify>, Proxy::Shared, kOfCharacteristic),
        sending({"StopNotify"}, "characteristicStopNotify", kind, act<&Bluez::characteristicStopNotify>,
                Proxy::Shared, kOfCharacteristic),
        sending({"StopNotify"}, "characteristicStopNotifyOfARecord", kind,
                actOnRecord<&Bluez::characteristicStopNotify>, Proxy::Shared, kOfCharacteristic),
        sending(kWrite, "writeCharacteristic", kind, write, Proxy::Shared, kOfCharacteristic),
        sending(kWrite, "writeCharacteristicOfARecord", kind, writeRecord, Proxy::Shared, kOfCharacteristic),
        sending(kReadVector, "readCharacteristicIntoAVector", kind, readVector, Proxy::Shared, kOfVector),
        sending(kRead, "readCharacteristicIntoARecord", kind, readRecord, Proxy::Borrowed, kOfText),
        sending(kRead, "valueFor", kind, readText, Proxy::Borrowed, kOfText),
    };
}

std::vector<Operation> otherOperations()
{
    const Kind* const device = &kDeviceKind;
    const Call getServices = [](Bluez& client, const std::string& path) {
        return outcome(client.getServices(path, Bluez::Service::Type::Battery).size() == 1);
    };
    const Call itemsFor = [](Bluez& client, const std::string& path) {
        return outcome(client.itemsFor(path) == kit::Lines{kService});
    };
    return {
        {{"deviceSetTrusted"}, device, set<&Bluez::deviceSetTrusted, true>, Proxy::Borrowed},
        {{"devicePair"}, device, act<&Bluez::devicePair>, Proxy::Borrowed},
        {{"getServices"}, device, getServices, Proxy::None},
        {{"itemsFor"}, device, itemsFor, Proxy::None},
    };
}

template <typename Predicate>
std::vector<Operation> operationsThat(Predicate predicate)
{
    std::vector<Operation> found;
    std::copy_if(operations().begin(), operations().end(), std::back_inserter(found), predicate);
    return found;
}

} // namespace

const std::vector<Operation>& operations()
{
    static const std::vector<Operation> all = [] {
        std::vector<Operation> joined;
        for (const auto& part :
             {cacheOperations(), adapterAndDeviceCalls(), characteristicCalls(), otherOperations()}) {
            joined.insert(joined.end(), part.begin(), part.end());
        }
        return joined;
    }();
    return all;
}

std::vector<Operation> cacheReads()
{
    return operationsThat([](const Operation& operation) { return operation.property.name != nullptr; });
}

std::vector<Operation> calls()
{
    return operationsThat([](const Operation& operation) { return operation.message.method != nullptr; });
}

std::vector<Operation> operationsThroughAProxy()
{
    return operationsThat([](const Operation& operation) { return operation.proxy != Proxy::None; });
}

ABusWithEverything::ABusWithEverything()
{
    for (const Kind& kind : kKinds) {
        PropertyMap properties;
        for (const Operation& operation : operations()) {
            const Property& property = operation.property;
            if (operation.kind == &kind && property.name != nullptr) {
                properties[property.name] = Variant::parse(property.first);
            }
        }
        addObject(kind.path, kind.interface, properties);
    }
    for (const Operation& operation : calls()) {
        sim->bend(Bend::answer(operation.message.method, Variant::parse(operation.message.reply)));
    }
    sim->bend(Bend::answer("Get", Variant::parse("(<true>,)")).property("Paired"));
    sim->bend(Bend::answer("Pair", nothing()));
}
