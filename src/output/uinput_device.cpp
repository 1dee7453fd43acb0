// The virtual touch and pen devices of a controller, created through uinput.
//
// Creating a device: open the uinput node (with the "/dev/uinput" fallback), fill the
// uinput_user_dev record, set the event, axis, key, misc and property bits in the order
// listed in SetupTouchBits / SetupPenBits, write the record, then UI_DEV_CREATE. The bit
// ioctls' results are ignored (a kernel without a bit simply lacks it).
#include "output/uinput_device.h"

#include <linux/input.h>
#include <linux/uinput.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

#include "core/device_node.h"
#include "core/environment.h"
#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

constexpr uint16_t kVendorId = 0x3C7A;
constexpr uint16_t kTouchProductId = 0x0020;
constexpr uint16_t kPenProductId = 0x0030;
constexpr uint16_t kDeviceVersion = 1;
constexpr char kTouchName[] = "MorvelTouch_VirtualDevice";
constexpr char kPenName[] = "MorvelTouch_VirtualPen";
constexpr char kFallbackUinputPath[] = "/dev/uinput";
constexpr int32_t kMaxCoord = 4095;
constexpr int32_t kMaxSlot = 20;
constexpr int32_t kTiltRange = 6000;
constexpr int32_t kMaxPressure = 1023;
constexpr uint8_t kEventTypeA = 4;

static_assert(sizeof(struct uinput_user_dev) == 1116, "uinput_user_dev record size");

void SetEvBit(int fd, int bit) {
    ioctl(fd, UI_SET_EVBIT, bit);
}
void SetKeyBit(int fd, int bit) {
    ioctl(fd, UI_SET_KEYBIT, bit);
}

void SetAbsAxis(int fd, struct uinput_user_dev* dev, int axis, int32_t min, int32_t max) {
    ioctl(fd, UI_SET_ABSBIT, axis);
    dev->absmin[axis] = min;
    dev->absmax[axis] = max;
}

void SetDirectProperty(int fd) {
#ifdef UI_SET_PROPBIT
    ioctl(fd, UI_SET_PROPBIT, INPUT_PROP_DIRECT);
#else
    (void)fd;
#endif
}

// Opens the configured uinput node; when it is not a configured path, falls back to
// "/dev/uinput" and keeps that path for every later device. Only the kernel's uinput
// device is opened: a path naming anything else (a regular file, another device) counts
// as a failed open, and the device record is never written into it.
int OpenUinput(GlobalSettings* settings, UniqueFd* out) {
    out->reset(OpenDeviceNode(settings->UinputPath, O_WRONLY | O_NONBLOCK, kNodeUinput));
    if (!out->valid()) {
        if (settings->CustomPathMask & kCustomUinputPathBit) {
            TLOG_ERR(LOG_MAIN, "Unable to open assigned uninput path : %s", settings->UinputPath);
            return -1;
        }
        snprintf(settings->UinputPath, sizeof(settings->UinputPath), "%s", kFallbackUinputPath);
        out->reset(OpenDeviceNode(settings->UinputPath, O_WRONLY | O_NONBLOCK, kNodeUinput));
        if (!out->valid()) {
            TLOG_ERR(LOG_MAIN, "Unable to open %s & /dev/input/uinput ", settings->UinputPath);
            return -1;
        }
    }
    TLOG(LOG_MAIN, " Uinput %s has been opened", settings->UinputPath);
    return 0;
}

void FillIdentity(struct uinput_user_dev* dev, const char* name, uint16_t product) {
    memset(dev, 0, sizeof(*dev));
    dev->id.bustype = BUS_VIRTUAL;
    dev->id.vendor = kVendorId;
    dev->id.product = product;
    dev->id.version = kDeviceVersion;
    snprintf(dev->name, sizeof(dev->name), "%s", name);
}

