// Event emission. Touch records update the device's contact table; the whole table is
// written as one frame at the end of a scan that announced its contact count, and
// otherwise when a contact changes state or when the contact numbers of the incoming
// records stop rising (the controller began its next scan). Pen and eraser
// samples are written at once to the pen device. The events of a frame are gathered and
// written with one write at its SYN_REPORT: uinput takes whole input_event records in any
// number, and a reader of the event node sees the same events as from one write each.
// Write results are ignored (a full uinput queue drops the frame).
#include "output/emit.h"

#include <linux/input.h>
#include <sys/time.h>

#include "core/environment.h"
#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

constexpr int32_t kMaxCoord = 4095;
constexpr uint8_t kEventTypeA = 4;

enum class TouchProtocol { kSlot, kAndroidMultiSync, kTypeA };
static_assert(kMaxContacts <= 32, "ScanStateChanged holds one bit per contact table entry");

// Entries of the contact tables that take part in a frame.
int FrameEntries(const CDeviceObject* device) {
    const int support = device->Param.SupportPoints;
    return support < kMaxContacts ? support : kMaxContacts;
}

bool ValidContact(const TouchPoint* point) {
    return point->ID >= 0 && point->ID < kMaxContacts;
}

// ResolX * v / 4095, 32-bit signed with the quotient truncated toward zero.
int32_t ScaleAxis(int32_t v, int32_t resolution) {
    const int32_t product =
        static_cast<int32_t>(static_cast<uint32_t>(static_cast<int64_t>(resolution) * v));
    return product / kMaxCoord;
}

void WriteTouch(CDeviceObject* device, uint16_t type, uint16_t code, int32_t value) {
    WriteInputEvent(device, device->UinputTouchFd.get(), type, code, value);
}

void WritePen(CDeviceObject* device, uint16_t type, uint16_t code, int32_t value) {
    WriteInputEvent(device, device->UinputPenFd.get(), type, code, value);
}

void WriteSlotEntry(CDeviceObject* device, int j, const TouchPoint& entry) {
    TLOG(LOG_EVENT, "Send SLOT Multi Event ID[%d], state[%d], X[%d] Y[%d]", j, entry.State, entry.X,
         entry.Y);
    WriteTouch(device, EV_ABS, ABS_MT_SLOT, j);
    if (entry.State == 1) {
        WriteTouch(device, EV_ABS, ABS_MT_TRACKING_ID, j);
        WriteTouch(device, EV_ABS, ABS_MT_TOOL_TYPE, 0);
        WriteTouch(device, EV_ABS, ABS_MT_POSITION_X, entry.X);
        WriteTouch(device, EV_ABS, ABS_MT_POSITION_Y, entry.Y);
    } else {
        WriteTouch(device, EV_ABS, ABS_MT_TRACKING_ID, -1);
    }
}

void WriteMultiSyncEntry(CDeviceObject* device, int j, const TouchPoint& entry) {
    TLOG(LOG_EVENT, "Send Android Multi Sync Event ID[%d], state[%d], X[%d] Y[%d]", j, entry.State,
         entry.X, entry.Y);
    WriteTouch(device, EV_ABS, ABS_MT_TRACKING_ID, j);
    WriteTouch(device, EV_ABS, ABS_MT_TOUCH_MAJOR, entry.State == 1 ? 1 : 0);
    WriteTouch(device, EV_ABS, ABS_MT_POSITION_X, entry.X);
    WriteTouch(device, EV_ABS, ABS_MT_POSITION_Y, entry.Y);
    WriteTouch(device, EV_ABS, ABS_MT_WIDTH_MAJOR, 0);
    WriteTouch(device, EV_SYN, SYN_MT_REPORT, 0);
}

void WriteTypeAEntry(CDeviceObject* device, int j, const TouchPoint& entry) {
    TLOG(LOG_EVENT, "Send Android Type A Event ID[%d], state[%d], X[%d] Y[%d]", j, entry.State,
         entry.X, entry.Y);
    WriteTouch(device, EV_ABS, ABS_MT_POSITION_X, entry.X);
    WriteTouch(device, EV_ABS, ABS_MT_POSITION_Y, entry.Y);
    WriteTouch(device, EV_SYN, SYN_MT_REPORT, 0);
}

