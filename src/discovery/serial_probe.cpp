// The serial probe: finds the line speed at which a controller answers on a serial port,
// in its application firmware (loop-back command) or its boot-loader (IAP-type query).
#include "discovery/serial_probe.h"

#include <fcntl.h>
#include <string.h>
#include <termios.h>

#include "config/global_settings.h"
#include "core/device_node.h"
#include "core/environment.h"
#include "core/manager.h"
#include "core/unique_fd.h"
#include "device/cmd_channel.h"
#include "device/device_object.h"
#include "discovery/probe_exchange.h"
#include "discovery/serial_scan.h"
#include "log/debug_log.h"

namespace {

constexpr uint32_t kSearchSpeeds[] = {9600, 19200, 57600, 115200};
constexpr int kByteGapMs = 1;
constexpr int kSpeedGapMs = 50;
constexpr int kIAPReplyDelayMs = 200;

// Writes len bytes one at a time with a 1 ms pause after each. Returns the sum of the
// bytes written; stops at the first write that fails.
int WriteBytewise(int fd, const uint8_t* bytes, int len) {
    int sum = 0;
    for (int i = 0; i < len; ++i) {
        TLOG(LOG_SERIAL, "Write cmd=0x%X", bytes[i]);
        ssize_t n = WriteRetry(fd, &bytes[i], 1);
        SelectSleep(0, kByteGapMs);
        if (n != 1) break;
        sum += 1;
    }
    return sum;
}

}  // namespace

int IsItAppFW(ProbeContext* context, int fd) {
    TLOG(LOG_SERIAL, "Entering %s", "IsItAppFW");
    tcflush(fd, TCIFLUSH);  // bytes that arrived at the previous speed are not a reply
    const uint8_t loopback[3] = {CMD_HEADER_SERIAL, 0x01, kLoopbackCmd};
    int written = WriteBytewise(fd, loopback, sizeof(loopback));
    if (written != static_cast<int>(sizeof(loopback))) {
        TLOG(LOG_SERIAL, "Send loop-back cmd failed with ret=%d", written);
        return -1;
    }
    SelectSleep(0, kLoopbackReplyDelayMs);
    int len = ReadDeviceResponse(context, fd, context->ReplyBuf, kLoopbackCmd);
    if (len < 3) return -1;
    const uint8_t* reply = context->ReplyBuf;
    if (reply[0] != CMD_HEADER_SERIAL || reply[2] != kLoopbackCmd || reply[1] + 2 != len) {
        TLOG(LOG_SERIAL, "Loop-back reply does not match");
        return -1;
    }
    TLOG(LOG_SERIAL, "Loop-back answered");
    return 0;
}

int IsItBFW(ProbeContext* context, int fd, int serial) {
    TLOG(LOG_SERIAL, "Entering %s", "IsItBFW");
    uint8_t query[kCmdShiftLimit];
    memset(query, 0, sizeof(query));
    query[0] = serial == 1 ? CMD_HEADER_SERIAL : CMD_HEADER_USB;
    query[1] = 0x02;
    query[2] = 0x39;
    query[3] = 0x02;
    int len = 4;
    if (bOldKernel) ShiftCommandBytes(query, &len, 1, 1);

    int written;
    if (serial == 1) {
        written = WriteBytewise(fd, query, len);
        SelectSleep(0, kIAPReplyDelayMs);
    } else {
        ssize_t n = WriteRetry(fd, query, static_cast<size_t>(len));
        written = n < 0 ? 0 : static_cast<int>(n);
    }
    if (written != len) {
        TLOG(LOG_SERIAL, "Send get IAP type cmd failed with ret=%d", written);
        return -1;
    }
    if (ReadDeviceResponse(context, fd, context->ReplyBuf, 0x39) <= 0) return -1;
    return CheckIAPReply(context->ReplyBuf);
}

int CheckIAPReply(const uint8_t* reply) {
    if (reply[2] != 0x39) {
        TLOG(LOG_SERIAL, "IAP CmdHeader Dismatch");
        return -1;
    }
    if (reply[3] == 0 && reply[4] == 0) return -1;
    TLOG(LOG_SERIAL, "The content of target device is BootLoader");
    return 0;
}

int CheckRS232Device(CManager* manager, const char* path) {
    TLOG(LOG_SCAN, "Entering %s.", "CheckRS232Device");
    GlobalSettings* settings = manager->pSettings;
    ResetSerialReplyParser();
    UniqueFd fd(OpenDeviceNode(path, O_RDWR | O_NONBLOCK, kNodeTerminal));
    if (!fd.valid()) {
        TLOG(LOG_SCAN,
             "Open port [%s] failed with fd=%d. This may be caused by executing with "
             "non-root permission.",
             path, fd.get());
        return -1;
    }

    const uint32_t* speeds = kSearchSpeeds;
    int speed_count = static_cast<int>(sizeof(kSearchSpeeds) / sizeof(kSearchSpeeds[0]));
    if (settings->BaudRate != 0) {
        speeds = &settings->BaudRate;
        speed_count = 1;
        TLOG(LOG_SCAN, "Set Baudrate to [%d]", static_cast<int>(settings->BaudRate));
    }
    for (int i = 0; i < speed_count; ++i) {
        const uint32_t rate = speeds[i];
        if (settings->BaudRate == 0) TLOG(LOG_SCAN, "Baudrate [%d]", static_cast<int>(rate));
        SetPortBaudRate(fd.get(), rate, 1);
        ProbeContext context;
        memset(&context, 0, sizeof(context));
        context.bSerialFraming = 1;
        const bool answered =
            IsItAppFW(&context, fd.get()) == 0 || IsItBFW(&context, fd.get(), 1) == 0;
        SetPortBaudRate(fd.get(), 0, 0);
        if (answered) {
            settings->DeviceBaudRate = rate;
            return 0;
        }
        SelectSleep(0, kSpeedGapMs);
    }
    return -1;
}
