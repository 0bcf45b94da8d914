// SPDX-License-Identifier: MIT
// Common behaviour of the client's operations on a path, tested with the table in BluezOperations.h.
#include <algorithm>

#include "Bluez.h"
#include "tests/client/BluezOperations.h"
#include "tests/client/GioSpy.h"

namespace
{

using std::chrono_literals::operator""ms;

/// A path of the same kind that no object has.
std::string unknownOf(const Operation& operation)
{
    return std::string(operation.kind->path) + "7";
}

kit::Lines oneOrNone(const std::string& line)
{
    return line.empty() ? kit::Lines{} : kit::Lines{line};
}

class AnOperation : public ABusWithEverything, public testing::WithParamInterface<Operation>
{
protected:
    void SetUp() override
    {
        ABusWithEverything::SetUp();
        start();
        sim->clearCalls();
        log.clear();
    }

    std::string call(const std::string& path) { return operation.call(*client, path); }
    std::string call() { return call(operation.kind->path); }

    const Operation& operation = GetParam();
};

// --- The path ---

TEST_P(AnOperation, IsRefusedForAnEmptyPathWithoutAnEntry)
{
    const kit::Lines before = known();

    EXPECT_EQ(call(""), operation.refused);

    EXPECT_EQ(log.lines(), oneOrNone(operation.complaints.emptyPath));
    EXPECT_EQ(known(), before);
    EXPECT_TRUE(sim->calls().empty());
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperation, testing::ValuesIn(operations()), kit::named);

using AnOperationThroughAProxy = AnOperation;

TEST_P(AnOperationThroughAProxy, IsRefusedForAnUnknownPathAndLeavesAnEntry)
{
    const std::string unknown = unknownOf(operation);
    const std::string complaint = operation.complaints.unknownPath;
    kit::Lines before = known();

    EXPECT_EQ(call(unknown), operation.refused);

    EXPECT_EQ(log.lines(), complaint.empty() ? kit::Lines{} : kit::Lines{complaint + unknown});
    expectFromGlib(oneOrNone(operation.complaints.glib));
    kit::Lines after = known();
    after.erase(std::remove(after.begin(), after.end(), operation.kind->entry(unknown)), after.end());
    EXPECT_EQ(after, before);
    EXPECT_EQ(known().size(), before.size() + 1);
    EXPECT_TRUE(sim->calls().empty());
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AnOperationThroughAProxy, testing::ValuesIn(operationsThroughAProxy()),
                         kit::named);

// --- Cached properties ---

class AReadOfTheCache : public ABusWithBlueZ, public testing::WithParamInterface<Operation>
{
protected:
    void startWith(const PropertyMap& properties)
    {
        addObject(operation.kind->path, operation.kind->interface, properties);
        start();
        sim->clearCalls();
        log.clear();
    }

    std::string read() { return operation.call(*client, operation.kind->path); }

    const Operation& operation = GetParam();
    const Property& property = operation.property;
};

TEST_P(AReadOfTheCache, GivesTheLatestValueWithoutTraffic)
{
    startWith({{property.name, Variant::parse(property.first)}});
    const OutgoingMessages outgoing(connection());
    EXPECT_EQ(read(), property.first);

    sim->setProperty(operation.kind->path, operation.kind->interface, property.name,
                     Variant::parse(property.second));
    settle();

    EXPECT_EQ(read(), property.second);
    settle();
    EXPECT_EQ(outgoing.members(), kit::Lines{});
    EXPECT_TRUE(sim->calls().empty());
    EXPECT_EQ(log.lines("EW"), kit::Lines{});
}

TEST_P(AReadOfTheCache, IsRefusedInSilenceWithoutAValue)
{
    startWith({{"Icon", text("other")}});

    EXPECT_EQ(read(), operation.refused);

    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_P(AReadOfTheCache, IsRefusedInSilenceIfTheValueIsOfAWrongType)
{
    startWith({{property.name, Variant::parse(property.wrong)}});

    EXPECT_EQ(read(), operation.refused);

    EXPECT_EQ(log.lines(), kit::Lines{});
    expectFromGlib({});
}

INSTANTIATE_TEST_SUITE_P(OnAPath, AReadOfTheCache, testing::ValuesIn(cacheReads()), kit::named);

using ATextOfAnyKind = ABusWithBlueZ;

TEST_F(ATextOfAnyKind, NeedsAPropertyAndAKind)
{
    start();
    log.clear();
    std::string word = "before";

    EXPECT_FALSE(client->getCachedProperty("", "", word));
    EXPECT_FALSE(client->getCachedProperty(kAdapter, "", word));
    EXPECT_FALSE(client->getCachedProperty("/of/no/kind", "UUID", word));

    EXPECT_EQ(log.lines(), (kit::Lines{"E Empty object path", "E Empty property name"}));
    EXPECT_EQ(word, "before");
    EXPECT_EQ(known(), kit::Lines{});
}

// --- Calls ---

class ACall : public AnOperation
{
protected:
    bool isThroughAProxy() const { return operation.proxy != Proxy::None; }
    /// Expects how the call ends if it gets this error.
    void expectFailure(const std::string& error)
    {
        EXPECT_EQ(call(), operation.message.outcomeOfError);

        kit::Lines expected = oneOrNone(operation.message.asksForError ? error : "");
        expected.insert(expected.end(), operation.message.errors.begin(), operation.message.errors.end());
        EXPECT_EQ(log.lines(), expected);
    }
};

TEST_P(ACall, IsOneMessageToItsObject)
{
    EXPECT_EQ(call(), operation.message.outcome);

    const auto sent = sim->calls();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].path, operation.kind->path);
    EXPECT_EQ(sent[0].interface, isThroughAProxy() ? operation.kind->interface : kPropertiesInterface);
    EXPECT_EQ(sent[0].member, operation.message.method);
    EXPECT_EQ(sent[0].parameters.text(), operation.message.parameters);
    EXPECT_EQ(log.lines(), kit::Lines{});
}

