// Helpers of the touch and output tests: a bare device record wired to datagram
// socketpairs that stand in for the uinput descriptors, an event decoder and
// guards for the process-wide values the data path reads. Header-only so that only the
// tests that include it depend on the device record.
#pragma once

#include <ctype.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "config/global_settings.h"
#include "core/environment.h"
#include "core/unique_fd.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "support/test_util.h"

namespace touchtest {

using testutil::Hex;
using Bytes = std::vector<uint8_t>;

struct Ev {
    uint16_t type;
    uint16_t code;
    int32_t value;
};

inline bool operator==(const Ev& a, const Ev& b) {
    return a.type == b.type && a.code == b.code && a.value == b.value;
}

inline std::ostream& operator<<(std::ostream& out, const Ev& e) {
    return out << "{" << e.type << "," << e.code << "," << e.value << "}";
}

inline Ev Abs(uint16_t code, int32_t value) {
    return Ev{EV_ABS, code, value};
}
inline Ev Key(uint16_t code, int32_t value) {
    return Ev{EV_KEY, code, value};
}
inline Ev Syn() {
    return Ev{EV_SYN, SYN_REPORT, 0};
}
inline Ev MtSyn() {
    return Ev{EV_SYN, SYN_MT_REPORT, 0};
}

// Slot-protocol events of one touching slot and of one lifted slot.
inline void AddSlotDown(std::vector<Ev>* out, int slot, int x, int y) {
    out->push_back(Abs(ABS_MT_SLOT, slot));
    out->push_back(Abs(ABS_MT_TRACKING_ID, slot));
    out->push_back(Abs(ABS_MT_TOOL_TYPE, 0));
    out->push_back(Abs(ABS_MT_POSITION_X, x));
    out->push_back(Abs(ABS_MT_POSITION_Y, y));
}
inline void AddSlotUp(std::vector<Ev>* out, int slot) {
    out->push_back(Abs(ABS_MT_SLOT, slot));
    out->push_back(Abs(ABS_MT_TRACKING_ID, -1));
}

// A datagram socketpair: each write(2) of the code under test arrives as one message, so
// the reader also proves how the events were grouped into writes.
inline void MakeEventPair(UniqueFd* device_end, UniqueFd* test_end) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
    device_end->reset(fds[0]);
    test_end->reset(fds[1]);
}

// Every event queued on fd. Each message must be one whole frame: whole input_event
// records ending with the frame's only SYN_REPORT.
inline std::vector<Ev> Drain(int fd) {
    std::vector<Ev> out;
    for (;;) {
        struct input_event raw;
        uint8_t buffer[sizeof(raw) * (kFrameEventMax + 1)];
        ssize_t n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
        if (n <= 0) break;
        EXPECT_EQ(0u, static_cast<size_t>(n) % sizeof(raw)) << "whole records per write";
        const size_t records = static_cast<size_t>(n) / sizeof(raw);
        for (size_t i = 0; i < records; ++i) {
            memcpy(&raw, buffer + i * sizeof(raw), sizeof(raw));
            const bool syn = raw.type == EV_SYN && raw.code == SYN_REPORT;
            EXPECT_EQ(i + 1 == records, syn) << "one write per frame, ended by its SYN_REPORT";
            out.push_back(Ev{raw.type, raw.code, raw.value});
        }
    }
    return out;
}

// Sets the Android and kernel versions for one test and restores them.
class VersionGuard {
  public:
    VersionGuard(int android_major, int kernel_major = 4, int kernel_minor = 19)
        : android_(AndroidVersion), kernel_(KernelVersion) {
        AndroidVersion = AndroidVersionInfo{android_major, 0};
        KernelVersion = KernelVersionInfo{kernel_major, kernel_minor, 0};
    }
    ~VersionGuard() {
        AndroidVersion = android_;
        KernelVersion = kernel_;
    }

  private:
    AndroidVersionInfo android_;
    KernelVersionInfo kernel_;
};

