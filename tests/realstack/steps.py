# SPDX-License-Identifier: MIT
"""Steps that many cases on the real stack share, and how long they wait for them."""

# From a request until the daemon sees it, with room for a slow machine.
SOON = 60
# A connection, a pairing, or a removal with all its effects.
LATER = 120
# Longer than a silent remote makes bluetoothd or the D-Bus library wait.
LATEST = 180

# Logged when the daemon learns that bluetoothd has dropped the remote.
REMOVED = "Device: - /org/bluez/hci0/dev_C0_FF_EE_00_00_01"

# Logged when the daemon has forgotten its remote.
REMOTE_GONE = "REMOVE /tmp/bluetooth_rc\n"

KERNEL_DISCOVERY = 12

# Up to this version the object of a remote that is removed while connected
# outlives the discovery that follows ...
KEEPS_CONNECTED = (5, 55)
# ... and from this one on the object of a remote that has lost its bond.
KEEPS_REFUSED = (5, 82)

UPDATE_BLOCKS = 100
UPDATE_BYTES = 20 * UPDATE_BLOCKS


def start_daemon_without_remote(box):
    box.start_daemon()
    box.await_log("Waiting RC...", LATER)
    # The five seconds for which it waits for a remote.
    box.clock.skip(5)
    box.await_status("no device", SOON)
    box.note_memory()


def pair(box, flag="pair"):
    box.set_flag(flag)
    box.await_status("scanning", SOON)
    box.await_status("connected", LATER)
    box.await_services()


def paired_box(box):
    """From a cold start to "connected": init, no device, scanning, pairing?, connected."""
    box.start_all()
    start_daemon_without_remote(box)
    pair(box)


PAIRED_COURSE = ("init", "no device", "scanning", "pairing?", "connected")


def read_battery(box, version):
    """Skips the fifteen seconds after a connection."""
    box.await_services()
    box.clock.skip(16)
    box.await_file("bluetooth_rc_battery", "80", SOON)
    box.await_file("bluetooth_rc_fw_version", version, SOON)


def lose_link_for_good(box):
    """The remote goes out of range."""
    box.play("Leave")
    box.await_status("disconnected", SOON)


def lose_link(box):
    """The remote's radio is silent for the link's supervision timeout."""
    lose_link_for_good(box)
    box.play("ComeBack")


def ask_to_connect(box):
    """What pressing a key does on most boxes."""
    box.set_flag("pair")
    box.await_status("connecting", SOON)
    box.await_status("connected", LATER)


def offer_update(box, version):
    box.offer(box.image(version, UPDATE_BYTES))
    box.await_status("rc_fw_update_preparing", SOON)


def pair_anew(box, in_vain):
    """Pairs again through the reset flag. The first attempt is in vain if bluetoothd
    keeps the remote's object until half a minute after discovery, and so announces
    no new one. Returns the words before the last "scanning" in the course."""
    if not in_vain:
        pair(box, "reset")
        return ()
    removals = box.count(REMOVED)
    sights = box.count("rssi changed")
    box.set_flag("reset")
    # Discovery sees the remote as its old object.
    box.await_log("rssi changed", SOON, sights + 1)
    box.clock.skip(60)
    box.await_status("no device", SOON)
    box.await_log(REMOVED, LATER, removals + 1)
    pair(box, "reset")
    return ("scanning", "no device")


class Removal:
    """A block in which bluetoothd drops the remote's object. Ends when the daemon has forgotten it."""

    def __init__(self, box):
        self.box = box

    def __enter__(self):
        self.gone = self.box.count(REMOTE_GONE)

    def __exit__(self, kind, *_):
        if kind is None:
            self.box.await_log(REMOTE_GONE, LATER, self.gone + 1)


# What a pass can see while bluetoothd ends or the adapter goes.
GONE_COURSE = ("disconnected?", "error?", "no device")
