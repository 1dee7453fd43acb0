// What comes out of the daemon's output pipe: command replies (header 0x03 on USB, 0x0A
// on serial; byte 1 the count of bytes after it, byte 2 the command) and, while a serial
// controller's reports go to the tool, 64-byte converted point packets. Pure functions
// over the bytes of one read, which may hold several packets back to back.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr uint8_t kCtlUsbHeader = 0x03;
constexpr uint8_t kCtlSerialHeader = 0x0A;
constexpr uint8_t kCtlCmdVersion = 0x44;  // 'D'
constexpr uint8_t kCtlCmdModel = 0x45;    // 'E'
constexpr uint8_t kCtlCmdType = 0x46;     // 'F'
constexpr int kCtlTextMax = 63;           // controller texts are at most 63 characters

// Length of the packet at the start of bytes (1 to len): a point packet or a USB report
// is 64 bytes (or what is left of them), a serial or merged reply its length byte + 2;
// bytes that start no known packet are taken whole.
int CtlPacketLength(const uint8_t* bytes, int len);

// Length of the serial packet that starts with these two bytes: 64 for a point packet, the
// length byte + 2 (at most 64) for a command reply, 1 for a byte that starts no packet
// (so that a reader skips it and finds the next packet).
int SerialPacketLength(uint8_t first, uint8_t second);

// Offset of the first packet in bytes whose header and command byte match, or -1.
int FindReply(const uint8_t* bytes, int len, uint8_t header, uint8_t command);

// The text of an identification reply starting at reply: bytes from offset 3, at most
// (length byte - 1) of them, stopping at the first 0 byte, at the end of the packet or
// after 63 bytes. Printable ASCII is kept, any other byte is written as \xNN. text
// always ends with NUL (truncated to size). Returns the number of reply bytes taken.
int ReplyText(const uint8_t* reply, int len, char* text, size_t size);

// A serial controller's point as converted for the tool: down = 1 while touched,
// x and y 0 to 4094 as the controller measures them (y not mirrored).
struct CtlPoint {
    int down;
    int x;
    int y;
};

// Decodes a converted point packet (0x0A, 0x82 or 0x83, X low, X high, Y low, Y high,
// zeros to 64 bytes). Returns 0, or -1 when the bytes are not one.
int DecodeToolPoint(const uint8_t* packet, int len, CtlPoint* point);

// Bytes as lower-case hexadecimal pairs separated by one blank ("03 01 41"), truncated
// to fit text; text always ends with NUL.
void FormatHexLine(const uint8_t* bytes, int len, char* text, size_t size);