// A bare device record with the default per-device settings (no transform, no filter, ten
// contacts) but the slot protocol, and socketpairs as its touch and pen devices.
class TouchRig {
  public:
    explicit TouchRig(uint8_t interface = DEV_USB) : saved_bits_(DebugEnableBits) {
        DebugEnableBits = 0;
        memset(&settings, 0, sizeof(settings));
        snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s", kDefaultUinputPath);
        dev.reset(new CDeviceObject("/dev/hidraw0", &settings));
        dev->DevInterface = interface;
        dev->Param.EventType = 2;  // the slot protocol; the rest are the defaults
        dev->MouseResShift = 1;
        dev->DigitizerResShift = 1;
        dev->MTouchResShift = 1;
        dev->ParallelResShift = 1;
        MakeEventPair(&dev->UinputTouchFd, &touch_);
        MakeEventPair(&dev->UinputPenFd, &pen_);
    }
    ~TouchRig() {
        dev.reset();
        DebugEnableBits = saved_bits_;
    }
    TouchRig(const TouchRig&) = delete;
    TouchRig& operator=(const TouchRig&) = delete;

    std::vector<Ev> TouchEvents() { return Drain(touch_.get()); }
    std::vector<Ev> PenEvents() { return Drain(pen_.get()); }
    int TouchFd() const { return touch_.get(); }

    GlobalSettings settings;
    std::unique_ptr<CDeviceObject> dev;

  private:
    uint32_t saved_bits_;
    UniqueFd touch_;
    UniqueFd pen_;
};

inline Bytes Pad(Bytes bytes, size_t n, uint8_t fill = 0) {
    bytes.resize(n, fill);
    return bytes;
}

// Events as the tests write them: "id:x,y" a touching slot, "id-" a lifted slot,
// NAME=value one event (names below; Kcode=value a key), "mt" SYN_MT_REPORT, '|' SYN_REPORT,
// and one SYN_REPORT ending any text that is not empty.
inline std::vector<Ev> F(const std::string& text) {
    // clang-format off
    static const std::map<std::string, Ev> names = {
        {"X", Abs(ABS_X, 0)}, {"Y", Abs(ABS_Y, 0)}, {"P", Abs(ABS_PRESSURE, 0)},
        {"TX", Abs(ABS_TILT_X, 0)}, {"TY", Abs(ABS_TILT_Y, 0)}, {"MX", Abs(ABS_MT_POSITION_X, 0)},
        {"MY", Abs(ABS_MT_POSITION_Y, 0)}, {"ID", Abs(ABS_MT_TRACKING_ID, 0)},
        {"MAJOR", Abs(ABS_MT_TOUCH_MAJOR, 0)}, {"WIDTH", Abs(ABS_MT_WIDTH_MAJOR, 0)},
        {"PEN", Key(BTN_TOOL_PEN, 0)}, {"RUBBER", Key(BTN_TOOL_RUBBER, 0)},
        {"STYLUS", Key(BTN_STYLUS, 0)}, {"TOUCH", Key(BTN_TOUCH, 0)}};
    // clang-format on
    std::vector<Ev> out;
    std::istringstream in(text);
    for (std::string t; in >> t;) {
        const std::string name = t.substr(0, t.find('='));
        int id, x, y;
        if (t == "|" || t == "mt") {
            out.push_back(t == "mt" ? MtSyn() : Syn());
        } else if (name != t) {  // NAME=value, or Kcode=value for a key code
            Ev e = isdigit(name[1]) ? Key(static_cast<uint16_t>(std::stoi(name.substr(1))), 0)
                                    : names.at(name);
            e.value = std::stoi(t.substr(name.size() + 1));
            out.push_back(e);
        } else if (t.back() == '-') {
            AddSlotUp(&out, std::stoi(t));
        } else if (sscanf(t.c_str(), "%d:%d,%d", &id, &x, &y) == 3) {
            AddSlotDown(&out, id, x, y);
        } else {
            ADD_FAILURE() << "bad event token " << t;
        }
    }
    if (!out.empty()) out.push_back(Syn());
    return out;
}

}  // namespace touchtest
