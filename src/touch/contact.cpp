// The contact pipeline: contact-number check, edge compensation, direction, orientation,
// split rectangle, hold filter, then event output. Coordinates are in the 0-4095 space;
// mirroring uses 4094 as the far edge and the split halves meet at 2047.
//
// The arithmetic is 32-bit signed with quotients truncated toward zero. Products of
// settings-file percentages and coordinates may exceed 32 bits; they wrap as 32-bit values
// do on the target instead of being undefined behaviour.
#include "touch/contact.h"

#include <stdlib.h>

#include "config/device_param.h"
#include "device/device_object.h"
#include "output/emit.h"

namespace {

constexpr int32_t kEdgeBand = 205;       // 5 % of 4096
constexpr int32_t kFarBandStart = 3891;  // 4096 - 205
constexpr int32_t kMaxCoord = 4095;
constexpr int32_t kFarEdge = 4094;
constexpr int32_t kHalf = 2047;

int32_t Wrap(int64_t v) {
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}
int32_t Mul(int32_t a, int32_t b) {
    return Wrap(static_cast<int64_t>(a) * b);
}
int32_t Add(int32_t a, int32_t b) {
    return Wrap(static_cast<int64_t>(a) + b);
}
int32_t Sub(int32_t a, int32_t b) {
    return Wrap(static_cast<int64_t>(a) - b);
}

int32_t Clamp(int32_t v) {
    return v < 0 ? 0 : (v > kMaxCoord ? kMaxCoord : v);
}

int32_t CompensateAxis(int32_t v, int32_t near_percent, int32_t far_percent) {
    if (v < kEdgeBand) v = Sub(kEdgeBand, Mul(Sub(kEdgeBand, v), near_percent) / 100);
    if (v > kFarBandStart) v = Add(kFarBandStart, Mul(Sub(v, kFarBandStart), far_percent) / 100);
    return Clamp(v);
}

// low + v * (high - low) / 4095 of the custom rectangle.
int32_t MapToRange(int32_t v, int32_t low, int32_t high) {
    return Add(low, Mul(v, Sub(high, low)) / kMaxCoord);
}

int64_t Distance(int32_t a, int32_t b) {
    return llabs(static_cast<int64_t>(a) - b);
}

}  // namespace

void EdgeCompensate(const DeviceParam& param, TouchPoint* point) {
    if (param.EdgeCompensate == 0) return;
    point->X = CompensateAxis(point->X, param.EdgeLeft, param.EdgeRight);
    point->Y = CompensateAxis(point->Y, param.EdgeTop, param.EdgeBottom);
}

void ApplyDirection(const DeviceParam& param, TouchPoint* point) {
    if (param.Direction <= 0) return;
    if (param.Direction & 0x4) {
        const int32_t x = point->X;
        point->X = point->Y;
        point->Y = x;
    }
    if (param.Direction & 0x1) point->X = Sub(kFarEdge, point->X);
    if (param.Direction & 0x2) point->Y = Sub(kFarEdge, point->Y);
}

void ApplyOrientation(const DeviceParam& param, TouchPoint* point) {
    const int32_t x = point->X;
    const int32_t y = point->Y;
    switch (param.Orientation) {
        case 1:  // a quarter turn
            point->X = Sub(kFarEdge, y);
            point->Y = x;
            break;
        case 2:  // half a turn
            point->X = Sub(kFarEdge, x);
            point->Y = Sub(kFarEdge, y);
            break;
        case 3:  // three quarters
            point->X = y;
            point->Y = Sub(kFarEdge, x);
            break;
        default:
            break;
    }
}

void ApplySplitRect(const DeviceParam& param, TouchPoint* point) {
    const int32_t x = point->X;
    const int32_t y = point->Y;
    const int32_t left_x = x / 2;
    const int32_t right_x = Add(x / 2, kHalf);
    const int32_t top_y = y / 2;
    const int32_t bottom_y = Add(y / 2, kHalf);
    switch (param.SplitRectMode) {
        case 1:
            point->X = right_x;
            point->Y = top_y;
            break;
        case 2:
            point->X = left_x;
            point->Y = top_y;
            break;
        case 3:
            point->X = left_x;
            point->Y = bottom_y;
            break;
        case 4:
            point->X = right_x;
            point->Y = bottom_y;
            break;
        case 5:
            point->Y = top_y;
            break;
        case 6:
            point->Y = bottom_y;
            break;
        case 7:
            point->X = right_x;
            break;
        case 8:
            point->X = left_x;
            break;
        case 9:
            // A rectangle without width or height would collapse every contact to one
            // line: the contact is left where it is.
            if (param.CustomRectRight == param.CustomRectLeft ||
                param.CustomRectBottom == param.CustomRectTop) {
                break;
            }
            point->X = MapToRange(x, param.CustomRectLeft, param.CustomRectRight);
            point->Y = MapToRange(y, param.CustomRectTop, param.CustomRectBottom);
            break;
        default:
            break;
    }
}

int HoldFilter(CDeviceObject* device, const TouchPoint* point) {
    if (point->ID < 0 || point->ID >= kMaxContacts) return 0;
    TouchPoint* held = &device->HoldContacts[point->ID];
    const DeviceParam& param = device->Param;
    if ((point->State & 0x1) == 0 || param.HoldFilterEnable == 0) {
        *held = *point;
        return 0;
    }
    const bool was_touching = device->LastContacts[point->ID].State == 1;
    if (was_touching && Distance(held->X, point->X) < param.HoldRange &&
        Distance(held->Y, point->Y) < param.HoldRange &&
        Distance(held->Z, point->Z) < param.HoldRange) {
        return 1;  // not moved far enough from the last position that passed
    }
    *held = *point;
    return 0;
}

void HandleContact(CDeviceObject* device, TouchPoint* point) {
    // Contact numbers index the 20-entry tables: whatever SupportPoints says, nothing at or
    // above the table size goes on.
    if (point->ID < 0 || point->ID >= device->Param.SupportPoints || point->ID >= kMaxContacts) {
        return;
    }
    EdgeCompensate(device->Param, point);
    ApplyDirection(device->Param, point);
    ApplyOrientation(device->Param, point);
    ApplySplitRect(device->Param, point);
    if (HoldFilter(device, point) == 1) return;
    DispatchTouchEvent(device, point);
}
