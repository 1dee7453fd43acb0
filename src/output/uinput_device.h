// The two virtual input devices of a controller, created through uinput.
#pragma once

class CDeviceObject;

// 0 on success, -1 on failure (logged). The descriptor is kept in UinputTouchFd/UinputPenFd.
// Each opens the uinput node, then runs the set-up below on it.
int CreateTouchDevice(CDeviceObject* device);
int CreatePenDevice(CDeviceObject* device);
// The steps after the open, on the descriptor already in UinputTouchFd/UinputPenFd: the
// device record and its bits, then UI_DEV_CREATE. 0 or -1 (logged).
int SetUpTouchDevice(CDeviceObject* device);
int SetUpPenDevice(CDeviceObject* device);
// UI_DEV_DESTROY and close, touch first, then pen.
void CloseUinputDevices(CDeviceObject* device);
