// Event emission: contact records scaled to the output range and written as input events.
#pragma once

#include <stdint.h>

#include "touch/touch_point.h"

class CDeviceObject;

void DispatchTouchEvent(CDeviceObject* device, TouchPoint* point);
// Lifts every contact last written as touching.
void ReleaseAllContacts(CDeviceObject* device);

void EmitSlotEvent(CDeviceObject* device, const TouchPoint* point);
void EmitAndroidMultiSyncEvent(CDeviceObject* device, const TouchPoint* point);
void EmitTypeAEvent(CDeviceObject* device, const TouchPoint* point);
void EmitPenEvent(CDeviceObject* device, const TouchPoint* point);
void EmitEraserEvent(CDeviceObject* device, const TouchPoint* point);

// Writes one input_event (with the time already in device->Event) to fd in one write.
void WriteInputEvent(CDeviceObject* device, int fd, uint16_t type, uint16_t code, int32_t value);
// Sets the time of device->Event (gettimeofday), shared by all events of one emitter call.
void StampEventTime(CDeviceObject* device);
