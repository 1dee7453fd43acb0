// Event emission: contact records scaled to the output range and written as input events.
#pragma once

#include <stdint.h>

#include "touch/touch_point.h"

class CDeviceObject;

void DispatchTouchEvent(CDeviceObject* device, TouchPoint* point);
// Writes a scan still open, then lifts every contact last written as touching.
void ReleaseAllContacts(CDeviceObject* device);

// Scans of the reports that announce their contact count. From BeginTouchScan to
// EndTouchScan the touch emitters only record each contact in the table; EndTouchScan then
// writes the scan's one frame (when a record changed the table), so every SYN_REPORT
// carries one whole scan with all its contacts at their new positions. BeginTouchScan
// first ends a scan still open (one that lost its last packet). A contact that changes
// state twice within one scan gets the frame so far written before its second change, so
// no press or lift is lost.
void BeginTouchScan(CDeviceObject* device);
void EndTouchScan(CDeviceObject* device);

void EmitSlotEvent(CDeviceObject* device, const TouchPoint* point);
void EmitAndroidMultiSyncEvent(CDeviceObject* device, const TouchPoint* point);
void EmitTypeAEvent(CDeviceObject* device, const TouchPoint* point);
void EmitPenEvent(CDeviceObject* device, const TouchPoint* point);
void EmitEraserEvent(CDeviceObject* device, const TouchPoint* point);

// Adds one input_event (with the time already in device->Event) to the frame being
// written to fd. A SYN_REPORT ends the frame: its events go to fd with one write. Every
// caller ends what it writes with a SYN_REPORT.
void WriteInputEvent(CDeviceObject* device, int fd, uint16_t type, uint16_t code, int32_t value);
// Writes the events held for the frame in progress, if any, with one write.
void FlushFrameEvents(CDeviceObject* device);
// Sets the time of device->Event (gettimeofday), shared by all events of one emitter call.
void StampEventTime(CDeviceObject* device);
