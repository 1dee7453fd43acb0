// The serial and PS/2 splitter: the byte stream of a serial or PS/2 port cut into point
// reports (5 or 6 bytes, first byte with the top bit set) and command packets (0x0A, length,
// payload). The collecting state lives in the device so a packet may span reads.
#include <stdio.h>

#include "device/device_object.h"
#include "log/debug_log.h"
#include "touch/cmd_reply.h"
#include "touch/point_parse.h"
#include "touch/reception.h"

namespace {

constexpr uint8_t kPs2Ack = 0xFA;  // PS/2 acknowledge byte, never part of a packet

void ResetSerialState(CDeviceObject* device) {
    device->bCmdPacket = 0;
    device->bPointPacket = 0;
    device->CmdPacketLen = 0;
    device->PointPacketLen = 0;
    device->SerialIndex = 0;
}

// 5 bytes for PS/2 and for RS232 at 9600 baud, 6 bytes for RS232 at other speeds.
uint8_t SerialPointLength(const CDeviceObject* device) {
    if (device->BaudRate == 9600) {
        return (device->DevInterface == DEV_RS232 || device->DevInterface == DEV_PS2) ? 5 : 6;
    }
    return device->DevInterface == DEV_PS2 ? 5 : 6;
}

void StartPacket(CDeviceObject* device, uint8_t b) {
    if (b >= 0x80) {
        device->CmdPacketLen = 0;
        device->SerialBuf[0] = b;
        device->SerialIndex = 1;
        TLOG(LOG_DATA, "Entering ParsePointPacket");
        if (device->bPointsToTool == 0) {
            device->bPointPacket = 1;
        } else {
            // The tool has switched reports off: the report goes to it as a reply.
            device->bCmdPacket = 1;
            device->CmdPacketLen = 5;
        }
        device->PointPacketLen = SerialPointLength(device);
    } else if (b == CMD_HEADER_SERIAL) {
        device->bCmdPacket = 1;
        device->bPointPacket = 0;
        device->CmdPacketLen = 0;
        device->SerialBuf[0] = b;
        device->SerialIndex = 1;
    }
    // Any other byte outside a packet is noise and is dropped.
}

void CollectPointByte(CDeviceObject* device, uint8_t b) {
    if (device->SerialIndex < kSerialBufSize) device->SerialBuf[device->SerialIndex++] = b;
    if (device->SerialIndex < device->PointPacketLen) return;
    const int length = device->PointPacketLen;
    ResetSerialState(device);
    if (device->bPointsToTool == 0) ParsePointPacket(device, device->SerialBuf, length);
}

void CollectCommandByte(CDeviceObject* device, uint8_t b) {
    if (device->CmdPacketLen == 0) {
        // The length byte: header and length byte plus b more bytes, at most one packet.
        const int length = static_cast<int>(b) + 2;
        device->CmdPacketLen = static_cast<uint8_t>(length > kPacketMax ? kPacketMax : length);
    }
    if (device->SerialIndex < kSerialBufSize) device->SerialBuf[device->SerialIndex++] = b;
    // A length byte of 0 makes a complete 2-byte packet at once.
    if (device->SerialIndex < device->CmdPacketLen) return;
    ParseCmdPacket(device, device->SerialBuf, device->CmdPacketLen);
    device->bCmdPacket = 0;
    device->CmdPacketLen = 0;
    device->SerialIndex = 0;
}

}  // namespace

void ParseSerialPacket(CDeviceObject* device, const uint8_t* bytes, int count) {
    for (int i = 0; i < count; ++i) {
        const uint8_t b = bytes[i];
        if (device->DevInterface == DEV_PS2 && b == kPs2Ack) continue;
        if (device->bPointPacket) {
            CollectPointByte(device, b);
        } else if (device->bCmdPacket) {
            CollectCommandByte(device, b);
        } else {
            StartPacket(device, b);
        }
    }
}