// Single-touch view of a slot frame on plain Linux: BTN_TOUCH while any contact touches,
// ABS_X/ABS_Y following the lowest-numbered touching contact. The input core drops the
// values that did not change.
void WritePointerEmulation(CDeviceObject* device) {
    const int entries = FrameEntries(device);
    for (int j = 0; j < entries; ++j) {
        const TouchPoint& entry = device->CurContacts[j];
        if (entry.State != 1) continue;
        WriteTouch(device, EV_KEY, BTN_TOUCH, 1);
        WriteTouch(device, EV_ABS, ABS_X, entry.X);
        WriteTouch(device, EV_ABS, ABS_Y, entry.Y);
        return;
    }
    WriteTouch(device, EV_KEY, BTN_TOUCH, 0);
}

// Every non-empty entry, then SYN_REPORT. A lifted entry is written once and then emptied.
void WriteFrame(CDeviceObject* device, TouchProtocol protocol) {
    const int entries = FrameEntries(device);
    for (int j = 0; j < entries; ++j) {
        TouchPoint& entry = device->CurContacts[j];
        if (entry.State == -1) continue;
        switch (protocol) {
            case TouchProtocol::kSlot:
                WriteSlotEntry(device, j, entry);
                break;
            case TouchProtocol::kAndroidMultiSync:
                WriteMultiSyncEntry(device, j, entry);
                break;
            case TouchProtocol::kTypeA:
                WriteTypeAEntry(device, j, entry);
                break;
        }
        device->LastContacts[j] = entry;
        if (entry.State == 0) entry.State = -1;
    }
    if (protocol == TouchProtocol::kSlot && OnPlainLinux()) WritePointerEmulation(device);
    WriteTouch(device, EV_SYN, SYN_REPORT, 0);
    device->bScanPending = false;
    device->ScanStateChanged = 0;
}

// Type A: when no contact is left, the empty frame that tells the system all are up.
void WriteEmptyFrameIfNoContact(CDeviceObject* device) {
    const int entries = FrameEntries(device);
    for (int j = 0; j < entries; ++j) {
        if (device->CurContacts[j].State != -1) return;
    }
    WriteTouch(device, EV_SYN, SYN_MT_REPORT, 0);
    WriteTouch(device, EV_SYN, SYN_REPORT, 0);
}

// The held frame of a scan, as the last record's emitter would have written it.
void WriteScanFrame(CDeviceObject* device) {
    const TouchProtocol protocol = static_cast<TouchProtocol>(device->ScanProtocol);
    StampEventTime(device);
    WriteFrame(device, protocol);
    if (protocol == TouchProtocol::kTypeA) WriteEmptyFrameIfNoContact(device);
}

// Within an open scan: the record only changes the table.
void HoldInScan(CDeviceObject* device, const TouchPoint* point, TouchProtocol protocol) {
    const int i = point->ID;
    const int32_t state = point->State & 1;
    const uint32_t bit = 1u << i;
    if (device->CurContacts[i].State != state) {
        if (device->ScanStateChanged & bit) WriteScanFrame(device);
        device->ScanStateChanged |= bit;
    }
    TouchPoint& entry = device->CurContacts[i];
    entry.ID = point->ID;
    entry.X = point->X;
    entry.Y = point->Y;
    entry.State = state;
    device->bScanPending = true;
    device->ScanProtocol = static_cast<uint8_t>(protocol);
    device->LastContactID = static_cast<uint8_t>(point->ID);
}

// The frame rule shared by the three touch protocols.
void EmitTouch(CDeviceObject* device, const TouchPoint* point, TouchProtocol protocol) {
    if (!ValidContact(point)) return;
    if (device->bScanOpen) {
        HoldInScan(device, point, protocol);
        return;
    }
    StampEventTime(device);
    const int i = point->ID;
    TouchPoint& entry = device->CurContacts[i];
    entry.ID = point->ID;
    entry.X = point->X;
    entry.Y = point->Y;
    const int32_t state = point->State & 1;
    bool write_frame = true;
    if (entry.State != state) {
        entry.State = state;
    } else if (i > device->LastContactID) {
        // Unchanged and still rising within the scan: wait for the scan's end.
        device->LastContactID = static_cast<uint8_t>(i);
        write_frame = false;
    }
    if (write_frame) WriteFrame(device, protocol);
    if (protocol == TouchProtocol::kTypeA) WriteEmptyFrameIfNoContact(device);
    device->LastContactID = static_cast<uint8_t>(point->ID);
}