void SetupTouchBits(const CDeviceObject* device, int fd, struct uinput_user_dev* dev) {
    const DeviceParam& param = device->Param;
    SetEvBit(fd, EV_ABS);
    SetAbsAxis(fd, dev, ABS_MT_POSITION_X, 0, param.ResolX == -1 ? kMaxCoord : param.ResolX);
    SetAbsAxis(fd, dev, ABS_MT_POSITION_Y, 0, param.ResolY == -1 ? kMaxCoord : param.ResolY);
    SetAbsAxis(fd, dev, ABS_MT_TOOL_TYPE, 0, 1);
    if (param.EventType != kEventTypeA) {
        if (AndroidVersion.major > 3) SetAbsAxis(fd, dev, ABS_MT_SLOT, 0, kMaxSlot);
        SetAbsAxis(fd, dev, ABS_MT_TRACKING_ID, 0, kMaxSlot);
        if (param.VKEYEnable) {
            SetEvBit(fd, EV_KEY);
            for (int i = 0; i < kVKeyCount; ++i) {
                if (device->VKeyCode[i] != -1) SetKeyBit(fd, device->VKeyCode[i]);
            }
        }
    }
    SetDirectProperty(fd);
}

bool PenHasTilt() {
    return (KernelVersion.major > 2 && KernelVersion.minor > 1) || AndroidVersion.major == 0;
}

void SetupPenBits(int fd, struct uinput_user_dev* dev) {
    SetEvBit(fd, EV_ABS);
    SetAbsAxis(fd, dev, ABS_X, 0, kMaxCoord);
    SetAbsAxis(fd, dev, ABS_Y, 0, kMaxCoord);
    SetAbsAxis(fd, dev, ABS_MT_TOOL_TYPE, 0, 1);
    if (PenHasTilt()) {
        SetAbsAxis(fd, dev, ABS_TILT_X, -kTiltRange, kTiltRange);
        SetAbsAxis(fd, dev, ABS_TILT_Y, -kTiltRange, kTiltRange);
    }
    SetAbsAxis(fd, dev, ABS_PRESSURE, 0, kMaxPressure);
    SetEvBit(fd, EV_KEY);
    SetKeyBit(fd, BTN_TOOL_PEN);
    SetKeyBit(fd, BTN_TOOL_RUBBER);
    SetKeyBit(fd, BTN_STYLUS);
    SetKeyBit(fd, BTN_TOUCH);
    SetKeyBit(fd, BTN_0);
    SetEvBit(fd, EV_MSC);
    ioctl(fd, UI_SET_MSCBIT, MSC_SCAN);
    SetDirectProperty(fd);
}

// Writes the record and creates the device. 0 or -1.
int WriteRecordAndCreate(int fd, const struct uinput_user_dev* dev) {
    const ssize_t written = WriteRetry(fd, dev, sizeof(*dev));
    (void)written;
    if (ioctl(fd, UI_DEV_CREATE) < 0) {
        TLOG_ERR(LOG_MAIN, "Unable to create UINPUT device.\n");
        return -1;
    }
    return 0;
}

void DestroyDevice(UniqueFd* fd, bool* created) {
    if (*created && fd->valid()) ioctl(fd->get(), UI_DEV_DESTROY);
    *created = false;
    fd->reset();
}

}  // namespace

int CreateTouchDevice(CDeviceObject* device) {
    if (OpenUinput(device->pSettings, &device->UinputTouchFd) < 0) return -1;
    return SetUpTouchDevice(device);
}

int SetUpTouchDevice(CDeviceObject* device) {
    const int fd = device->UinputTouchFd.get();
    struct uinput_user_dev dev;
    FillIdentity(&dev, kTouchName, kTouchProductId);
    SetupTouchBits(device, fd, &dev);
    if (WriteRecordAndCreate(fd, &dev) < 0) return -1;
    device->bTouchDeviceCreated = true;
    return 0;
}

int CreatePenDevice(CDeviceObject* device) {
    if (OpenUinput(device->pSettings, &device->UinputPenFd) < 0) return -1;
    return SetUpPenDevice(device);
}

int SetUpPenDevice(CDeviceObject* device) {
    const int fd = device->UinputPenFd.get();
    struct uinput_user_dev dev;
    FillIdentity(&dev, kPenName, kPenProductId);
    SetupPenBits(fd, &dev);
    if (WriteRecordAndCreate(fd, &dev) < 0) return -1;
    device->bPenDeviceCreated = true;
    return 0;
}

void CloseUinputDevices(CDeviceObject* device) {
    TLOG(LOG_INIT, "Close Uinput device");
    DestroyDevice(&device->UinputTouchFd, &device->bTouchDeviceCreated);
    DestroyDevice(&device->UinputPenFd, &device->bPenDeviceCreated);
}
