// The virtual touch and pen devices of a controller, created through uinput.
//
// Creating a device: open the uinput node (with the "/dev/uinput" fallback), fill the
// uinput_user_dev record, set the event, axis, key, misc and property bits in the order
// listed in SetupTouchBits / SetupPenBits, write the record, give the position axes their
// resolution (UI_ABS_SETUP), then UI_DEV_CREATE. The bit and resolution ioctls' results are
// ignored (a kernel without a bit simply lacks it; one without UI_ABS_SETUP, before 4.5,
// creates the axes without a resolution).
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
// Physical size assumed for the screen when the axes' resolution (units per millimetre) is
// set: a 15.6-inch 16:9 panel. The real size of an installation is given to udev's hwdb,
// which overrides this resolution when the device appears.
constexpr int32_t kScreenWidthMm = 344;
constexpr int32_t kScreenHeightMm = 194;

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

// Upper end of a position axis: the output range set for the device, or the 12-bit range.
int32_t OutputMax(int32_t resolution) {
    return resolution == -1 ? kMaxCoord : resolution;
}

// Units per millimetre of an axis whose range spans size_mm, rounded, at least 1.
int32_t UnitsPerMm(int32_t min, int32_t max, int32_t size_mm) {
    const int64_t range = static_cast<int64_t>(max) - min;
    const int64_t units = (range + size_mm / 2) / size_mm;
    return units < 1 ? 1 : static_cast<int32_t>(units);
}

// Sets the resolution of an axis already in the written record, keeping its range.
void SetAxisResolution(int fd, const struct uinput_user_dev& dev, int axis, int32_t size_mm) {
#ifdef UI_ABS_SETUP
    struct uinput_abs_setup setup;
    memset(&setup, 0, sizeof(setup));
    setup.code = static_cast<__u16>(axis);
    setup.absinfo.minimum = dev.absmin[axis];
    setup.absinfo.maximum = dev.absmax[axis];
    setup.absinfo.resolution = UnitsPerMm(dev.absmin[axis], dev.absmax[axis], size_mm);
    ioctl(fd, UI_ABS_SETUP, &setup);
#else
    (void)fd;
    (void)dev;
    (void)axis;
    (void)size_mm;
#endif
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

// On plain Linux the slot protocol's touch device also carries the single-touch view of
// the first contact (BTN_TOUCH, ABS_X, ABS_Y), as kernel touch screen drivers do.
bool HasPointerEmulation(const CDeviceObject* device) {
    return OnPlainLinux() && device->Param.EventType != kEventTypeA;
}

void SetupTouchBits(const CDeviceObject* device, int fd, struct uinput_user_dev* dev) {
    const DeviceParam& param = device->Param;
    SetEvBit(fd, EV_ABS);
    SetAbsAxis(fd, dev, ABS_MT_POSITION_X, 0, OutputMax(param.ResolX));
    SetAbsAxis(fd, dev, ABS_MT_POSITION_Y, 0, OutputMax(param.ResolY));
    SetAbsAxis(fd, dev, ABS_MT_TOOL_TYPE, 0, 1);
    if (param.EventType != kEventTypeA) {
        if (AndroidVersion.major > 3 || OnPlainLinux()) {
            SetAbsAxis(fd, dev, ABS_MT_SLOT, 0, kMaxSlot);
        } else {
            // The multi sync frames mark a lifted contact with ABS_MT_TOUCH_MAJOR 0: the
            // input core drops events of axes a device lacks, and without this one the
            // last finger of a gesture would never be seen lifting.
            SetAbsAxis(fd, dev, ABS_MT_TOUCH_MAJOR, 0, 1);
            SetAbsAxis(fd, dev, ABS_MT_WIDTH_MAJOR, 0, 1);
        }
        SetAbsAxis(fd, dev, ABS_MT_TRACKING_ID, 0, kMaxSlot);
        if (param.VKEYEnable) {
            SetEvBit(fd, EV_KEY);
            for (int i = 0; i < kVKeyCount; ++i) {
                if (device->VKeyCode[i] != -1) SetKeyBit(fd, device->VKeyCode[i]);
            }
        }
    }
    if (HasPointerEmulation(device)) {
        SetEvBit(fd, EV_KEY);
        SetKeyBit(fd, BTN_TOUCH);
        SetAbsAxis(fd, dev, ABS_X, 0, OutputMax(param.ResolX));
        SetAbsAxis(fd, dev, ABS_Y, 0, OutputMax(param.ResolY));
    }
    SetDirectProperty(fd);
}

void SetTouchResolution(const CDeviceObject* device, int fd, const struct uinput_user_dev& dev) {
    SetAxisResolution(fd, dev, ABS_MT_POSITION_X, kScreenWidthMm);
    SetAxisResolution(fd, dev, ABS_MT_POSITION_Y, kScreenHeightMm);
    if (HasPointerEmulation(device)) {
        SetAxisResolution(fd, dev, ABS_X, kScreenWidthMm);
        SetAxisResolution(fd, dev, ABS_Y, kScreenHeightMm);
    }
}

bool PenHasTilt() {
    return (KernelVersion.major > 2 && KernelVersion.minor > 1) || AndroidVersion.major == 0;
}

// The pen's positions are scaled to the output range like the touches' (ResolX/ResolY),
// so its axes have that range too.
void SetupPenBits(const CDeviceObject* device, int fd, struct uinput_user_dev* dev) {
    SetEvBit(fd, EV_ABS);
    SetAbsAxis(fd, dev, ABS_X, 0, OutputMax(device->Param.ResolX));
    SetAbsAxis(fd, dev, ABS_Y, 0, OutputMax(device->Param.ResolY));
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

// Writes the record (the device's set-up on every kernel). Its result is ignored: a failed
// write shows as a failed UI_DEV_CREATE.
void WriteRecord(int fd, const struct uinput_user_dev& dev) {
    const ssize_t written = WriteRetry(fd, &dev, sizeof(dev));
    (void)written;
}

// Creates the device from the written record. 0 or -1.
int CreateFromRecord(int fd) {
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
    WriteRecord(fd, dev);
    SetTouchResolution(device, fd, dev);
    if (CreateFromRecord(fd) < 0) return -1;
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
    SetupPenBits(device, fd, &dev);
    WriteRecord(fd, dev);
    SetAxisResolution(fd, dev, ABS_X, kScreenWidthMm);
    SetAxisResolution(fd, dev, ABS_Y, kScreenHeightMm);
    if (CreateFromRecord(fd) < 0) return -1;
    device->bPenDeviceCreated = true;
    return 0;
}

void CloseUinputDevices(CDeviceObject* device) {
    TLOG(LOG_INIT, "Close Uinput device");
    DestroyDevice(&device->UinputTouchFd, &device->bTouchDeviceCreated);
    DestroyDevice(&device->UinputPenFd, &device->bPenDeviceCreated);
}
