// Report format commands sent during set-up.
#pragma once

#include <stdint.h>

class CDeviceObject;

int SetFormat(CDeviceObject* device, uint8_t format);
int SetRawFormat(CDeviceObject* device);
int GetRCLKFormat(CDeviceObject* device, uint8_t* report_id, uint8_t* rclk_control,
                  uint8_t* rclk_count);
int SetRCLKFormat(CDeviceObject* device, uint8_t report_id, uint8_t rclk_control,
                  uint8_t rclk_count);
void DisableRCLKFunction(CDeviceObject* device);
