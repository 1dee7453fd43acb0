// Point, multi-contact and pen reports into TouchPoint records.
#pragma once

#include <stdint.h>

class CDeviceObject;

// Decodes one point report (starting at its report id, or at the first byte of a serial
// report) of count bytes and hands each contact to HandleContact. Bytes past count are
// never read: a report shorter than its layout is dropped (multi-contact reports: slots
// that are not whole are not read).
void ParsePointPacket(CDeviceObject* device, const uint8_t* packet, int count);
// A multi-contact frame (0x06, 0x17) is waiting for its continuation packets.
bool MultiContactFrameOpen(const CDeviceObject* device);
// Ends such a frame when no further packet came (the port fell silent after a lost
// packet): its contacts handed over so far are written.
void EndMultiContactFrame(CDeviceObject* device);
