// SPDX-License-Identifier: MIT
#include "sim/bluez/Bend.h"

#include <utility>

#include "sim/bluez/Names.h"

namespace vexasim
{

namespace
{
Bend make(Bend::Kind kind, const std::string& member)
{
    Bend bend;
    bend.kind = kind;
    bend.member = member;
    return bend;
}

/// The property that a call of Properties is about, "" for any other call.
std::string propertyOf(const Call& call)
{
    if (call.interface != names::kProperties || call.parameters.type().rfind("(ss", 0) != 0) {
        return "";
    }
    const char* name = nullptr;
    g_variant_get_child(call.parameters.get(), 1, "&s", &name);
    return name;
}
} // namespace

Bend Bend::error(const std::string& member, const std::string& name, const std::string& message)
{
    Bend bend = make(Kind::Error, member);
    bend.errorName = name;
    bend.errorMessage = message;
    return bend;
}

Bend Bend::answer(const std::string& member, Variant parameters)
{
    Bend bend = make(Kind::Answer, member);
    bend.parameters = std::move(parameters);
    return bend;
}

Bend Bend::silence(const std::string& member)
{
    return make(Kind::Silence, member);
}

Bend Bend::late(const std::string& member, std::chrono::milliseconds delay)
{
    Bend bend = make(Kind::Late, member);
    bend.delay = delay;
    return bend;
}

Bend Bend::lateReply(const std::string& member, std::chrono::milliseconds delay)
{
    Bend bend = make(Kind::LateReply, member);
    bend.delay = delay;
    return bend;
}

bool Bend::matches(const Call& call) const
{
    const auto fits = [](const std::string& wanted, const std::string& found) {
        return wanted.empty() || wanted == found;
    };
    return fits(member, call.member) && fits(objectPath, call.path) && fits(interfaceName, call.interface) &&
           (propertyName.empty() || propertyName == propertyOf(call));
}

std::string Call::text() const
{
    return path + " " + interface + "." + member + " " + parameters.text();
}

} // namespace vexasim
