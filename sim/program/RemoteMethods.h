// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <string>

#include "sim/model/Remote.h"
#include "sim/program/ControlObject.h"

namespace vexasim
{

/// What of the box the program may touch.
struct BoxFiles {
    std::string adcFile;      ///< the button; "" for none
    std::string tmpDirectory; ///< where flags and the firmware link go; "" for none
};

/// The methods of the control object that concern the box around the daemon, the remote and its update: the
/// same for the simulated BlueZ and for the air.
class RemoteMethods
{
public:
    /// `remote` is asked at each call. The object must live as long as this.
    RemoteMethods(ControlObject& object, std::function<Remote&()> remote, BoxFiles files);
    ~RemoteMethods();
    RemoteMethods(const RemoteMethods&) = delete;
    RemoteMethods& operator=(const RemoteMethods&) = delete;

private:
    void addBoxMethods();
    void addRemoteMethods();
    void addUpdateMethods();

    void pressButton(bool pressed) const;
    void holdButton(unsigned milliseconds);
    void setFlag(const std::string& flag) const;
    void offerImage(const std::string& file);

    ControlObject& mObject;
    std::function<Remote&()> mRemote;
    BoxFiles mFiles;
    unsigned mRelease = 0; ///< source that lets the button go
};

/// Reads a whole file. Throws std::runtime_error.
Bytes readFile(const std::string& path);

} // namespace vexasim
