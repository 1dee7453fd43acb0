// The contact pipeline between parsing and event output: contact-number check, edge
// compensation, direction, orientation, split rectangle and hold filter.
#pragma once

#include "touch/touch_point.h"

class CDeviceObject;
struct DeviceParam;

void HandleContact(CDeviceObject* device, TouchPoint* point);

// The transforms, on X and Y in place (0-4095 space).
void EdgeCompensate(const DeviceParam& param, TouchPoint* point);
void ApplyDirection(const DeviceParam& param, TouchPoint* point);
void ApplyOrientation(const DeviceParam& param, TouchPoint* point);
void ApplySplitRect(const DeviceParam& param, TouchPoint* point);
// 1 = swallow the record, 0 = pass it.
int HoldFilter(CDeviceObject* device, const TouchPoint* point);
