// SPDX-License-Identifier: MIT
#pragma once

#include "sim/program/ControlObject.h"
#include "sim/model/Remote.h"

#include <functional>
#include <string>

namespace vexasim
{

/// What of the box the program may touch.
struct BoxFiles {
    std::string adcFile;      ///< the button; "" for none
    std::string tmpDirectory; ///< where flags and the firmware link go; "" for none
};

/// The methods of the control object that every face of the remote has: the
/// box around the daemon, the remote in the hand, its update.
class RemoteControl
{
public:
    /// `remote` is asked at each call. The object must live as long as this.
    RemoteControl(ControlObject& object, std::function<Remote&()> remote, BoxFiles files);
    ~RemoteControl();
    RemoteControl(const RemoteControl&) = delete;
    RemoteControl& operator=(const RemoteControl&) = delete;

private:
    void addBoxMethods();
    void addRemoteMethods();
    void addUpdateMethods();

    void pressButton(bool pressed) const;
    void holdButton(unsigned milliseconds);
    void setFlag(const std::string& flag) const;
    void offerImage(const std::string& file);
    Variant status();
    Variant packets();

    ControlObject& mObject;
    std::function<Remote&()> mRemote;
    BoxFiles mFiles;
    unsigned mRelease = 0; ///< source that lets the button go
};

/// Reads a whole file. Throws std::runtime_error.
Bytes readFile(const std::string& path);

} // namespace vexasim
