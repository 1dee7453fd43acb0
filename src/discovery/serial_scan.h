// Serial (RS232) and PS/2 discovery.
#pragma once

#include <stdint.h>

class CManager;
struct ProbeContext;

void ScanRS232Port(CManager* manager);
// 0 when a controller answered on the port (DeviceBaudRate then holds its speed), else -1.
int CheckRS232Device(CManager* manager, const char* path);
// 0 when the controller answered the IAP-type query as a boot-loader, -1 otherwise.
int IsItBFW(ProbeContext* context, int fd, int serial);
int CheckIAPReply(const uint8_t* reply);
void ScanPS2Port(CManager* manager);
