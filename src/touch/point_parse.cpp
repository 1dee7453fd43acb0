// Point reports into TouchPoint records: single-contact mouse/digitizer/touch reports, the
// pen report, the two multi-contact frame reports and the serial report. Every layout is
// read only within the count of bytes handed over.
#include "touch/point_parse.h"

#include "device/device_object.h"
#include "log/debug_log.h"
#include "output/emit.h"
#include "touch/contact.h"
#include "touch/touch_point.h"

namespace {

constexpr int kSingleLen = 6;   // id, status, X (2), Y (2)
constexpr int kPenLen = 12;     // id, status, X, Y, Z, tilt X, tilt Y (2 each)
constexpr int kSpecialLen = 9;  // first contact of the series-11 0x04 report
constexpr int kSpecialSecondLen = 18;
constexpr int kSerialLen = 5;
constexpr int kSerialIdByte = 5;  // contact letter of 6-byte RS232 reports
constexpr int kFrameSlotStart = 2;
constexpr int kSeriesSpecial04 = 11;
constexpr int kSeriesLastDigitizer = 21;
constexpr int kSeriesLastUnshifted04 = 8;
constexpr int kMaxShift = 16;  // values are 16-bit: a larger shift reads as 0 anyway
constexpr int32_t kMaxCoord = 4095;
constexpr int kTiltLimit = 6000;
constexpr int kSerialFarEdge = 4094;

struct FrameLayout {
    int slot_size;
    int max_slots;
    bool shifted;  // X and Y shifted by ParallelResShift - 1
    int y_offset;  // offset of Y within the slot
};
constexpr FrameLayout kFrame06 = {10, 5, true, 4};
constexpr FrameLayout kFrame17 = {14, 4, false, 6};

int32_t U16(const uint8_t* p, int offset) {
    return static_cast<int32_t>(p[offset] | (p[offset + 1] << 8));
}

// A report coordinate brought to the 12-bit range. shift is the report's shift as its
// layout applies it (the descriptor's value or one less). From 0 up the coordinate is
// shifted right (capped, so it is always a valid shift of a 32-bit value). Below 0 the
// declared maximum was too small for any shift (2047, say): the coordinate is scaled so
// that the declared maximum lands on 4095. Without a declared maximum (the descriptor had
// none, or did not announce the report) it is taken as it is.
int32_t ScaleCoord(int32_t raw, int shift, int32_t logical_max) {
    if (shift >= 0) return raw >> (shift > kMaxShift ? kMaxShift : shift);
    if (logical_max <= 0) return raw;
    const int32_t bounded = raw < logical_max ? raw : logical_max;
    return bounded * kMaxCoord / logical_max;
}

// Contact numbers usable as a table index and announced by the device.
int ContactLimit(const CDeviceObject* device) {
    const int support = device->Param.SupportPoints;
    return support < kMaxContacts ? support : kMaxContacts;
}

void LogDriverCalib(const CDeviceObject* device) {
    const bool calib = device->pSettings && device->pSettings->UseDriverCalib;
    if (device->DevInterface == DEV_USB && (device->Series == 0 || calib)) {
        TLOG(LOG_DATA, "UseDriverCalib = %d, SendRawPoints = %d, Do Driver Calib", calib ? 1 : 0,
             device->SendRawPoints);
    }
}

bool LongEnough(const uint8_t* packet, int count, int needed) {
    if (count >= needed) return true;
    TLOG(LOG_DATA, "Report 0x%02X of %d bytes is shorter than its %d-byte layout, dropped",
         packet[0], count, needed);
    return false;
}

// Single-contact layout: status bit 0 state, bits 2-6 contact id, X and Y scaled.
void ReadSingle(const uint8_t* packet, int shift, int32_t logical_max, TouchPoint* point) {
    point->State = packet[1] & 0x01;
    point->ID = (packet[1] >> 2) & 0x1F;
    point->X = ScaleCoord(U16(packet, 2), shift, logical_max);
    point->Y = ScaleCoord(U16(packet, 4), shift, logical_max);
}

void HandSingle(CDeviceObject* device, const char* format, TouchPoint* point) {
    TLOG(LOG_DATA, format, point->ID, point->X, point->Y, point->State);
    LogDriverCalib(device);
    HandleContact(device, point);
}

int32_t PenTilt(int32_t raw) {
    return raw > kTiltLimit ? raw - 65536 : raw;
}

void ParsePenReport(CDeviceObject* device, const uint8_t* packet, TouchPoint* point) {
    const uint8_t status = packet[1];
    point->ID = 0;
    point->State = status & 0x01;
    point->tip = status & 0x01;
    point->barrel = (status >> 1) & 0x01;
    point->invert = (status >> 2) & 0x01;
    point->eraser = (status >> 3) & 0x01;
    point->inrange = (status >> 5) & 0x01;
    point->X = U16(packet, 2);
    point->Y = U16(packet, 4);
    point->Z = U16(packet, 6);
    point->tilt_x = PenTilt(U16(packet, 8));
    point->tilt_y = PenTilt(U16(packet, 10));
    // The invert bit, not the eraser switch, makes the sample an eraser sample.
    point->bEraser = point->invert ? 1 : 0;
    point->bPen = point->invert ? 0 : 1;
    TLOG(LOG_DATA,
         "PEN: bEraser=%d, bPen=%d, ID=%d, X=%d, Y=%d, Z=%d, tilt_x=%d, tilt_y=%d, inrange=%d, "
         "tip=%d, invert=%d, eraser=%d, barrel=%d",
         point->bEraser, point->bPen, point->ID, point->X, point->Y, point->Z, point->tilt_x,
         point->tilt_y, point->inrange, point->tip, point->invert, point->eraser, point->barrel);
    LogDriverCalib(device);
    HandleContact(device, point);
}

// Series 11 0x04 report: one contact, and a second when byte 17 is 2.
void ParseSpecial04(CDeviceObject* device, const uint8_t* packet, int count, TouchPoint* point) {
    if (!LongEnough(packet, count, kSpecialLen)) return;
    const int s = device->MTouchResShift - 1;
    const int32_t max = device->MTouchLogicalMax;
    point->State = packet[1] & 0x01;
    point->ID = packet[4];
    point->X = ScaleCoord(U16(packet, 5), s, max);
    point->Y = ScaleCoord(U16(packet, 7), s, max);
    HandSingle(device, "0x04 specail: ID=%d, X=%d, Y=%d, State=%d", point);
    if (count < kSpecialSecondLen || packet[17] != 2) return;
    point->State = packet[9] & 0x01;
    point->ID = packet[12];
    point->X = ScaleCoord(U16(packet, 13), s, max);
    point->Y = ScaleCoord(U16(packet, 15), s, max);
    HandSingle(device, "0x04 specail: ID=%d, X=%d, Y=%d, State=%d", point);
}

void ParseSerialReport(CDeviceObject* device, const uint8_t* packet, int count, TouchPoint* point) {
    if (!LongEnough(packet, count, kSerialLen)) return;
    point->State = packet[0] & 0x01;
    point->X = ((packet[1] & 0x0F) * 128 + (packet[2] & 0x7F)) * 2;
    point->Y = ((packet[3] & 0x0F) * 128 + (packet[4] & 0x7F)) * 2;
    point->Z = 0;
    point->ID = 0;
    // 6-byte RS232 reports name the contact by a letter counted from 'A'. A 5-byte report
    // has no such byte and is contact 0.
    if (device->DevInterface == DEV_RS232 && (packet[0] & 0xA0) == 0xA0 && count > kSerialIdByte) {
        point->ID = (packet[kSerialIdByte] - 0x41) & 31;
    }
    if (device->DevInterface == DEV_RS232 || device->DevInterface == DEV_PS2) {
        point->Y = kSerialFarEdge - point->Y;
    }
    HandSingle(device, "0x80: ID=%d, X=%d, Y=%d, State=%d", point);
}

// Ends the multi-contact frame in progress: counters back to 0, and the frame's contacts
// handed over so far are written (output/emit.h).
void EndFrame(CDeviceObject* device) {
    device->TotalPtsCnt = 0;
    device->HandledPtsCnt = 0;
    EndTouchScan(device);
}

// Frame header handling. The packet's slots are read whatever the header says, so every
// lift a controller sends reaches the screen.
//
// A count of 1 to SupportPoints starts a frame of that many contacts. A count above
// SupportPoints (the controller tracks more contacts than configured) starts a frame of
// that count too: its contacts with a valid id are served and it ends at the first slot
// with an invalid one. A new count while a frame is in progress means that frame lost its
// last packet: it is written as it stands and the new one starts, so the new frame's
// continuation packets are read as its own. A count of 0 with no frame in progress is a
// continuation whose first packet was lost: its slots are served under the frame rule of
// reports without a count. The last three log "NumsofContacts mismatch".
void AcceptFrameHeader(CDeviceObject* device, const uint8_t* packet) {
    TLOG(LOG_DATA, "TotalPtsCnt=%d", device->TotalPtsCnt);
    const int announced = packet[1];
    if (device->TotalPtsCnt > 0) {
        if (announced == 0) return;  // continuation packet of the frame in progress
        TLOG(LOG_DATA, "TotalPtsCnt=%d", device->TotalPtsCnt);
        TLOG(LOG_DATA, "NumsofContacts mismatch, skip packet\n");
        EndFrame(device);
    } else if (announced < 1 || announced > device->Param.SupportPoints) {
        TLOG(LOG_DATA, "NumsofContacts mismatch, skip packet\n");
    }
    device->HandledPtsCnt = 0;
    device->TotalPtsCnt = announced;
    if (announced > 0) BeginTouchScan(device);
}

void ParseFrame(CDeviceObject* device, const uint8_t* packet, int count, const FrameLayout& layout,
                TouchPoint* point) {
    if (!LongEnough(packet, count, kFrameSlotStart)) return;
    AcceptFrameHeader(device, packet);
    const int whole_slots = (count - kFrameSlotStart) / layout.slot_size;
    const int slots = whole_slots < layout.max_slots ? whole_slots : layout.max_slots;
    const int s = layout.shifted ? device->ParallelResShift - 1 : 0;
    const int32_t max = layout.shifted ? device->ParallelLogicalMax : 0;
    for (int k = 0; k < slots; ++k) {
        const uint8_t* slot = packet + kFrameSlotStart + k * layout.slot_size;
        point->State = slot[0] & 0x01;
        point->ID = slot[1];
        point->X = ScaleCoord(U16(slot, 2), s, max);
        point->Y = ScaleCoord(U16(slot, layout.y_offset), s, max);
        if (point->ID >= ContactLimit(device)) {
            EndFrame(device);
            TLOG(LOG_DATA, "Get error ContactID.\n");
            return;
        }
        TLOG(LOG_DATA, "0x06: ID=%d, X=%d, Y=%d, State=%d", point->ID, point->X, point->Y,
             point->State);
        HandleContact(device, point);
        ++device->HandledPtsCnt;
        if (device->HandledPtsCnt == device->TotalPtsCnt) {
            EndFrame(device);
            return;
        }
    }
}

}  // namespace

