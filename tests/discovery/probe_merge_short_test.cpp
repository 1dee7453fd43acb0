// Report-framed probe merge on packets too short to hold a length byte: found by the probe
// reply fuzzer, which hands every packet in an exactly sized heap block. The merge used to
// read the length byte of a 1-byte packet (past its end); under AddressSanitizer this test
// fails on such a read.
#include <gtest/gtest.h>
#include <string.h>

#include <memory>

#include "discovery/probe_exchange.h"

namespace {

TEST(ProbeMergeShortPacket, PacketsWithoutALengthByteAreIncompleteAndReadOnlyTheirBytes) {
    const uint8_t C = 0x44;
    struct Case {
        int count;
        uint8_t bytes[2];
    };
    const Case cases[] = {{1, {0x03, 0}}, {1, {0xFF, 0}}, {2, {0x03, 0x7F}}, {2, {0x03, 0x00}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.count);
        ProbeContext context = {};
        uint8_t reply[kReplyBufSize] = {};
        int pos = 0;
        std::unique_ptr<uint8_t[]> packet(new uint8_t[c.count]);
        memcpy(packet.get(), c.bytes, static_cast<size_t>(c.count));
        EXPECT_EQ(0, MergeReportReply(&context, packet.get(), c.count, reply, &pos, C));
        EXPECT_EQ(0, pos);
        EXPECT_EQ(0x03, reply[0]);  // the header the reply always starts with
        EXPECT_EQ(0, reply[1]);
        EXPECT_EQ(0, reply[2]);
    }
}

}  // namespace
