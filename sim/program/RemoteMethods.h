// SPDX-License-Identifier: MIT
#pragma once

#include <functional>
#include <string>

#include "sim/model/Remote.h"
#include "sim/program/ControlObject.h"

namespace vexasim
{

/// The box's files that the program writes.
struct BoxFiles {
    std::string adcFile;      ///< the button; "" for none
    std::string tmpDirectory; ///< where flags and the firmware link go; "" for none
};

/// The control object's methods for the box, the remote and its update, which the simulated BlueZ and the air
/// share.
class RemoteMethods
{
public:
    /// `remote` is called at each method call. `object` must outlive this.
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
    unsigned mRelease = 0; ///< GLib source that releases the button; 0 for none
};

/// Reads a whole file. Throws std::runtime_error.
Bytes readFile(const std::string& path);

} // namespace vexasim
