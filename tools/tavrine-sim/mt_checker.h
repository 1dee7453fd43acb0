// Checks a multi-touch event stream for two rules:
//  - slot protocol only (the device has ABS_MT_SLOT): per slot,
//    ABS_MT_TRACKING_ID only goes from -1 to an id or from an id to -1
//    (never id to id, never -1 to -1). A device without ABS_MT_SLOT gets
//    its MT values unfiltered and re-states contacts in every frame, so the
//    rule does not apply there;
//  - every frame ends with SYN_REPORT (nothing left open at the end), and
//    no SYN_DROPPED appears.
// Pure: it sees only (type, code, value) and a label for messages.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tvm {

class MtChecker {
  public:
    static constexpr int kMaxSlots = 64;

    // 'slotted': the device declares ABS_MT_SLOT.
    explicit MtChecker(bool slotted = true);

    // Feeds one event; 'where' names it in messages ("line 12", "5.000100").
    void Feed(uint16_t type, uint16_t code, int32_t value, const std::string& where);
    // Ends the stream; reports an unfinished frame.
    void Finish();

    const std::vector<std::string>& violations() const { return violations_; }
    uint64_t frames() const { return frames_; }

  private:
    void Violation(const std::string& where, const std::string& what);

    bool slotted_;
    int32_t tracking_[kMaxSlots];
    int slot_ = 0;
    bool frame_open_ = false;
    std::string frame_start_;
    uint64_t frames_ = 0;
    std::vector<std::string> violations_;
};

}  // namespace tvm
