// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Bluez.h"
#include "tests/kit/LogRecorder.h"

/**
 * Records every callback as one line of text, "onDeviceRSSIChanged /org/bluez/... -40", and lets a test wait
 * for one. It also keeps copies of the records that it was given. Any thread may call it.
 */
class RecordingListener : public Bluez::Listener
{
public:
    using Service = Bluez::Service;
    using Characteristic = Bluez::Service::Characteristic;
    using Descriptor = Bluez::Service::Characteristic::Descriptor;

    struct Value {
        Characteristic characteristic;
        std::vector<std::uint8_t> bytes;
    };

    /// Runs at the end of every callback, on its thread; set it before the events.
    std::function<void(const std::string& event)> onEvent;

    kit::Lines events() const
    {
        const std::lock_guard lock(mMutex);
        return mEvents;
    }
    std::size_t count(const std::string& event) const
    {
        const std::lock_guard lock(mMutex);
        return countLocked(event);
    }
    /// Waits until the event has come `times` times; false on timeout.
    bool await(const std::string& event, std::size_t times = 1) const
    {
        std::unique_lock lock(mMutex);
        return mNews.wait_for(lock, kit::kPatience, [&] { return countLocked(event) >= times; });
    }
    /// Waits until there are `times` events of any kind.
    bool awaitAny(std::size_t times) const
    {
        std::unique_lock lock(mMutex);
        return mNews.wait_for(lock, kit::kPatience, [&] { return mEvents.size() >= times; });
    }
    void clear()
    {
        const std::lock_guard lock(mMutex);
        mEvents.clear();
        mServices.clear();
        mCharacteristics.clear();
        mDescriptors.clear();
        mValues.clear();
    }

    std::vector<Service> services() const { return copyOf(mServices); }
    std::vector<Characteristic> characteristics() const { return copyOf(mCharacteristics); }
    std::vector<Descriptor> descriptors() const { return copyOf(mDescriptors); }
    std::vector<Value> values() const { return copyOf(mValues); }
    /// The threads on which callbacks ran.
    std::set<std::thread::id> threads() const { return copyOf(mThreads); }

    void onAdapterAdded(const std::string& path) override { record("onAdapterAdded " + path); }
    void onAdapterRemoved(const std::string& path) override { record("onAdapterRemoved " + path); }
    void onDeviceAdded(const std::string& path) override { record("onDeviceAdded " + path); }
    void onDeviceRemoved(const std::string& path) override { record("onDeviceRemoved " + path); }
    void onDeviceRSSIChanged(const std::string& path, std::int16_t dBm) override
    {
        record("onDeviceRSSIChanged " + path + " " + std::to_string(dBm));
    }
    void onDevicePairedStatusChanged(const std::string& path, bool paired) override
    {
        record("onDevicePairedStatusChanged " + path + word(paired));
    }
    void onDeviceConnectionStatusChanged(const std::string& path, bool connected) override
    {
        record("onDeviceConnectionStatusChanged " + path + word(connected));
    }
    void onDeviceServicesResolvedStatusChanged(const std::string& path, bool resolved) override
    {
        record("onDeviceServicesResolvedStatusChanged " + path + word(resolved));
    }
    void onServiceAdded(const std::string& path, const Service& service) override
    {
        record("onServiceAdded " + path, mServices, service);
    }
    void onServiceRemoved(const std::string& path) override { record("onServiceRemoved " + path); }
    void onCharacteristicAdded(const std::string& path, const Characteristic& characteristic) override
    {
        record("onCharacteristicAdded " + path, mCharacteristics, characteristic);
    }
    void onCharacteristicRemoved(const std::string& path) override
    {
        record("onCharacteristicRemoved " + path);
    }
    void onDescriptorAdded(const std::string& path, const Descriptor& descriptor) override
    {
        record("onDescriptorAdded " + path, mDescriptors, descriptor);
    }
    void onDescriptorRemoved(const std::string& path) override { record("onDescriptorRemoved " + path); }
    void onGattCharacteristicChanged(const Characteristic& characteristic,
                                     const std::vector<std::uint8_t>& bytes) override
    {
        std::string event = "onGattCharacteristicChanged " + characteristic.path;
        for (const std::uint8_t byte : bytes) {
            event += " " + std::to_string(byte);
        }
        record(event, mValues, Value{characteristic, bytes});
    }

private:
    static const char* word(bool value) { return value ? " true" : " false"; }

    template <typename Kept>
    Kept copyOf(const Kept& kept) const
    {
        const std::lock_guard lock(mMutex);
        return kept;
    }

    template <typename Record>
    void record(const std::string& event, std::vector<Record>& records, const Record& copy)
    {
        {
            const std::lock_guard lock(mMutex);
            records.push_back(copy);
        }
        record(event);
    }

    void record(const std::string& event)
    {
        {
            const std::lock_guard lock(mMutex);
            mEvents.push_back(event);
            mThreads.insert(std::this_thread::get_id());
            mNews.notify_all();
        }
        if (onEvent) {
            onEvent(event);
        }
    }

    std::size_t countLocked(const std::string& event) const
    {
        return static_cast<std::size_t>(std::count(mEvents.begin(), mEvents.end(), event));
    }

    mutable std::mutex mMutex;
    mutable std::condition_variable mNews;
    kit::Lines mEvents;
    std::vector<Service> mServices;
    std::vector<Characteristic> mCharacteristics;
    std::vector<Descriptor> mDescriptors;
    std::vector<Value> mValues;
    std::set<std::thread::id> mThreads;
};
