// SPDX-License-Identifier: MIT
#pragma once

#include <gio/gio.h>
#include <memory>

/**
 * Owners of GLib's plain resources, each released on every way out of its scope. A GVariant's is
 * Bluez::GVariantHolder, a proxy's Bluez::ProxyPtr. One thread at a time may use an owner.
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

/// The error that a call leaves behind, if any.
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
    /// What went wrong, in the words of who reported it; only if something did.
    const char* message() const { return mError->message; }
    bool matches(GQuark domain, int code) const { return g_error_matches(mError, domain, code) != FALSE; }

private:
    GError* mError = nullptr;
};

} // namespace glib_owner
