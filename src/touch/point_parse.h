// Point, multi-contact and pen reports into TouchPoint records.
#pragma once

#include <stdint.h>

class CDeviceObject;

// Decodes one point report (starting at its report id, or at the first byte of a serial
// report) of count bytes and hands each contact to HandleContact. Bytes past count are
// never read: a report shorter than its layout is dropped (multi-contact reports: slots
// that are not whole are not read).
void ParsePointPacket(CDeviceObject* device, const uint8_t* packet, int count);
