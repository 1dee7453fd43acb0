// The set-up sequence every receive thread runs before it starts receiving.
#pragma once

class CDeviceObject;

// Returns -1 when a virtual input device cannot be created, -2 when the thread was asked
// to stop; otherwise enters DevRxLoop and returns only when the thread must end (0).
int DevSetup(CDeviceObject* device);
// Sets EventType by kernel and series when it is 0.
void ChooseEventType(CDeviceObject* device);
