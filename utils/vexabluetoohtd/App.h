// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Bluez.h"
#include "NSTime.h"
#include "pthread_helper.h"

class RcuOtaUpdater;

/// What the main loop is doing.
enum State {
    State_eIdle = 0,       ///< normal running
    State_eActivation = 1, ///< the button is down; its hold time is being measured
    State_ePair = 2,       ///< pairing is due at the next pass
};

/// What an idle pass decides to do.
enum Action {
    Action_eDoNothing = 0,    ///< nothing to do; publish the status
    Action_eConnect = 1,      ///< try to connect the paired remote
    Action_ePair = 2,         ///< go to State_ePair
    Action_eUpdate = 3,       ///< update the remote's firmware
    Action_eRemoveDevice = 4, ///< drop the known remote, which isn't paired
};

/**
 * The daemon: manages one remote control and exchanges small files under /tmp with the rest of the box.
 *
 * The one instance is owned by `gApp`. main() calls init, process and deinit on the main thread, in this
 * order; the handlers of Bluez::Listener run on the stack client's event thread, record events under `mMutex`
 * and leave the decisions to the main thread.
 */
class App : public Bluez::Listener
{
public:
    App();
    /// After a second interrupt the event thread still runs, and the process ends here: with status 1, or
    /// through the check of mMutex if any thread holds it.
    ~App() override;
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    /// Creates the stack client, waits without a limit for an adapter, powers it, and gives a known remote
    /// five seconds to connect.
    void init();
    /// The main loop: two passes a second until an interrupt.
    void process();
    /// Destroys the stack client and removes the published files.
    void deinit();

    void onAdapterAdded(const std::string& path) override;
    void onAdapterRemoved(const std::string& path) override;
    void onDeviceAdded(const std::string& path) override;
    void onDeviceRemoved(const std::string& path) override;
    void onDeviceRSSIChanged(const std::string& path, std::int16_t dBm) override;
    void onDevicePairedStatusChanged(const std::string& path, bool paired) override;
    void onDeviceConnectionStatusChanged(const std::string& path, bool connected) override;
    void onDeviceServicesResolvedStatusChanged(const std::string& path, bool resolved) override;
    void onServiceAdded(const std::string& path, const Bluez::Service& service) override;
    void onServiceRemoved(const std::string& path) override;
    void onCharacteristicAdded(const std::string& path,
                               const Bluez::Service::Characteristic& characteristic) override;
    void onCharacteristicRemoved(const std::string& path) override;
    void onDescriptorAdded(const std::string& path,
                           const Bluez::Service::Characteristic::Descriptor& descriptor) override;
    void onDescriptorRemoved(const std::string& path) override;

private:
    friend void signalHandler(int signal);

    /// The tracked remote; replaced as a whole when the remote changes or is forgotten.
    struct RcInfo {
        std::string path; ///< empty: no remote is known
        std::string address;
        std::string name;
        std::string batteryServicePath;
        std::string batteryLevelPath;
        std::string fwVersionPath;
        std::string otaPath;
        std::uint32_t fwVersion = 0; ///< 0: unknown
        bool paired = false;
        bool connected = false;
        bool hasBatteryService = false;
    };

    /// The state of the battery reading; a fresh one restarts the wait before the next reading.
    struct BatteryInfo {
        NSTime delayStart = NSTime::nowRelative();
        std::uint16_t delay = 15; ///< seconds after delayStart
        NSTime lastRead;          ///< zero: never
        std::uint16_t level = 0;  ///< percent
        bool shouldRead = false;
        bool valid = false; ///< level may be published
    };

    /// What an update needs to know, taken under mMutex.
    struct UpdateRequest {
        std::string adapterPath;
        std::string rcAddress;
        std::string otaPath;
        std::string firmwareLocation;
        std::uint32_t rcVersion = 0;
        std::uint16_t batteryLevel = 0;
    };

    /// Holds mMutex for a scope and records that for ~App.
    class Lock
    {
    public:
        enum By { MainThread, Handler };

