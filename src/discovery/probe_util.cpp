// Small utilities shared by every part that exchanges or logs command packets.
#include <stdio.h>
#include <sys/select.h>

#include "discovery/probe_exchange.h"

int SelectSleep(int seconds, int milliseconds) {
    struct timeval timeout;
    timeout.tv_sec = seconds + milliseconds / 1000;
    timeout.tv_usec = (milliseconds % 1000) * 1000;
    return select(0, nullptr, nullptr, nullptr, &timeout);
}

void HexDumpBytes(const uint8_t* bytes, int count, char* text) {
    text[0] = '\0';
    for (int i = 0; i < count; ++i) {
        snprintf(text + 4 * i, 5, "[%02X]", bytes[i]);
    }
}