TEST_P(ACall, HasTheLibrarysTimeout)
{
    const GioSpy spy;

    call();

    const auto made = spy.calls();
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(made[0].function, isThroughAProxy() ? "g_dbus_proxy_call_sync" : "g_dbus_connection_call_sync");
    EXPECT_EQ(made[0].flags, 0);
    EXPECT_EQ(made[0].timeoutMs, -1);
    EXPECT_FALSE(made[0].cancellable);
    EXPECT_EQ(made[0].error, operation.message.asksForError);
}

TEST_P(ACall, LogsWhyItWasRefused)
{
    sim->bend(Bend::error(operation.message.method, "org.bluez.Error.Failed", "Operation %d failed"));

    expectFailure("E GDBus.Error:org.bluez.Error.Failed: Operation %d failed");
}

TEST_P(ACall, LogsThatItTimedOut)
{
    sim->bend(Bend::silence(operation.message.method));
    GioSpy spy;
    spy.setDefaultTimeout(50ms);

    expectFailure("E Timeout was reached");
}

INSTANTIATE_TEST_SUITE_P(By, ACall, testing::ValuesIn(calls()), kit::named);

class ACallWithoutAResult : public ACall
{
};

TEST_P(ACallWithoutAResult, IgnoresTheBodyOfItsReply)
{
    sim->bend(Bend::answer(operation.message.method, g_variant_new("(bs)", FALSE, "unasked")));

    EXPECT_EQ(call(), "done");

    EXPECT_EQ(log.lines(), kit::Lines{});
}

std::vector<Operation> callsWithoutAResult()
{
    std::vector<Operation> found = calls();
    found.erase(std::remove_if(
                    found.begin(), found.end(),
                    [](const Operation& operation) { return operation.message.reply != std::string("()"); }),
                found.end());
    return found;
}

INSTANTIATE_TEST_SUITE_P(By, ACallWithoutAResult, testing::ValuesIn(callsWithoutAResult()), kit::named);

using ACallThroughTheConnection = ABusWithBlueZ;

TEST_F(ACallThroughTheConnection, GoesOutForAnUnknownPathAndLeavesNoEntry)
{
    addAdapter();
    start();
    for (const Operation& operation : calls()) {
        if (operation.proxy != Proxy::None) {
            continue;
        }
        SCOPED_TRACE(operation.name);
        sim->clearCalls();
        log.clear();

        EXPECT_EQ(operation.call(*client, unknownOf(operation)), "refused");

        EXPECT_EQ(sim->calls(operation.message.method, unknownOf(operation)).size(), 1U);
        const kit::Lines errors = log.lines();
        ASSERT_EQ(errors.size(), operation.message.asksForError ? 1U : 0U);
        EXPECT_TRUE(errors.empty() || errors[0].rfind("E GDBus.Error:org.freedesktop.DBus.Error.", 0) == 0)
            << errors[0];
        EXPECT_EQ(known(), kit::Lines{kAdapterKind.entry()});
    }
}

} // namespace
