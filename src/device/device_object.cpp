// Creation of a device object: interface detection, port, parameter defaults, physical
// address, and the start of the receive thread.
#include "device/device_object.h"

#include <fcntl.h>
#include <linux/hidraw.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>

#include <new>

#include "core/device_node.h"
#include "log/debug_log.h"

namespace {

constexpr int kPhysAddressMax = 64;

bool StartsWith(const char* text, const char* prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Starts the receive thread with SIGUSR1 blocked; the thread unblocks it only inside its
// waits (RxThreadSelect). Returns the pthread_create result.
int StartReceiveThread(CDeviceObject* device) {
    sigset_t usr1;
    sigset_t old_mask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old_mask);
    // Set before the thread runs: a thread that ends at once clears it again itself.
    device->bThreadRunning = 1;
    int ret = pthread_create(&device->ThreadId, nullptr, DevThreadMain, device);
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    if (ret != 0) {
        device->bThreadRunning = 0;
        return ret;
    }
    device->bThreadCreated = true;
    return 0;
}

}  // namespace

std::unique_ptr<CDeviceObject> CDeviceObject::Create(const char* port_path,
                                                     GlobalSettings* settings) {
    std::unique_ptr<CDeviceObject> device(new (std::nothrow) CDeviceObject(port_path, settings));
    if (!device) return nullptr;
    if (InitMember(device.get()) < 0) return nullptr;
    DevIniRoutine(device.get());
    device->pNext = nullptr;
    // Installed before the thread exists, so a stop sent at once can never find the
    // default action (which would end the whole process).
    SetupSigUsr1Handler();
    int ret = StartReceiveThread(device.get());
    if (ret != 0) {
        errno = ret;
        TLOG_ERR(LOG_MAIN, "Thread Create failed:");
        return nullptr;
    }
    return device;
}

uint8_t DetectInterface(CDeviceObject* device) {
    const char* path = device->PortPath;
    if (StartsWith(path, "/dev/hidraw")) {
        device->DevInterface = DEV_USB;
        device->CmdHeader = CMD_HEADER_USB;
        TLOG(LOG_MAIN, "DevInterface = USB. Cmd header = %02X", device->CmdHeader);
    } else if (StartsWith(path, "/dev/tty")) {
        device->DevInterface = DEV_RS232;
        device->CmdHeader = CMD_HEADER_SERIAL;
        TLOG(LOG_MAIN, "DevInterface = RS232. Cmd header = %02X", device->CmdHeader);
    } else if (StartsWith(path, "/dev/serio_raw")) {
        device->DevInterface = DEV_PS2;
        device->CmdHeader = CMD_HEADER_SERIAL;
        TLOG(LOG_MAIN, "DevInterface = PS2. Cmd header = %02X", device->CmdHeader);
    } else {
        device->DevInterface = DEV_UNKNOWN;
    }
    return device->DevInterface;
}

int OpenPort(CDeviceObject* device) {
    device->m_Port_fd.reset();
    // A serial port must be a terminal; every other port some character device.
    const DeviceNodeKind kind = device->DevInterface == DEV_RS232 ? kNodeTerminal : kNodeAnyChar;
    int fd = OpenDeviceNode(device->PortPath, O_RDWR | O_NONBLOCK, kind);
    if (fd < 0) {
        TLOG_ERR(LOG_INIT, "Open file [%s] failed", device->PortPath);
        return -1;
    }
    device->m_Port_fd.reset(fd);
    if (device->DevInterface == DEV_RS232) {
        device->BaudRate = device->pSettings ? device->pSettings->DeviceBaudRate : 0;
        SetPortBaudRate(fd, device->BaudRate, 1);
        TLOG(LOG_INIT, "Set Device [%s] BaudRate %d", device->PortPath,
             static_cast<int>(device->BaudRate));
    }
    return 0;
}

void ClosePort(CDeviceObject* device) {
    if (!device->m_Port_fd.valid()) return;
    if (device->DevInterface == DEV_RS232) SetPortBaudRate(device->m_Port_fd.get(), 0, 0);
    device->m_Port_fd.reset();
}

void SetDefaultParamAndAddress(CDeviceObject* device) {
    DeviceParam* param = &device->Param;
    SetDeviceParamDefaults(param);
    snprintf(param->Physical_Address, sizeof(param->Physical_Address), "NULL");
    device->SendRawPoints = device->pSettings ? device->pSettings->UseDriverCalib : 0;
    device->NoDeviceCheck = 0;
    device->bPointsToTool = 0;
    if (device->DevInterface == DEV_USB) {
        char address[kPhysAddressMax] = {};
        if (ioctl(device->m_Port_fd.get(), HIDIOCGRAWPHYS(kPhysAddressMax), address) >= 0) {
            address[kPhysAddressMax - 1] = '\0';
            snprintf(param->Physical_Address, sizeof(param->Physical_Address), "%s", address);
        }
        TLOG(LOG_MAIN, "Device Physical address = [%s].", param->Physical_Address);
    } else if (device->DevInterface == DEV_RS232 || device->DevInterface == DEV_PS2) {
        snprintf(param->Physical_Address, sizeof(param->Physical_Address), "%s", device->PortPath);
    }
}

int InitMember(CDeviceObject* device) {
    DetectInterface(device);
    if (OpenPort(device) < 0) return -1;
    SetDefaultParamAndAddress(device);
    device->m_fdPipeIn.reset();
    device->m_fdPipeOut.reset();
    device->UinputTouchFd.reset();
    for (int i = 0; i < kVKeyCount; ++i) {
        device->VKeyCode[i] = -1;
        device->VKeyCount[i] = 0;
    }
    device->Series = 0;
    device->bVendorReport = 0;
    device->bSetFeature = 0;
    device->Param.BlockCounter = 255;
    device->TotalPtsCnt = 0;
    device->HandledPtsCnt = 0;
    for (int i = 0; i < kMaxContacts; ++i) {
        device->CurContacts[i] = TouchPoint{};
        device->CurContacts[i].State = -1;
        device->LastContacts[i] = TouchPoint{};
        device->HoldContacts[i] = TouchPoint{};
    }
    pthread_mutex_lock(&device->CmdMutex);
    device->WakeCount = 0;
    device->WaiterCount = 0;
    pthread_mutex_unlock(&device->CmdMutex);
    device->bCmdPacket = 0;
    device->bPointPacket = 0;
    device->CmdPacketLen = 0;
    device->PointPacketLen = 0;
    device->SerialIndex = 0;
    memset(device->SerialBuf, 0, sizeof(device->SerialBuf));
    device->SigHookCmd = 0;
    device->SigHookSubCmd = 0;
    device->SelfHookCmd = 0;
    device->SelfHookSubCmd = 0;
    device->IAPType =
        device->pSettings ? device->pSettings->NewDevIAPType : static_cast<uint8_t>(IAP_FW);
    snprintf(device->TypeName, sizeof(device->TypeName), "UNREACHABLE");
    snprintf(device->ModelName, sizeof(device->ModelName), "UNREACHABLE");
    snprintf(device->FWVersion, sizeof(device->FWVersion), "UNREACHABLE");
    TLOG(LOG_MAIN, "Leaving %s", "InitMember");
    return 0;
}
