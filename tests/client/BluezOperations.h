// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "tests/client/BluezTest.h"

// The client's operations on a path as one table, for tests that apply to all of them or to all of one kind.

/// Whether an operation holds a reference to the proxy that it has found while it uses it.
enum class Proxy { Shared, Borrowed, None };

/// The lines that an operation logs when it is refused, none where the text is empty.
struct Complaints {
    const char* unconnected = "";
    const char* emptyPath = "";
    const char* unknownPath = ""; ///< the path follows
    const char* glib = "";        ///< for an unknown path, by GLib
};

/// The property that an operation reads from a proxy's cache, with two values and one of a wrong type.
struct Property {
    const char* name = nullptr; ///< null for an operation that reads none
    const char* first = "";
    const char* second = "";
    const char* wrong = "";
};

/// The one message that an operation sends.
struct BusMessage {
    const char* method = nullptr; ///< null for an operation that sends none or several (devicePair)
    const char* parameters = "()";
    const char* outcomeOfError = "refused";
    const char* reply = "()"; ///< of a successful call
    const char* outcome = "done";
    kit::Lines errors = {};   ///< logged after the error itself
    bool asksForError = true; ///< if false, an error isn't logged
};

struct Operation : kit::NamedCase {
    const Kind* kind;
    /// "done" or the value as GVariant text, "refused", or what went wrong.
    std::string (*call)(Bluez&, const std::string& path);
    Proxy proxy;
    Complaints complaints = {};
    Property property = {};
    BusMessage message = {};
    const char* refused = "refused";
};

/// Every operation on a path.
const std::vector<Operation>& operations();
/// Those that read a property from the cache.
std::vector<Operation> cacheReads();
/// Those that send one message.
std::vector<Operation> calls();
/// Those that look for a proxy.
std::vector<Operation> operationsThroughAProxy();

/// A client with an object of each kind, which has everything that the operations need.
class ABusWithEverything : public ABusWithBlueZ
{
protected:
    ABusWithEverything();
};