bool UsesAndroidMultiSync() {
    return AndroidVersion.major >= 1 && AndroidVersion.major <= 3;
}

}  // namespace

void StampEventTime(CDeviceObject* device) {
    struct timeval now;
    gettimeofday(&now, nullptr);
#if defined(input_event_sec) && defined(input_event_usec)
    device->Event.input_event_sec = now.tv_sec;
    device->Event.input_event_usec = now.tv_usec;
#else
    device->Event.time = now;
#endif
}

void WriteInputEvent(CDeviceObject* device, int fd, uint16_t type, uint16_t code, int32_t value) {
    device->Event.type = type;
    device->Event.code = code;
    device->Event.value = value;
    if (fd < 0) return;
    // Held events of another descriptor, or a frame longer than the buffer, go out first.
    if (device->FrameEventCount > 0 &&
        (device->FrameTarget != fd || device->FrameEventCount == kFrameEventMax)) {
        FlushFrameEvents(device);
    }
    device->FrameTarget = fd;
    device->FrameEvents[device->FrameEventCount++] = device->Event;
    if (type == EV_SYN && code == SYN_REPORT) FlushFrameEvents(device);
}

void FlushFrameEvents(CDeviceObject* device) {
    const int count = device->FrameEventCount;
    device->FrameEventCount = 0;
    if (count == 0 || device->FrameTarget < 0) return;
    const ssize_t written = WriteRetry(device->FrameTarget, device->FrameEvents,
                                       static_cast<size_t>(count) * sizeof(struct input_event));
    (void)written;
}

void DispatchTouchEvent(CDeviceObject* device, TouchPoint* point) {
    if (device->Param.ResolX != -1) point->X = ScaleAxis(point->X, device->Param.ResolX);
    if (device->Param.ResolY != -1) point->Y = ScaleAxis(point->Y, device->Param.ResolY);

    if (device->Param.EventType == kEventTypeA) {
        if (point->bPen) {
            EmitPenEvent(device, point);
        } else if (point->bEraser == 0) {
            EmitTypeAEvent(device, point);
        } else {
            EmitEraserEvent(device, point);
        }
        return;
    }
    if (UsesAndroidMultiSync()) {
        EmitAndroidMultiSyncEvent(device, point);  // pen and eraser samples included
    } else if (point->bPen) {
        EmitPenEvent(device, point);
    } else if (point->bEraser == 0) {
        EmitSlotEvent(device, point);
    } else {
        EmitEraserEvent(device, point);
    }
}

void BeginTouchScan(CDeviceObject* device) {
    EndTouchScan(device);
    device->bScanOpen = true;
    device->bScanPending = false;
    device->ScanStateChanged = 0;
}

void EndTouchScan(CDeviceObject* device) {
    if (!device->bScanOpen) return;
    device->bScanOpen = false;
    if (device->bScanPending) WriteScanFrame(device);
}

void ReleaseAllContacts(CDeviceObject* device) {
    // Contacts of an open scan are in the table but not yet written: written first, they
    // are lifted below like every other.
    EndTouchScan(device);
    const int entries = FrameEntries(device);
    for (int j = 0; j < entries; ++j) {
        if (device->LastContacts[j].State != 1) continue;
        TouchPoint release = device->LastContacts[j];
        release.ID = j;
        release.State = 0;
        DispatchTouchEvent(device, &release);
    }
}

void EmitSlotEvent(CDeviceObject* device, const TouchPoint* point) {
    EmitTouch(device, point, TouchProtocol::kSlot);
}

void EmitAndroidMultiSyncEvent(CDeviceObject* device, const TouchPoint* point) {
    EmitTouch(device, point, TouchProtocol::kAndroidMultiSync);
}

