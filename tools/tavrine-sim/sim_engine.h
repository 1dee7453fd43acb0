// The simulator's loop: runs a script's steps in order, answers received
// command packets from the reply table and sends delayed replies on time.
#pragma once

#include <signal.h>

#include <deque>
#include <map>
#include <memory>
#include <string>

#include "event_log.h"
#include "sim_port.h"
#include "sim_script.h"

namespace tvm {

class SimEngine {
  public:
    // 'script' and 'log' must outlive the engine. max_ms 0 = no limit.
    // 'control': path of a FIFO (created if missing) whose lines are step
    // actions run at once ("send 06 ..."); empty = none.
    SimEngine(const Script& script, EventLog* log, uint64_t max_ms, std::string control);

    // Plugs the port, creates 'ready_path' (if not empty) once the host can
    // reach the port (SimPort::ready), and runs until
    // *stop is set, --max-ms passes or an 'exit' step. Returns the exit
    // status documented in sim_main.cpp.
    int Run(const std::string& ready_path, volatile sig_atomic_t* stop);

  private:
    enum class Progress { kBlocked, kDone, kExit };

    Progress TryStep(const Step& step, uint64_t now);
    bool TakeWaited(const Pattern& pattern);
    Progress RunAction(const Action& action, uint64_t now);
    void RunRate(uint64_t now);
    void SendDueReplies(uint64_t now);
    void HandlePacket(const Bytes& packet, uint64_t now);
    Bytes Garbage(size_t size);
    uint64_t NextWake(uint64_t now) const;
    bool OpenControl();
    // Runs the complete lines read from the control FIFO; false on 'exit'.
    bool ServiceControl(uint64_t now);

    const Script& script_;
    EventLog* log_;
    uint64_t max_ms_;
    std::string control_path_;
    UniqueFd control_;
    std::string control_buf_;
    std::unique_ptr<SimPort> port_;
    std::vector<Rule> rules_;  // copy: uses are counted down
    std::multimap<uint64_t, Bytes> pending_;

    uint64_t start_us_ = 0;
    uint64_t prev_end_us_ = 0;
    size_t step_index_ = 0;
    std::deque<Bytes> unwaited_;  // received packets no 'wait rx' has passed yet
    int exit_status_ = 0;

    bool rate_active_ = false;
    Bytes rate_bytes_;
    uint64_t rate_start_us_ = 0;
    uint64_t rate_end_us_ = 0;
    uint64_t rate_per_s_ = 0;
    uint64_t rate_sent_ = 0;

    uint64_t garbage_state_ = 0x9e3779b97f4a7c15ull;
};

}  // namespace tvm
