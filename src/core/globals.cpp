// Process-wide values of the environment probe and the plug-and-play flag.
#include "core/environment.h"

KernelVersionInfo KernelVersion = {0, 0, 0};
int32_t bOldKernel = 0;
AndroidVersionInfo AndroidVersion = {0, 0};
std::atomic<uint8_t> bDeviceExistCheck{0};