void EmitTypeAEvent(CDeviceObject* device, const TouchPoint* point) {
    EmitTouch(device, point, TouchProtocol::kTypeA);
}

void EmitPenEvent(CDeviceObject* device, const TouchPoint* point) {
    if (!ValidContact(point)) return;
    StampEventTime(device);
    TLOG(LOG_EVENT, "Send Pen Event state[%d], X[%d] Y[%d] Z[%d] TILT_X[%d] TILT_Y[%d]",
         point->State, point->X, point->Y, point->Z, point->tilt_x, point->tilt_y);
    TouchPoint& last = device->LastContacts[point->ID];
    last.ID = point->ID;
    last.X = point->X;
    last.Y = point->Y;
    if (point->invert != device->LastPenInvert) {
        // The other tool is lifted before this one comes in.
        WritePen(device, EV_KEY, point->invert == 1 ? BTN_TOOL_PEN : BTN_TOOL_RUBBER, 0);
        WritePen(device, EV_KEY, BTN_TOUCH, 0);
        WritePen(device, EV_SYN, SYN_REPORT, 0);
        device->LastPenInvert = point->invert;
    }
    if (point->invert == 1) {
        WritePen(device, EV_KEY, BTN_TOOL_RUBBER, 1);
    } else {
        WritePen(device, EV_KEY, BTN_TOOL_PEN, point->inrange);
    }
    last.State = point->State & 1;
    WritePen(device, EV_KEY, BTN_STYLUS, point->barrel);
    WritePen(device, EV_ABS, ABS_X, point->X);
    WritePen(device, EV_ABS, ABS_Y, point->Y);
    WritePen(device, EV_KEY, BTN_TOUCH, point->tip);
    WritePen(device, EV_ABS, ABS_PRESSURE, point->Z);
    WritePen(device, EV_ABS, ABS_TILT_X, point->tilt_x);
    WritePen(device, EV_ABS, ABS_TILT_Y, point->tilt_y);
    WritePen(device, EV_SYN, SYN_REPORT, 0);
    TLOG(LOG_DATA, " Input sync pen data done!\n");
}

void EmitEraserEvent(CDeviceObject* device, const TouchPoint* point) {
    if (!ValidContact(point)) return;
    StampEventTime(device);
    TLOG(LOG_EVENT, "Send Eraser Event state[%d], X[%d] Y[%d] Z[%d]", point->State, point->X,
         point->Y, point->Z);
    TouchPoint& last = device->LastContacts[point->ID];
    last.ID = point->ID;
    last.X = point->X;
    last.Y = point->Y;
    last.Z = point->Z;
    if (point->eraser) {
        WritePen(device, EV_KEY, BTN_TOOL_RUBBER, 1);
        WritePen(device, EV_ABS, ABS_X, point->X);
        WritePen(device, EV_ABS, ABS_Y, point->Y);
        WritePen(device, EV_KEY, BTN_TOUCH, 1);
        WritePen(device, EV_ABS, ABS_PRESSURE, point->Z);
        WritePen(device, EV_ABS, ABS_TILT_X, point->tilt_x);
        WritePen(device, EV_ABS, ABS_TILT_Y, point->tilt_y);
        WritePen(device, EV_SYN, SYN_REPORT, 0);
    } else {
        WritePen(device, EV_ABS, ABS_X, point->X);
        WritePen(device, EV_ABS, ABS_Y, point->Y);
        if (point->Z == 0) WritePen(device, EV_KEY, BTN_TOUCH, 0);
        WritePen(device, EV_ABS, ABS_PRESSURE, point->Z);
        WritePen(device, EV_ABS, ABS_TILT_X, point->tilt_x);
        WritePen(device, EV_ABS, ABS_TILT_Y, point->tilt_y);
        WritePen(device, EV_SYN, SYN_REPORT, 0);
        WritePen(device, EV_KEY, BTN_TOOL_RUBBER, 0);
        WritePen(device, EV_SYN, SYN_REPORT, 0);
    }
    TLOG(LOG_DATA, " Input sync eraser data done!\n");
}
