// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <gio/gio.h>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "sim/program/Arguments.h"
#include "sim/program/Narrator.h"

namespace vexasim
{

/// The object /sim, by which users and scripts control the program; its methods are documented in
/// docs/simulator.md. Lives on the thread of the default main context, which must be iterated.
class ControlObject
{
public:
    using Names = std::vector<std::string>;
    struct Result {
        std::string name;
        std::string type;
    };

    /// From `publish` on, the narrator's lines are also emitted as the signal Happened.
    explicit ControlObject(Narrator& narrator) : mNarrator(narrator) {}
    ~ControlObject();
    ControlObject(const ControlObject&) = delete;
    ControlObject& operator=(const ControlObject&) = delete;

    /// Adds a method; call it before `publish`. The method has the parameters of `function`, named by
    /// `names`. If `result` is given, `function` returns a Variant. An exception from it becomes a D-Bus
    /// error.
    template <typename Function>
    void method(const std::string& member, const Names& names, Function function, const Result& result = {})
    {
        add(member, names, result, std::function{std::move(function)});
    }

    /// Joins the bus, takes the name and serves. Throws std::runtime_error.
    void publish(const std::string& busAddress);

private:
    /// Takes the tuple of arguments, returns the result or an empty variant.
    using Method = std::function<Variant(GVariant*)>;

    template <typename Return, typename... Values>
    void add(const std::string& member, const Names& names, const Result& result,
             const std::function<Return(Values...)>& function)
    {
        describe(member, names, {control::Argument<std::decay_t<Values>>::kType...}, result);
        mMethods[member] = [function](GVariant* arguments) {
            return call(function, arguments, std::index_sequence_for<Values...>{});
        };
    }

    template <typename Return, typename... Values, std::size_t... kPlaces>
    static Variant call(const std::function<Return(Values...)>& function,
                        [[maybe_unused]] GVariant* arguments, std::index_sequence<kPlaces...>)
    {
        const auto invoke = [&] {
            return function(control::Argument<std::decay_t<Values>>::read(
                Variant(g_variant_get_child_value(arguments, kPlaces)).get())...);
        };
        if constexpr (std::is_void_v<Return>) {
            invoke();
            return {};
        } else {
            return invoke();
        }
    }

    void describe(const std::string& member, const Names& names, const Names& types, const Result& result);
    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char* member,
                       GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);

    Narrator& mNarrator;
    std::string mDescriptions; ///< introspection XML of the methods
    std::map<std::string, Method> mMethods;
    GDBusConnection* mConnection = nullptr;
};

} // namespace vexasim
