// The system log of the platform: liblog on Android, syslog elsewhere.
#pragma once

// Writes one message with debug priority, or error priority when is_error is set,
// under the tag / identity "TouchD".
void PlatformLogWrite(bool is_error, const char* message);
