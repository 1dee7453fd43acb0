// Command replies: merging of fragmented replies and routing to the waiting sender, the
// virtual-key handler or the tool.
#pragma once

#include <stdint.h>

class CDeviceObject;

// Length of a complete reply now in CmdReplyBuf (> 0), 0 when more fragments are needed,
// -1 when the packet is no reply or the merge failed. Never writes past CmdReplyBuf.
int MergeCommandPacket(CDeviceObject* device, const uint8_t* packet, int count);
void ParseCmdPacket(CDeviceObject* device, const uint8_t* packet, int count);
