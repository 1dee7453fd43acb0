// Serial line settings of a port, with the one process-wide saved copy that is written
// back when a serial port is closed.
#include <pthread.h>
#include <sys/ioctl.h>
#include <termio.h>

#include "device/device_object.h"
#include "log/debug_log.h"

namespace {

// The scan loop's probe, device set-up, the tool's reset command and device removal all
// save or restore it, from the main thread and from receive threads: the mutex keeps
// every copy whole.
pthread_mutex_t SavedLineMutex = PTHREAD_MUTEX_INITIALIZER;
struct termio SavedLine;
bool HaveSavedLine = false;

}  // namespace

int SetPortBaudRate(int fd, uint32_t rate, int save) {
    if (save == 0) {
        pthread_mutex_lock(&SavedLineMutex);
        const bool have = HaveSavedLine;
        const struct termio saved = SavedLine;
        pthread_mutex_unlock(&SavedLineMutex);
        // Nothing saved yet: writing a zeroed record would hang the line up (speed B0).
        if (!have) return -1;
        return ioctl(fd, TCSETAF, &saved);
    }
    struct termio current;
    if (ioctl(fd, TCGETA, &current) < 0) return -1;
    pthread_mutex_lock(&SavedLineMutex);
    SavedLine = current;
    HaveSavedLine = true;
    pthread_mutex_unlock(&SavedLineMutex);
    struct termio line = current;
    line.c_iflag = 0;
    line.c_oflag = 0;
    line.c_lflag = 0;
    switch (rate) {
        case 9600:
            line.c_cflag = B9600 | CS8 | CREAD | CLOCAL;
            TLOG(LOG_SCAN, "Set Baudrate to 9600");
            break;
        case 19200:
            line.c_cflag = B19200 | CS8 | CREAD | CLOCAL;
            TLOG(LOG_SCAN, "Set Baudrate to 19200");
            break;
        case 57600:
            line.c_cflag = B57600 | CS8 | CREAD | CLOCAL;
            TLOG(LOG_SCAN, "Set Baudrate to 57600");
            break;
        case 115200:
            line.c_cflag = B115200 | CS8 | CREAD | CLOCAL;
            TLOG(LOG_SCAN, "Set Baudrate to 115200");
            break;
        default:
            break;  // other rates keep the control flags that were read
    }
    return ioctl(fd, TCSETAF, &line);
}