void ParsePointPacket(CDeviceObject* device, const uint8_t* packet, int count) {
    TouchPoint point = {};
    TLOG(LOG_DATA, "Entering ParsePointPacket");
    if (count <= 0) return;
    const uint8_t id = packet[0];

    if (id == 0x04 && device->Series == kSeriesSpecial04) {
        ParseSpecial04(device, packet, count, &point);
    } else if (id == 0x06) {
        ParseFrame(device, packet, count, kFrame06, &point);
    } else if (id == 0x17) {
        ParseFrame(device, packet, count, kFrame17, &point);
    } else if (id == 0x01 || id == 0x03) {
        if (!LongEnough(packet, count, kSingleLen)) return;
        ReadSingle(packet, device->MouseResShift - 1, device->MouseLogicalMax, &point);
        HandSingle(device, "0x01: ID=%d, X=%d, Y=%d, State=%d", &point);
    } else if (id == 0x02) {
        if (device->Series > kSeriesLastDigitizer) {
            if (!LongEnough(packet, count, kPenLen)) return;
            ParsePenReport(device, packet, &point);
            return;
        }
        if (!LongEnough(packet, count, kSingleLen)) return;
        ReadSingle(packet, device->DigitizerResShift - 1, device->DigitizerLogicalMax, &point);
        HandSingle(device, "0x02: ID=%d, X=%d, Y=%d, State=%d", &point);
    } else if (id == 0x04) {
        if (!LongEnough(packet, count, kSingleLen)) return;
        const int shift = device->Series > kSeriesLastUnshifted04 ? device->MTouchResShift : 0;
        ReadSingle(packet, shift, device->MTouchLogicalMax, &point);
        HandSingle(device, "0x04: ID=%d, X=%d, Y=%d, State=%d", &point);
    } else if (id >= 0x80) {
        ParseSerialReport(device, packet, count, &point);
    }
    // Any other report id is ignored.
}

bool MultiContactFrameOpen(const CDeviceObject* device) {
    return device->TotalPtsCnt > 0;
}

void EndMultiContactFrame(CDeviceObject* device) {
    if (device->TotalPtsCnt <= 0) return;
    TLOG(LOG_DATA, "Frame of %d contacts ended after %d: no further packet", device->TotalPtsCnt,
         device->HandledPtsCnt);
    EndFrame(device);
}
