// Helpers of the touch and output tests: a bare device record whose uinput descriptors are
// datagram socketpairs, an event decoder, a text form of events and a guard of the system
// versions. Header-only so that only the tests that include it depend on the device record.
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
inline Ev Syn() {
    return Ev{EV_SYN, SYN_REPORT, 0};
}

// A datagram socketpair: each write(2) arrives as one message, so the reader sees the grouping.
inline void MakeEventPair(UniqueFd* device_end, UniqueFd* test_end) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds));
    device_end->reset(fds[0]);
    test_end->reset(fds[1]);
}

// Every event queued on fd; each message must be whole records ending with its only SYN_REPORT.
inline std::vector<Ev> Drain(int fd) {
    std::vector<Ev> out;
    struct input_event raw[kFrameEventMax + 1];
    for (ssize_t n; (n = recv(fd, raw, sizeof(raw), MSG_DONTWAIT)) > 0;) {
        EXPECT_EQ(0u, n % sizeof(raw[0])) << "whole records per write";
        const size_t records = n / sizeof(raw[0]);
        for (size_t i = 0; i < records; ++i) {
            const bool syn = raw[i].type == EV_SYN && raw[i].code == SYN_REPORT;
            EXPECT_EQ(i + 1 == records, syn) << "one write per frame, ended by its SYN_REPORT";
            out.push_back(Ev{raw[i].type, raw[i].code, raw[i].value});
        }
    }
    return out;
}

// Sets the Android and kernel versions for one test and restores them.
class VersionGuard {
  public:
    VersionGuard(int android_major, int kernel_major = 4, int kernel_minor = 19) {
        AndroidVersion = AndroidVersionInfo{android_major, 0};
        KernelVersion = KernelVersionInfo{kernel_major, kernel_minor, 0};
    }
    ~VersionGuard() { AndroidVersion = android_, KernelVersion = kernel_; }

  private:
    const AndroidVersionInfo android_ = AndroidVersion;
    const KernelVersionInfo kernel_ = KernelVersion;
};

// A bare device record with the default per-device settings but the slot protocol, socketpairs
// as its touch and pen devices, and the debug log off while it lives.
class TouchRig {
  public:
    explicit TouchRig(uint8_t interface = DEV_USB) {
        DebugEnableBits = 0;
        snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s", kDefaultUinputPath);
        dev.reset(new CDeviceObject("/dev/hidraw0", &settings));
        dev->DevInterface = interface;
        dev->Param.EventType = 2;  // the slot protocol
        dev->MouseResShift = dev->DigitizerResShift = dev->MTouchResShift = 1;
        dev->ParallelResShift = 1;
        MakeEventPair(&dev->UinputTouchFd, &touch_);
        MakeEventPair(&dev->UinputPenFd, &pen_);
    }
    ~TouchRig() { dev.reset(), DebugEnableBits = saved_bits_; }

    std::vector<Ev> TouchEvents() { return Drain(touch_.get()); }
    std::vector<Ev> PenEvents() { return Drain(pen_.get()); }

    GlobalSettings settings{};
    std::unique_ptr<CDeviceObject> dev;

  private:
    const uint32_t saved_bits_ = DebugEnableBits;
    UniqueFd touch_, pen_;
};

inline Bytes Pad(Bytes bytes, size_t n, uint8_t fill = 0) {
    bytes.resize(n, fill);
    return bytes;
}

// Events as text: "id:x,y" a touching slot, "id-" a lifted slot, NAME=value one event (names
// below; Kcode=value a key), "mt" SYN_MT_REPORT, '|' SYN_REPORT; a SYN_REPORT ends any text.
inline std::vector<Ev> F(const std::string& text) {
    // clang-format off
    static const std::map<std::string, Ev> names = {
        {"X", {EV_ABS, ABS_X, 0}}, {"Y", {EV_ABS, ABS_Y, 0}}, {"P", {EV_ABS, ABS_PRESSURE, 0}},
        {"TX", {EV_ABS, ABS_TILT_X, 0}}, {"TY", {EV_ABS, ABS_TILT_Y, 0}},
        {"MX", {EV_ABS, ABS_MT_POSITION_X, 0}}, {"MY", {EV_ABS, ABS_MT_POSITION_Y, 0}},
        {"ID", {EV_ABS, ABS_MT_TRACKING_ID, 0}}, {"MAJOR", {EV_ABS, ABS_MT_TOUCH_MAJOR, 0}},
        {"WIDTH", {EV_ABS, ABS_MT_WIDTH_MAJOR, 0}}, {"PEN", {EV_KEY, BTN_TOOL_PEN, 0}},
        {"RUBBER", {EV_KEY, BTN_TOOL_RUBBER, 0}}, {"STYLUS", {EV_KEY, BTN_STYLUS, 0}},
        {"TOUCH", {EV_KEY, BTN_TOUCH, 0}}};
    // clang-format on
    std::vector<Ev> out;
    std::istringstream in(text);
    for (std::string t; in >> t;) {
        const std::string name = t.substr(0, t.find('='));
        int id, x, y;
        if (t == "|" || t == "mt") {
            out.push_back(
                {EV_SYN, static_cast<uint16_t>(t == "mt" ? SYN_MT_REPORT : SYN_REPORT), 0});
        } else if (name != t) {  // NAME=value, or Kcode=value for a key code
            Ev e = isdigit(name[1])
                       ? Ev{EV_KEY, static_cast<uint16_t>(std::stoi(name.substr(1))), 0}
                       : names.at(name);
            e.value = std::stoi(t.substr(name.size() + 1));
            out.push_back(e);
        } else if (t.back() == '-') {
            out.insert(out.end(),
                       {{EV_ABS, ABS_MT_SLOT, std::stoi(t)}, {EV_ABS, ABS_MT_TRACKING_ID, -1}});
        } else if (sscanf(t.c_str(), "%d:%d,%d", &id, &x, &y) == 3) {
            for (Ev e : {Ev{EV_ABS, ABS_MT_SLOT, id}, Ev{EV_ABS, ABS_MT_TRACKING_ID, id},
                         Ev{EV_ABS, ABS_MT_TOOL_TYPE, 0}, Ev{EV_ABS, ABS_MT_POSITION_X, x},
                         Ev{EV_ABS, ABS_MT_POSITION_Y, y}})
                out.push_back(e);
        } else {
            ADD_FAILURE() << "bad event token " << t;
        }
    }
    if (!out.empty()) out.push_back(Syn());
    return out;
}

}  // namespace touchtest
