// Time limits of the probe exchange (milliseconds, CLOCK_MONOTONIC).
#pragma once

// Longest a ReadDeviceResponse call lasts, however much unrelated traffic the port sends.
constexpr int kProbeReadLimitMs = 250;
// Longest a WaitDeviceResponse call lasts while the port keeps delivering bytes that do
// not end the wait.
constexpr int kWaitResponseLimitMs = 1000;
