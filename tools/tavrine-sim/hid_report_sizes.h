// Sizes of the reports a HID report descriptor declares, as the kernel
// computes them: bytes of data per report id and kind, plus one byte for
// the id when the descriptor numbers its reports.
#pragma once

#include <cstdint>
#include <map>

#include "hex.h"

namespace tvm {

enum class ReportKind { kInput = 0, kOutput = 1, kFeature = 2 };

class ReportSizes {
  public:
    // Parses the short and long items of 'descriptor'. Malformed tails are
    // ignored; what was parsed before them counts.
    explicit ReportSizes(const Bytes& descriptor);

    // Size in bytes of report 'id' of 'kind' including its id byte when
    // numbered; 0 when the descriptor does not declare it.
    size_t Size(ReportKind kind, uint8_t id) const;
    bool numbered() const { return numbered_; }

  private:
    std::map<uint8_t, uint64_t> bits_[3];
    bool numbered_ = false;
};

}  // namespace tvm
