// The manager's device list: shared by the USB, serial and PS/2 scans and the
// plug-and-play check. All on the scan-loop thread.
#pragma once

class CManager;
class CDeviceObject;

// 0 when some device object's PortPath equals path, -1 otherwise.
int IsPortObjExisted(CManager* manager, const char* path);
// Appends a new device object for path at the tail of the list starting at *head.
// Returns 0, or -1 when the object could not be created (the list and the count unchanged).
int AddandInitDevice(CManager* manager, const char* path, CDeviceObject** head);
// Unlinks and destroys the device *link points at.
void RemoveDevice(CManager* manager, CDeviceObject** link);
