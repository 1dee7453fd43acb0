// A controller's side of one port: a uhid device or a pty. The simulator's
// loop polls fd(), calls Service() when it is readable, and sends through
// Send(). Everything crossing the port is written to the event log.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "event_log.h"
#include "hex.h"
#include "sim_script.h"

namespace tvm {

class SimPort {
  public:
    virtual ~SimPort() = default;

    // Connects the controller (creates the device or the pty and its link).
    // Returns false, after logging why, on failure.
    virtual bool Plug() = 0;
    // Disconnects it; a no-op when unplugged.
    virtual void Unplug() = 0;
    virtual bool plugged() const = 0;

    // Descriptor to poll for input, or -1 while unplugged.
    virtual int fd() const = 0;
    // Sends one report (USB) or the bytes (serial). False when not sent.
    virtual bool Send(const Bytes& bytes) = 0;
    // Handles what is readable; appends each command packet the host sent.
    // Returns false when the port failed and was unplugged.
    virtual bool Service(std::vector<Bytes>* packets) = 0;

    // USB: the host has the hidraw node open.
    virtual bool opened() const { return false; }
    // The host can reach the port: USB: the device started and its hidraw
    // node exists; serial: the link exists.
    virtual bool ready() = 0;
    // Serial: the line speed the host set, in bits per second (0 if unknown).
    virtual uint32_t line_speed() { return 0; }
    // Called from the loop's idle wake-ups (serial: notices speed changes).
    virtual void Tick() {}
};

std::unique_ptr<SimPort> CreateUhidPort(const Script& script, EventLog* log);
std::unique_ptr<SimPort> CreatePtyPort(const Script& script, EventLog* log);

}  // namespace tvm
