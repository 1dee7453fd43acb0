#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into tests/fuzz/corpus/<target>/.

The seeds are realistic traffic: the reports and replies of the VM bed's simulated
controllers (tests/vm/scenarios), the report layouts the daemon parses, the settings file
as the daemon generates it (byte for byte, with one and with two device blocks) and the
simulator's report descriptors. Each seed starts with the configuration bytes its target
reads first (see the target's source). Files named regress-* are inputs that once crashed
a target; this script never touches them. Run it again after changing a target's input
format, and commit the result.
"""
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")
ROOT = os.path.dirname(os.path.dirname(HERE))


def write(target, name, data):
    path = os.path.join(CORPUS, target, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(bytes(data))


def chunks(*reads):
    """One length byte per read, then the read."""
    out = bytearray()
    for r in reads:
        assert len(r) <= 65
        out.append(len(r))
        out += bytes(r)
    return out


def hidraw(report):
    """A hidraw read: 0x00 in front of the report, padded to 65 bytes."""
    r = [0x00] + list(report)
    return r + [0] * (65 - len(r))


def config(series=10, raw=0, pcap=0, skip_first=0, event_type=2, to_tool=0, points=10,
           mouse=1, digitizer=1, mtouch=1, parallel=1, direction=0, orientation=0,
           edge=0, hold=0, split=0, vkey=0, vkey_mod=1, android=9, old_kernel=0,
           resx=0, resy=0, baud9600=0, bfw=0, sig_hook=None, self_hook=None):
    """The nine configuration bytes of fuzz_common.h ConfigureFromInput."""
    def shift(v):  # -1..4 -> nibble
        return v + 1
    mode = (raw & 3) | (pcap << 2) | (skip_first << 3) | ((event_type & 7) << 4) | (to_tool << 7)
    shifts = shift(mouse) | (shift(digitizer) << 4)
    shifts2 = shift(mtouch) | (shift(parallel) << 4)
    transform = direction | (orientation << 2) | (edge << 4) | (hold << 5) | \
        ((3 if split == 9 else split) << 6)
    misc = vkey | (vkey_mod << 1) | ((android & 0xF) << 3) | (old_kernel << 7)
    resolution = resx | (resy << 3) | (baud9600 << 6) | (bfw << 7)
    hook = 0
    if sig_hook is not None:
        hook |= 0x80 | (sig_hook & 0x7F)
    if self_hook is not None:
        hook |= 0x40 | ((self_hook - 0x20) & 0x3F)
    return bytes([series, mode, points, shifts, shifts2, transform, misc, resolution, hook])


def le16(v):
    return list(struct.pack("<H", v))


# --- USB reception ---------------------------------------------------------------------

def single(report_id, status, x, y):
    return [report_id, status] + le16(x) + le16(y)


def frame06(count, slots):
    r = [0x06, count]
    for state, cid, x, y in slots:
        r += [state, cid] + le16(x) + le16(y) + [0] * 4
    return r


def frame17(count, slots):
    r = [0x17, count]
    for state, cid, x, y in slots:
        r += [state, cid] + le16(x) + [0, 0] + le16(y) + [0] * 6
    return r


def pen(status, x, y, z, tilt_x, tilt_y):
    return [0x02, status] + le16(x) + le16(y) + le16(z) + le16(tilt_x & 0xFFFF) + \
        le16(tilt_y & 0xFFFF)


def usb_seeds():
    t = "usb_reception"
    # The bed's USB simulator: mouse report down and up (0x01), the loop-back reply.
    write(t, "bed-usb-mouse", config() + chunks(
        hidraw([0x03, 0x02, 0x41, 0x00]),
        hidraw(single(0x01, 0x01, 0x0800, 0x0400)),
        hidraw(single(0x01, 0x00, 0x0FFF, 0x0FFF))))
    # Single-contact touch reports 0x04 down, move, up, unshifted and shifted.
    write(t, "touch-04", config(series=8) + chunks(
        hidraw(single(0x04, 0x05, 0x1234, 0x0678)),
        hidraw(single(0x04, 0x05, 0x1240, 0x0680)),
        hidraw(single(0x04, 0x04, 0x1240, 0x0680))))
    write(t, "touch-04-shift3", config(series=12, mtouch=3, event_type=1) + chunks(
        hidraw(single(0x04, 0x01, 0x7FFF, 0x4000)),
        hidraw(single(0x04, 0x00, 0x7FFF, 0x4000))))
    # Series 11: the 0x04 report with two contacts (byte 17 = 2).
    special = [0x04, 0x01, 0, 0, 0] + le16(0x0400) + le16(0x0800) + [0x01, 0, 0, 1] + \
        le16(0x0C00) + le16(0x0200) + [2]
    write(t, "touch-04-series11", config(series=11, mtouch=2) + chunks(hidraw(special)))
    # 0x06 frame of seven contacts in two packets, then all lifted.
    down = [(1, i, 300 * i + 100, 200 * i + 50) for i in range(7)]
    up = [(0, i, 300 * i + 100, 200 * i + 50) for i in range(7)]
    write(t, "frame-06-seven", config(parallel=1) + chunks(
        hidraw(frame06(7, down[:5])), hidraw(frame06(0, down[5:])),
        hidraw(frame06(7, up[:5])), hidraw(frame06(0, up[5:]))))
    write(t, "frame-06-android-a", config(event_type=4, android=4, hold=1, edge=1) + chunks(
        hidraw(frame06(2, [(1, 0, 1000, 1000), (1, 1, 3000, 3000)])),
        hidraw(frame06(2, [(1, 0, 1005, 1003), (0, 1, 3000, 3000)])),
        hidraw(frame06(1, [(0, 0, 1005, 1003)]))))
    # 0x17 frames (the bed's multi-touch descriptor), with orientation and split screen.
    write(t, "frame-17", config(direction=1, orientation=1, split=9) + chunks(
        hidraw(frame17(2, [(1, 0, 100, 200), (1, 1, 300, 400)])),
        hidraw(frame17(2, [(1, 0, 110, 210), (0, 1, 300, 400)])),
        hidraw(frame17(1, [(0, 0, 110, 210)]))))
    # Pen reports (series above 21): in range, tip with pressure and tilt, eraser, out.
    write(t, "pen-02", config(series=25) + chunks(
        hidraw(pen(0x20, 2000, 1500, 0, 0, 0)),
        hidraw(pen(0x21, 2010, 1510, 800, 6001, 6000)),
        hidraw(pen(0x25, 2020, 1520, 500, -30, 40)),
        hidraw(pen(0x00, 2020, 1520, 0, 0, 0))))
    # Digitizer report 0x02 of an older series, with output scaling to a resolution.
    write(t, "digitizer-02", config(series=9, digitizer=2, resx=4, resy=3) + chunks(
        hidraw(single(0x02, 0x01, 0x2000, 0x1000)),
        hidraw(single(0x02, 0x00, 0x2000, 0x1000))))
    # Replies: a 'D' reply in a first fragment and a continuation; 'E' and 'F' fragments;
    # a reply in one packet; the reply that a signal hook waits for.
    data = list(range(0x30, 0x30 + 20))
    write(t, "reply-d-fragments", config(sig_hook=0x41) + chunks(
        hidraw([0x03, 0x04, 0x44, 20] + data[:2]),
        hidraw([0x03, 19, 0x00] + data[2:]),
        hidraw([0x03, 0x01, 0x41])))
    write(t, "reply-e-f-fragments", config() + chunks(
        hidraw([0x03, 0x04, 0x45, 64] + data[:2]),
        hidraw([0x03, 61, 0x00] + list(range(60))),
        hidraw([0x03, 3, 0x00, 1, 2]),
        hidraw([0x03, 0x04, 0x46, 2, 0x10, 0x20])))
    write(t, "reply-whole-and-selfhook", config(self_hook=0x36) + chunks(
        hidraw([0x03, 0x10, 0x36, 0x01] + list(b"TypeName-12345")),
        hidraw([0x03, 0x05, 0x3A, 0x00, 0x01, 0x02, 0x03])))
    # Virtual key reports (command 0x2F), both layouts.
    write(t, "vkey", config(vkey=1, vkey_mod=1) + chunks(
        hidraw([0x03, 0x04, 0x36, 0x2F, 0x01, 0x02]),
        hidraw([0x03, 0x04, 0x36, 0x2F, 0x00, 0x02])))
    write(t, "vkey-series22", config(series=22, vkey=1, vkey_mod=2) + chunks(
        hidraw([0x03, 0x03, 0x2F, 0x01, 0x03]),
        hidraw([0x03, 0x03, 0x2F, 0x01, 0x03]),
        hidraw([0x03, 0x03, 0x2F, 0x00, 0x03])))
    # Raw points to the tool, reports under id 0x03 with byte 1 >= 0x80; PCAP replies.
    write(t, "raw-points", config(raw=1) + chunks(
        hidraw([0x03, 0x81, 0x01, 0x10, 0x00, 0x20, 0x00]),
        hidraw([0x03, 0x01, 0x41])))
    write(t, "pcap-reply", config(pcap=1) + chunks(hidraw([0x03, 0x03, 0x44, 0x00, 0x01])))
    # Skip-first-byte controllers and short reads.
    write(t, "skip-first-short", config(skip_first=1, old_kernel=1, android=2) + chunks(
        [0x7F] + single(0x01, 0x01, 10, 10), [0x00, 0x01], [0x00]))


# --- Serial and PS/2 reception ---------------------------------------------------------

def serial_report(state, x, y, letter=None):
    r = [0x80 | state | (0x20 if letter else 0), (x >> 7) & 0x0F, x & 0x7F, (y >> 7) & 0x0F,
         y & 0x7F]
    if letter is not None:
        r.append(letter)
    return r


def serial_seeds():
    t = "serial_reception"
    rs232, ps2 = bytes([0]), bytes([1])
    # The bed's RS232 and PS/2 simulators (loop-back replies, one report each).
    write(t, "bed-rs232", rs232 + config(baud9600=1) + chunks(
        [0x0A, 0x01, 0x41], [0x81, 0x0F, 0x7F, 0x00, 0x00], [0x80, 0x0F, 0x7F, 0x00, 0x00]))
    write(t, "bed-ps2", ps2 + config() + chunks(
        [0xFA, 0x0A, 0x01, 0x41], [0x80, 0x01, 0x02, 0x03, 0x04]))
    # 6-byte RS232 reports with contact letters, split across reads at odd places.
    stream = serial_report(1, 1000, 2000, 0x41) + serial_report(1, 3000, 100, 0x42) + \
        serial_report(0, 1000, 2000, 0x41) + serial_report(0, 3000, 100, 0x42)
    write(t, "rs232-six-byte-split", rs232 + config() + chunks(
        stream[:4], stream[4:11], stream[11:12], stream[12:]))
    # PS/2 acknowledge bytes between reports and a command reply.
    write(t, "ps2-ack-and-reply", ps2 + config() + chunks(
        [0xFA] + serial_report(1, 50, 60) + [0xFA],
        [0x0A, 0x05, 0x36, 0x01, 0x02, 0x03, 0x04], serial_report(0, 50, 60)))
    # Firmware replies in several reads and reports switched to the tool.
    write(t, "rs232-reply-split", rs232 + config(sig_hook=0x42) + chunks(
        [0x0A, 0x0C, 0x42], list(b"1.2.3-build"), [0x0A, 0x01, 0x41]))
    write(t, "rs232-points-to-tool", rs232 + config(to_tool=1) + chunks(
        serial_report(1, 100, 100, 0x41), serial_report(0, 100, 100, 0x41)))


# --- Settings file ---------------------------------------------------------------------

def generated_head(device_nums):
    return ("[TavrineA.ini]\nDebugEnableBits\t\t1\nShowDebugPosition\t1\n"
            "DeviceNums\t\t%d\nBaudRate\t\t0\n[String]\nSerialPath\t\tdefault\n\n" % device_nums)


def generated_block(no, address, vkeys="\tVKEY_0\t\t\t0\n", vkey_enable=0):
    addr = "Physical_Address\t\t%s\n" % address if address else "Physical_Address\n"
    return ("\n[Device_No.%d]\n" % no + addr +
            "SupportPoints\t\t\t10\nSendRawPoints\t\t\t0\nDirection\t\t\t0\nOrientation\t\t\t0\n"
            "EdgeCompensate\t\t\t0\n\tEdgeLeft\t\t\t100\n\tEdgeRight\t\t\t100\n"
            "\tEdgeTop\t\t\t\t100\n\tEdgeBottom\t\t\t100\nHoldFilterEnable\t\t0\n"
            "\tHoldRange\t\t\t20\nSplitRectMode\t\t\t0\n\tCustomRectLeft\t\t\t0\n"
            "\tCustomRectRight\t\t\t4095\n\tCustomRectTop\t\t\t0\n"
            "\tCustomRectBottom\t\t4095\nNoDeviceCheck              0\n"
            "VKEYEnable\t\t%d\n\tVKEYReportMod\t\t1\n" % vkey_enable + vkeys + "[EndOfDevice]")


USB1 = "usb-0000:00:14.0-1/input0"
USB2 = "usb-2/input0"


def settings_files():
    one = generated_head(1) + generated_block(0, None) + "\n[EndOfFile]"
    two = generated_head(2) + generated_block(0, USB1) + generated_block(1, "/dev/ttyS0") + \
        "\n[EndOfFile]"
    vkeys = ("\tVKEY_0\t\t\tBACK\n\tVKEY_1\t\t\tHOME\n\tVKEY_2\t\t\t0x66\n\tVKEY_3\t\t\t139\n"
             "\tVKEY_9\t\t\tSEARCH\n\tVKEY_10\t\t\tMENU\n")
    with_keys = generated_head(2).replace(
        "SerialPath\t\tdefault\n",
        "SerialPath\t\t/dev/ttyS3\nSerialPath1\t\t/dev/ttyUSB0\nUinputPath\t\t/dev/uinput\n"
        "DevPID0\t\t0C20\nDevPID1\t\tNULL\n") + \
        generated_block(0, USB1, vkeys, 1) + generated_block(1, None) + "\n[EndOfFile]"
    globals_only = ("[TavrineA.ini]\nDebugEnableBits\t\t7FFF\nShowDebugPosition\t2\n"
                    "DeviceNums\t\t3\nBaudRate\t\t115200\nUseDriverCalib\t1\nSkipFirstByte\t1\n"
                    "ShiftByteBothEnd\t1\nScanInterface\t2\n[String]\n[EndOfFile]\n")
    unterminated = generated_head(2) + generated_block(0, USB1)[:-len("[EndOfDevice]")]
    return {"generated-one-block": one, "generated-two-blocks": two,
            "virtual-keys-and-strings": with_keys, "global-section": globals_only,
            "block-without-end": unterminated}


def settings_seeds():
    files = settings_files()
    for name, text in files.items():
        data = text.encode()
        # settings_read: first byte 0x01 reads block 0, 0x02 block 1, 0x80 the whole
        # single-device step.
        write("settings_read", name + "-block0", b"\x01" + data)
        write("settings_read", name + "-block1", b"\x02" + data)
        write("settings_read", name + "-device-step", b"\x80" + data)
        # settings_maintenance: byte 0 = devices (2 + n % 8) and address (bits 3-4),
        # byte 1 = SupportPoints of the device, bytes 2-3 = the rewrite (0: own block,
        # else offsets scaled from both bytes).
        write("settings_maintenance", name + "-match", bytes([0x00, 10, 0, 0]) + data)
        write("settings_maintenance", name + "-other", bytes([0x08, 5, 0, 0]) + data)
        write("settings_maintenance", name + "-stray-rewrite", bytes([0x00, 10, 40, 90]) + data)
    # A single-device file claimed by a second device, and no end marker at all.
    one = files["generated-one-block"].encode()
    write("settings_maintenance", "claim-empty-address", bytes([0x08, 10, 0, 0]) + one)
    write("settings_maintenance", "no-end-of-file",
          bytes([0x10, 10, 0, 0]) + one[:-len(b"[EndOfFile]")])


# --- Descriptor ------------------------------------------------------------------------

def read_hex(path):
    data = bytearray()
    with open(path) as f:
        for line in f:
            line = line.split("#", 1)[0]
            data += bytes(int(tok, 16) for tok in line.split())
    return data


def descriptor_seeds():
    descriptors = os.path.join(ROOT, "tests", "vm", "sim", "descriptors")
    for name in sorted(os.listdir(descriptors)):
        if name.endswith(".hex"):
            write("descriptor", name[:-4], read_hex(os.path.join(descriptors, name)))


# --- Probe replies ---------------------------------------------------------------------

def probe_seeds():
    t = "probe_reply"
    report, serial = 0x00, 0x01
    data = list(range(0x40, 0x40 + 20))
    # USB probe: a hidraw read (0x00 in front), the loop-back reply of the bed.
    write(t, "usb-loopback", bytes([report, 0x41]) + chunks([0x00, 0x03, 0x02, 0x41, 0x00]))
    write(t, "usb-d-fragments", bytes([report, 0x44]) + chunks(
        [0x00, 0x03, 0x04, 0x44, 20] + data[:2], [0x00, 0x03, 19, 0x00] + data[2:]))
    write(t, "usb-e-long-reply", bytes([report, 0x45]) + chunks(
        [0x00, 0x03, 0x04, 0x45, 100] + data[:2],
        [0x00, 0x03, 61, 0x00] + list(range(60)), [0x00, 0x03, 39, 0x00] + list(range(38))))
    write(t, "usb-unrelated-then-reply", bytes([report, 0x41]) + chunks(
        [0x00] + single(0x04, 0x05, 100, 100), [0x00, 0x03, 0x01, 0x36],
        [0x00, 0x03, 0x01, 0x41]))
    # Serial probe: loop-back, PS/2 acknowledge, a reply split over reads.
    write(t, "serial-loopback", bytes([serial, 0x41]) + chunks([0x0A, 0x01, 0x41]))
    write(t, "ps2-ack-loopback", bytes([serial, 0x41]) + chunks([0xFA, 0x0A, 0x01, 0x41]))
    write(t, "serial-split-reply", bytes([serial, 0x42]) + chunks(
        [0x0A, 0x0C], [0x42] + list(b"1.2.3"), list(b"-build")))


# --- Tool pipe -------------------------------------------------------------------------

def tool_seeds():
    t = "tool_pipe"
    usb, ps2, rs232, usb_shift = 0x00, 0x01, 0x02, 0x04
    write(t, "usb-commands", bytes([usb | (10 << 3)]) + chunks(
        [0x03, 0x01, 0x41], [0x03, 0x02, 0x36, 0x01], [0x03, 0x04, 0x44, 0x00, 0x00, 0x00]))
    write(t, "usb-shifted", bytes([usb_shift | (10 << 3)]) + chunks(
        [0x03, 0x01, 0x41], [0x03] + [0x55] * 63, [0x03] + [0x66] * 62))
    write(t, "serial-report-switch", bytes([ps2 | (8 << 3)]) + chunks(
        [0x0A, 0x02, 0x34, 0x00], [0x0A, 0x01, 0x41], [0x0A, 0x02, 0x34, 0x01]))
    write(t, "rs232-commands", bytes([rs232 | (3 << 3)]) + chunks(
        [0x0A, 0x01, 0x41], [0x0A, 0x03, 0x3A, 0x3A, 0x00], [0x0A, 0x02, 0x34, 0x00]))


def main():
    usb_seeds()
    serial_seeds()
    settings_seeds()
    descriptor_seeds()
    probe_seeds()
    tool_seeds()
    return 0


if __name__ == "__main__":
    sys.exit(main())
