// The application-firmware half of the serial probe.
#pragma once

#include <stdint.h>

struct ProbeContext;

constexpr uint8_t kLoopbackCmd = 0x41;
// Pause between the last byte of the loop-back command and the reply read.
constexpr int kLoopbackReplyDelayMs = 100;

// Writes the loop-back command 0x0A 0x01 0x41 a byte at a time and reads the reply with
// ReadDeviceResponse. 0 when a well-formed 0x0A-framed reply to 0x41 came back (the
// controller runs its application firmware at the port's current speed), -1 otherwise.
int IsItAppFW(ProbeContext* context, int fd);