        /// A handler announces itself first, so that the main thread yields to it.
        Lock(App& app, By by);
        ~Lock() { unlock(); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        /// Unlocks early. The destructor then unlocks once more, which mutex::unlock() ignores.
        void unlock();

    private:
        App& mApp;
        bool mHolding = true;
    };

    /// Holds mMutex for a step of the main thread that passes paths to mBluez. Events that BlueZ has already
    /// reported are handled before it, and nothing is removed from the client's copy of the tree during it.
    class Section
    {
    public:
        explicit Section(App& app);
        ~Section();
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;

        /// Whether the removal of `path` has begun: such a path must not be looked up any more.
        bool isGoing(const std::string& path) const { return mRemovals.isGoing(path); }
        /// Whether the first of mAdapters, which is the one in use, can be looked up.
        bool hasAdapter() const { return !mApp.mAdapters.empty() && !isGoing(mApp.mAdapters.front()); }

    private:
        App& mApp;
        RemovalGate& mRemovals;
        std::optional<Lock> mLock;
    };

    void waitForAdapter();
    bool findAdapter(std::string& path, std::optional<std::string>& address);
    void powerAdapter(const std::string& path, const std::optional<std::string>& address);
    void waitForRc();
    bool bringUpRc();

    State idle(int buttonLevel, NSTime& pressStart);
    State activate(int buttonLevel, const NSTime& pressStart);
    State serveRequests();
    Action whatToDo();
    Action whatToDoWithRc(bool pairFlag);
    Action whatToDoWithAbsentRc(bool pairFlag);
    bool takeFirmwareLink();
    void connectRc();
    void removeUnpairedRc();

    void pair();
    void forgetAllDevices();
    bool startScan();
    bool stopScan();
    bool reportScan();
    bool requestPairing();
    void reportPairing();
    void await(pthread_helper::cond& condition, const NSTime& start, std::time_t limit,
               bool (App::*reached)() const);
    bool rcFound() const;
    bool rcPaired() const;

    void writeStatus();
    bool refreshRc();
    void publishRc() const;
    void scheduleReading();
    bool readingDue() const;
    void readBattery(const Section& section);
    void readFwVersion(const Section& section);

    void processUpdate();
    void updateRc(const UpdateRequest& request);
    static void runUpdate(RcuOtaUpdater& updater, const UpdateRequest& request);

    std::shared_ptr<Bluez> mBluez;      ///< main thread only; handlers use Bluez::ofThisThread
    std::vector<std::string> mAdapters; ///< only the first is used
    std::vector<std::string> mDevices;  ///< remote or not
    RcInfo mRc;
    pthread_helper::mutex mMutex; ///< guards mAdapters, mDevices, mRc and mBattery
    pthread_helper::cond mRcFoundCond;
    pthread_helper::cond mRcPairedCond;
    bool mAdapterReady = false;   ///< an adapter has been powered once; never cleared
    bool mReconnectArmed = false; ///< the wait before the next reconnection is running
    bool mRunning = true;         ///< cleared only by signalHandler, without a lock; polled by the loops
    NSTime mReconnectSince;
    BatteryInfo mBattery;
    std::string mFirmwarePath;
    std::atomic<bool> mLocked{false};       ///< a thread holds mMutex; false while it waits on a condition
    std::atomic<bool> mMayUpdate{false};    ///< checking for a link, or its update is running
    std::atomic<bool> mHandlerWaits{false}; ///< the event thread is about to take mMutex
};

/// The only instance; the signal handler's only access to it.
extern std::unique_ptr<App> gApp;

/// Replaces the content of the file `path` by `text` and a newline. Does nothing if either is empty. Anything
/// at `path` other than a regular file of the daemon's own user is removed first. Errors are ignored.
void writeFile(const std::string& text, const std::string& path);

/// Handles SIGINT: the first shuts the daemon down in order, the second ends it at once with status 1.
void signalHandler(int signal);
