// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>
#include <memory>

/**
 * Owners of plain GLib resources, which are released at the end of the scope. For a GVariant use
 * Bluez::GVariantHolder, for a proxy Bluez::ProxyPtr. Only one thread at a time may use an owner.
 */
namespace glib_owner
{

/// Calls `release` for std::unique_ptr.
template <auto release>
struct Release {
    template <typename Resource>
    void operator()(Resource* resource) const
    {
        release(resource);
    }
};

using Source = std::unique_ptr<GSource, Release<g_source_unref>>;
using Text = std::unique_ptr<char, Release<g_free>>;

/// The error that a call reports, if any.
class Error
{
public:
    Error() = default;
    ~Error() { g_clear_error(&mError); }
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;

    /// For the call's last parameter; for one call only.
    GError** out() { return &mError; }
    explicit operator bool() const { return mError != nullptr; }
    /// The text of the error; only to be called if there is one.
    const char* message() const { return mError->message; }
    bool matches(GQuark domain, int code) const { return g_error_matches(mError, domain, code) != FALSE; }

private:
    GError* mError = nullptr;
};

} // namespace glib_owner
