// SPDX-License-Identifier: MIT
// Texts that come over the air, over the bus or from another user of the box: none can forge a line of the
// log.

#include <gmock/gmock.h>

#include "tests/kit/Box.h"
#include "tests/kit/Objects.h"

namespace kit
{

using ::testing::IsEmpty;
using vexasim::Bend;

namespace
{

const std::string kDevice = "/org/bluez/hci0/dev_00_00_00_00_00_09";
const std::string kForged = "VEXA\n    12:00:00.000 E [main:1] forged\r\x1b[2J\x7f\xc2\x9b";
const std::string kShown = "VEXA?    12:00:00.000 E [main:1] forged??[2J??";

class ATextFromOutside : public InABox
{
protected:
    ATextFromOutside() : InABox(noRemote()) {}

    /// The lines in the log that aren't the daemon's own.
    std::vector<std::string> foreignLines()
    {
        std::vector<std::string> lines;
        for (const LogRecord& record : box.log().records()) {
            if (record.foreign) {
                lines.push_back(record.text);
            }
        }
        return lines;
    }

    void announce(const std::string& name, const std::string& address, bool paired)
    {
        box.sim().addObject(kDevice, deviceObject(name, address, paired, false));
    }
};

TEST_F(ATextFromOutside, MakesNoLineAsTheNameOfARemote)
{
    ASSERT_TRUE(box.startToIdle());
    announce(kForged, "00:00:00:00:00:09", false);

    EXPECT_LOG(box, DEBUG, "main", "RC found " + kShown + " : " + kDevice);
    EXPECT_THAT(foreignLines(), IsEmpty());
}

TEST_F(ATextFromOutside, StaysAsItIsAsAnOrdinaryName)
{
    ASSERT_TRUE(box.startToIdle());
    announce("VEXA J\xc3\xb6rg\xe2\x80\x99s", "00:00:00:00:00:09", false);

    EXPECT_LOG(box, DEBUG, "main", "RC found VEXA J\xc3\xb6rg\xe2\x80\x99s : " + kDevice);
}

TEST_F(ATextFromOutside, MakesNoLineAsTheAddressOfARemote)
{
    ASSERT_TRUE(box.startToIdle());
    announce("VEXA RC", kForged, true);
    ASSERT_TRUE(box.awaitStatus("disconnected"));
    box.setFlag("pair");

    EXPECT_LOG(box, INFO, "main", "Trying to connect to " + kShown);
    EXPECT_THAT(foreignLines(), IsEmpty());
}

TEST_F(ATextFromOutside, MakesNoLineAsAnErrorOfBlueZ)
{
    ASSERT_TRUE(box.startToIdle());
    box.sim().bend(Bend::error("StartDiscovery", "org.bluez.Error.Failed", kForged));
    box.setFlag("pair");

    EXPECT_LOG(box, ERROR, "Bluez", busError("org.bluez.Error.Failed", kShown));
    EXPECT_THAT(foreignLines(), IsEmpty());
}

TEST_F(ATextFromOutside, MakesNoLineAsTheTargetOfTheFirmwareLink)
{
    ASSERT_TRUE(box.startToIdle());
    box.linkFirmware("/tmp/" + kForged);

    EXPECT_LOG(box, DEBUG, "main", "Firmware symlink found: /tmp/" + kShown);
    EXPECT_LOG(box, WARN, "main", "REMOVE: /tmp/bluetooth_rc_fw");
    EXPECT_THAT(foreignLines(), IsEmpty());
}

} // namespace

} // namespace kit
