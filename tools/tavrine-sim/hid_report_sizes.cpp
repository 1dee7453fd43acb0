#include "hid_report_sizes.h"

#include <vector>

namespace tvm {

namespace {

struct Globals {
    uint32_t report_size = 0;
    uint32_t report_count = 0;
    uint8_t report_id = 0;
};

constexpr uint8_t kTypeMain = 0, kTypeGlobal = 1;
constexpr uint8_t kTagInput = 0x8, kTagOutput = 0x9, kTagFeature = 0xb;
constexpr uint8_t kTagReportSize = 0x7, kTagReportId = 0x8, kTagReportCount = 0x9, kTagPush = 0xa,
                  kTagPop = 0xb;
constexpr size_t kMaxStack = 16;

}  // namespace

ReportSizes::ReportSizes(const Bytes& d) {
    Globals g;
    std::vector<Globals> stack;
    size_t i = 0;
    while (i < d.size()) {
        uint8_t prefix = d[i];
        if (prefix == 0xfe) {  // long item: size, tag, data
            if (i + 1 >= d.size()) break;
            i += 3u + d[i + 1];
            continue;
        }
        static const size_t kDataSize[] = {0, 1, 2, 4};
        size_t size = kDataSize[prefix & 3];
        if (i + 1 + size > d.size()) break;
        uint32_t value = 0;
        for (size_t k = 0; k < size; ++k) value |= static_cast<uint32_t>(d[i + 1 + k]) << (8 * k);
        uint8_t type = (prefix >> 2) & 3, tag = prefix >> 4;
        if (type == kTypeGlobal) {
            if (tag == kTagReportSize) g.report_size = value;
            if (tag == kTagReportCount) g.report_count = value;
            if (tag == kTagReportId) {
                g.report_id = static_cast<uint8_t>(value);
                numbered_ = true;
            }
            if (tag == kTagPush && stack.size() < kMaxStack) stack.push_back(g);
            if (tag == kTagPop && !stack.empty()) {
                g = stack.back();
                stack.pop_back();
            }
        } else if (type == kTypeMain &&
                   (tag == kTagInput || tag == kTagOutput || tag == kTagFeature)) {
            int kind = tag == kTagInput ? 0 : tag == kTagOutput ? 1 : 2;
            bits_[kind][g.report_id] += static_cast<uint64_t>(g.report_size) * g.report_count;
        }
        i += 1 + size;
    }
}

size_t ReportSizes::Size(ReportKind kind, uint8_t id) const {
    const auto& table = bits_[static_cast<int>(kind)];
    auto it = table.find(id);
    if (it == table.end()) return 0;
    return static_cast<size_t>((it->second + 7) / 8) + (numbered_ ? 1 : 0);
}

}  // namespace tvm
