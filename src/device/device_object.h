// CDeviceObject: one attached touch controller. Owns its port, tool pipes, uinput devices
// and its receive thread, and releases them when destroyed. Operations on it are free
// functions taking the object first; the manager creates it with Create() and destroys it
// with delete (RemoveDevice).
#pragma once

#include <linux/input.h>
#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <memory>

#include "config/device_param.h"
#include "config/global_settings.h"
#include "core/unique_fd.h"
#include "touch/touch_point.h"

constexpr int kCmdBufSize = 128;      // CmdSendBuf, CmdReplyBuf
constexpr int kPacketMax = 64;        // one command packet or reply packet
constexpr int kPortReadMax = 65;      // one read from a port
constexpr int kSerialBufSize = 64;
constexpr int kVKeyCount = 10;
// Events of one frame held for its one write: a frame of every contact table entry in the
// longest protocol (6 events each) with its SYN_REPORT and an empty type A frame fits.
constexpr int kFrameEventMax = 128;

enum : uint8_t {
    DEV_USB = 0,
    DEV_RS232 = 1,
    DEV_PS2 = 2,
    DEV_UNKNOWN = 0xFF,
};

enum : uint8_t { CMD_HEADER_USB = 0x03, CMD_HEADER_SERIAL = 0x0A };

class CDeviceObject {
public:
    // Builds the object for port path: detects the interface, opens the port, reads the
    // device's block of the settings file and starts the receive thread. Returns nullptr
    // (after logging why and releasing everything) when the port cannot be opened or the
    // thread cannot be started, so the manager never keeps a device it cannot serve.
    static std::unique_ptr<CDeviceObject> Create(const char* port_path, GlobalSettings* settings);

    // Closes the uinput devices and tool pipes, stops the receive thread, closes the port.
    ~CDeviceObject();

    CDeviceObject(const CDeviceObject&) = delete;
    CDeviceObject& operator=(const CDeviceObject&) = delete;

    // Command channel (see device/cmd_channel.h).
    std::atomic<uint8_t> bSelfHookReplied{0};
    uint8_t bVendorReport = 0;
    uint8_t bSetFeature = 0;
    uint8_t CmdSendBuf[kCmdBufSize] = {};
    uint8_t CmdReplyBuf[kCmdBufSize] = {};
    uint8_t SigReplyBuf[kCmdBufSize] = {};  // reply that woke a blocked sender, under CmdMutex
    std::atomic<uint16_t> SigHookCmd{0};
    std::atomic<uint16_t> SigHookSubCmd{0};
    std::atomic<uint16_t> SelfHookCmd{0};
    std::atomic<uint16_t> SelfHookSubCmd{0};

    // Identification (device/identification.h).
    char TypeName[kTextMax] = {};
    char ModelName[kTextMax] = {};
    char FWVersion[kTextMax] = {};
    uint8_t IAPType = IAP_FW;
    uint32_t BaudRate = 0;

    pthread_mutex_t CmdMutex;
    pthread_cond_t CmdCond;
    uint8_t WakeCount = 0;    // under CmdMutex
    uint8_t WaiterCount = 0;  // under CmdMutex

    GlobalSettings* pSettings = nullptr;  // not owned
    char PortPath[kTextMax] = {};
    UniqueFd m_Port_fd;

    // Receive thread.
    std::atomic<uint8_t> bThreadRunning{0};  // alive and may be stopped by signal
    bool bThreadCreated = false;             // ThreadId names a thread that must be joined
    pthread_t ThreadId{};

    // Multi-contact frame counters (touch/point_parse.h).
    int32_t TotalPtsCnt = 0;
    int32_t HandledPtsCnt = 0;
    int32_t Series = 0;

    // Contact tables, indexed by contact number.
    TouchPoint CurContacts[kMaxContacts] = {};   // state -1 = empty slot
    TouchPoint LastContacts[kMaxContacts] = {};  // as last written to the input device
    TouchPoint HoldContacts[kMaxContacts] = {};  // last record that passed the hold filter
    uint8_t LastContactID = 0;                   // per device (see output/emit.h)
    int32_t LastPenInvert = 0;
    // A scan of a report that announces its contact count (output/emit.h): while it is
    // open, touch records only change CurContacts and its one frame is held back.
    bool bScanOpen = false;
    bool bScanPending = false;      // a record changed CurContacts since the last frame
    uint32_t ScanStateChanged = 0;  // bit per entry whose state changed since the last frame
    uint8_t ScanProtocol = 0;       // touch protocol of the held frame

    CDeviceObject* pNext = nullptr;
    DeviceParam Param = {};

