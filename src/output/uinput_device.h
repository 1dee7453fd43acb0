// The two virtual input devices of a controller, created through uinput.
#pragma once

class CDeviceObject;

// 0 on success, -1 on failure (logged). The descriptor is kept in UinputTouchFd/UinputPenFd.
int CreateTouchDevice(CDeviceObject* device);
int CreatePenDevice(CDeviceObject* device);
// UI_DEV_DESTROY and close, touch first, then pen.
void CloseUinputDevices(CDeviceObject* device);
