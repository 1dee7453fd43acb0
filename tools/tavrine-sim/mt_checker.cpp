#include "mt_checker.h"

#include <linux/input.h>

namespace tvm {

MtChecker::MtChecker(bool slotted) : slotted_(slotted) {
    for (int32_t& id : tracking_) id = -1;
}

void MtChecker::Violation(const std::string& where, const std::string& what) {
    violations_.push_back(where + ": " + what);
}

void MtChecker::Feed(uint16_t type, uint16_t code, int32_t value, const std::string& where) {
    if (type == EV_SYN) {
        if (code == SYN_DROPPED) Violation(where, "SYN_DROPPED: the reader lost events");
        if (code == SYN_REPORT) {
            frame_open_ = false;
            ++frames_;
        }
        return;
    }
    if (!frame_open_) {
        frame_open_ = true;
        frame_start_ = where;
    }
    if (type != EV_ABS) return;
    if (code == ABS_MT_SLOT) {
        if (value < 0 || value >= kMaxSlots) {
            Violation(where, "slot " + std::to_string(value) + " out of range");
            slot_ = -1;
        } else {
            slot_ = value;
        }
        return;
    }
    if (!slotted_ || code != ABS_MT_TRACKING_ID || slot_ < 0) return;
    int32_t& current = tracking_[slot_];
    std::string slot = "slot " + std::to_string(slot_) + ": ";
    if (value == -1 && current == -1)
        Violation(where, slot + "tracking id -1 while the slot has no contact");
    else if (value != -1 && current != -1)
        Violation(where, slot + "tracking id " + std::to_string(current) + " replaced by " +
                             std::to_string(value) + " without -1 between");
    current = value;
}

void MtChecker::Finish() {
    if (frame_open_) Violation(frame_start_, "frame not ended by SYN_REPORT");
    frame_open_ = false;
}

}  // namespace tvm
