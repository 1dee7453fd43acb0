// The bare device record: construction of the fields and the release of everything the
// object owns. Opening the port and starting the thread are in device_object.cpp.
#include <string.h>

#include "device/cmd_internal.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "output/uinput_device.h"
#include "toolpipe/tool_pipe.h"

CDeviceObject::CDeviceObject(const char* port_path, GlobalSettings* settings) : pSettings(settings) {
    snprintf(PortPath, sizeof(PortPath), "%s", port_path ? port_path : "");
    pthread_mutex_init(&CmdMutex, nullptr);
    InitCmdCond(this);  // once per object; deadlines on CmdCondClock()
    for (int i = 0; i < kVKeyCount; ++i) VKeyCode[i] = -1;
    for (int i = 0; i < kMaxContacts; ++i) CurContacts[i].State = -1;
    snprintf(TypeName, sizeof(TypeName), "UNREACHABLE");
    snprintf(ModelName, sizeof(ModelName), "UNREACHABLE");
    snprintf(FWVersion, sizeof(FWVersion), "UNREACHABLE");
    SetDeviceParamDefaults(&Param);
    if (settings) IAPType = settings->NewDevIAPType;
}

CDeviceObject::~CDeviceObject() {
    TLOG(LOG_INIT, " Desconstructor ~CDeviceObject() is called.");
    // The receive thread is stopped before anything it writes to is closed, so it can never
    // write into a descriptor number that has already been reused.
    StopReadThread(this);
    CloseUinputDevices(this);
    DevCloseAppPipe(this);
    ClosePort(this);
    pthread_cond_destroy(&CmdCond);
    pthread_mutex_destroy(&CmdMutex);
}
