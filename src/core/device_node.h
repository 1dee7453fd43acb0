// Opening the device nodes the daemon writes to: controller ports (standard names or paths
// from the settings file and the command line) and the uinput node. A path that names
// anything but a character device of the expected kind (a regular file, a FIFO, the
// settings file itself) is refused before it is opened, so no probe byte and no device
// record is ever written into it.
#pragma once

enum DeviceNodeKind {
    kNodeAnyChar,   // any character device (hidraw, serio_raw, an unknown port)
    kNodeTerminal,  // a character device that is a terminal (serial ports)
    kNodeUinput,    // the kernel's uinput device: misc device 10:223
};

// Opens path with flags plus O_CLOEXEC and O_NOCTTY when it names a device of the kind.
// Links are followed (udev names ports through links); the kind is checked on the path
// before the open and again on the opened descriptor. Returns the descriptor, or -1 with
// errno from stat/open, or ENODEV for a refused node (logged with the reason: under
// LOG_MAIN for uinput, LOG_INIT for ports, which are refused again on every scan pass).
int OpenDeviceNode(const char* path, int flags, DeviceNodeKind kind);

// True when path is a device node (character or block, not a link to one) under /dev,
// named without "." or ".." components: the only kind of port node the daemon deletes
// when its port reads empty.
bool IsDeviceNodeUnderDev(const char* path);
