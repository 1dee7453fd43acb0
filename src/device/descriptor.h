// The HID report descriptor of a USB controller: which reports it declares and the
// resolution shift of each coordinate report.
#pragma once

#include <stdint.h>

class CDeviceObject;

constexpr int kMaxDescriptorSize = 4096;

// Reads the descriptor of the device's hidraw node (serial devices: vendor report only).
void DevGetDescriptorInfo(CDeviceObject* device);
// Applies the report ids found in descriptor bytes to the device's fields (pure).
void ApplyReportDescriptor(CDeviceObject* device, const uint8_t* descriptor, int size);
// Resolution shift of the report whose Report ID item starts at index start: 0 to 4 for
// real descriptors, -1 when no Logical Maximum follows a Generic Desktop usage page.
int ResolutionShift(const uint8_t* descriptor, int start, int size);