    uint32_t bPCAP = 0;
    uint8_t NoDeviceCheck = 0;
    uint8_t SendRawPoints = 0;
    int8_t CmdHeader = 0;

    // Reply merging (touch/cmd_reply.h).
    int32_t CurIndex = 0;
    int32_t RealLen = 0;
    int32_t bMerging = 0;

    uint8_t DevInterface = DEV_UNKNOWN;

    // Serial splitting (touch/serial_split.h).
    uint8_t bCmdPacket = 0;
    uint8_t bPointPacket = 0;
    uint8_t CmdPacketLen = 0;
    uint8_t PointPacketLen = 0;
    uint8_t SerialIndex = 0;
    uint8_t SerialBuf[kSerialBufSize] = {};
    uint8_t bPointsToTool = 0;

    // Resolution shift per report kind (device/descriptor.h); -1 = no usable maximum.
    int8_t MouseResShift = 0;
    int8_t DigitizerResShift = 0;
    int8_t MTouchResShift = 0;
    int8_t ParallelResShift = 0;
    // Logical maximum each coordinate report declares (device/descriptor.h); 0 = none.
    int32_t MouseLogicalMax = 0;
    int32_t DigitizerLogicalMax = 0;
    int32_t MTouchLogicalMax = 0;
    int32_t ParallelLogicalMax = 0;

    // Tool pipes (toolpipe/tool_pipe.h) and virtual input devices (output/).
    UniqueFd m_fdPipeIn;
    UniqueFd m_fdPipeOut;
    UniqueFd UinputTouchFd;
    UniqueFd UinputPenFd;
    bool bTouchDeviceCreated = false;
    bool bPenDeviceCreated = false;
    struct input_event Event = {};  // the one event record every emitter reuses
    // The frame being written (output/emit.h): its events so far, sent with one write at
    // its SYN_REPORT to FrameTarget, a descriptor of the uinput devices above (not owned).
    struct input_event FrameEvents[kFrameEventMax] = {};
    int FrameEventCount = 0;
    int FrameTarget = -1;

    // Virtual keys (touch/vkey.h).
    int32_t VKeyCode[kVKeyCount];
    uint16_t VKeyCount[kVKeyCount] = {};

    // RS232 presence check: select wake-ups with nothing ready since the last activity.
    uint32_t IdleWakeCount = 0;

    // Builds the bare record (no port, no thread): used by Create() and by unit tests
    // that drive the data path over socketpairs.
    CDeviceObject(const char* port_path, GlobalSettings* settings);
};

// The data-path operations of the record that need no thread.
//
// InitMember: interface detection, port open, parameter defaults, physical address,
// counters and channel state. Returns 0, or -1 when the port could not be opened.
int InitMember(CDeviceObject* device);
// Sets DevInterface and CmdHeader from PortPath; returns DevInterface.
uint8_t DetectInterface(CDeviceObject* device);
// Opens PortPath read-write, non-blocking; for RS232 sets the line speed. 0 or -1.
int OpenPort(CDeviceObject* device);
void ClosePort(CDeviceObject* device);
// Line setting. save != 0: saves the current settings process-wide, then sets raw 8N1 at
// rate (other rates keep the speed bits). save == 0: writes the saved settings back.
// Returns the result of the final ioctl.
int SetPortBaudRate(int fd, uint32_t rate, int save);
// Parameter defaults and physical address.
void SetDefaultParamAndAddress(CDeviceObject* device);

// Receive thread.
void* DevThreadMain(void* device);
// Waits on the port and the tool pipe; returns only when the thread must end.
void DevRxLoop(CDeviceObject* device);
void DevCleanPortData(CDeviceObject* device);
// Installs StopThreadHandler for SIGUSR1; returns the sigaction result.
int SetupSigUsr1Handler();
void StopThreadHandler(int signal_number);
int StopReadThread(CDeviceObject* device);
// "chmod 666 /dev/input/event*".
void ChmodInputEventNodes();

// The receive thread ends by returning from DevThreadMain, never from inside a signal
// handler or a held lock. SIGUSR1 (and an unplugged port) only raise this thread's stop
// request; every wait of the thread is interruptible and checks it.
bool RxThreadStopRequested();
void RequestRxThreadStop();
// pselect() that is interrupted by SIGUSR1 without a race: SIGUSR1 is blocked in receive
// threads except inside this wait. Same arguments and result as select(); returns -1 with
// errno EINTR when the stop request is raised.
int RxThreadSelect(int nfds, fd_set* readfds, struct timeval* timeout);
