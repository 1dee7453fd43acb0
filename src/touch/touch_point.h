// TouchPoint: one contact or pen sample. Coordinates are in the controller's 12-bit space
// (0 to 4095) until event output scales them. The same record is the entry type of the
// device's contact tables.
#pragma once

#include <stdint.h>

struct TouchPoint {
    int32_t ID;      // contact number, 0 to SupportPoints - 1
    int32_t State;   // 1 touching, 0 lifted; -1 = empty slot in CurContacts
    int32_t X;
    int32_t Y;
    int32_t Z;       // pen pressure; 0 for touches
    int32_t tilt_x;
    int32_t tilt_y;
    uint8_t bPen;     // pen (not eraser) sample
    uint8_t bEraser;  // eraser sample
    uint8_t reserved;
    uint8_t inrange;
    uint8_t tip;
    uint8_t invert;
    uint8_t eraser;
    uint8_t barrel;
};

constexpr int kMaxContacts = 20;  // entries of each contact table
