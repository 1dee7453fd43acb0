#include "sim_engine.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tvm {

namespace {

constexpr uint64_t kTickUs = 20000;

}  // namespace

SimEngine::SimEngine(const Script& script, EventLog* log, uint64_t max_ms, std::string control)
    : script_(script),
      log_(log),
      max_ms_(max_ms),
      control_path_(std::move(control)),
      rules_(script.rules) {}

bool SimEngine::OpenControl() {
    if (control_path_.empty()) return true;
    if (mkfifo(control_path_.c_str(), 0600) != 0 && errno != EEXIST) {
        log_->Write("error", "mkfifo " + control_path_ + ": " + std::strerror(errno));
        return false;
    }
    // Read-write, so the FIFO never reads as ended between writers.
    control_.reset(open(control_path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!control_.valid()) {
        log_->Write("error", "open " + control_path_ + ": " + std::strerror(errno));
        return false;
    }
    return true;
}

bool SimEngine::ServiceControl(uint64_t now) {
    constexpr size_t kMaxLine = 16384;
    char buf[1024];
    ssize_t n;
    while (control_buf_.size() <= kMaxLine && (n = read(control_.get(), buf, sizeof buf)) > 0)
        control_buf_.append(buf, static_cast<size_t>(n));
    size_t end;
    while ((end = control_buf_.find('\n')) != std::string::npos) {
        std::string line = control_buf_.substr(0, end);
        control_buf_.erase(0, end + 1);
        log_->Write("control", line);
        Action action;
        std::string error;
        if (!ParseActionLine(line, &action, &error)) {
            log_->Write("error", "control: " + error);
        } else if (RunAction(action, now) == Progress::kExit) {
            return false;
        }
    }
    if (control_buf_.size() > kMaxLine) {
        log_->Write("error", "control: line too long, dropped");
        control_buf_.clear();
    }
    return true;
}

Bytes SimEngine::Garbage(size_t size) {
    Bytes bytes(size);
    for (uint8_t& b : bytes) {
        garbage_state_ ^= garbage_state_ << 13;
        garbage_state_ ^= garbage_state_ >> 7;
        garbage_state_ ^= garbage_state_ << 17;
        b = static_cast<uint8_t>(garbage_state_ >> 24);
    }
    return bytes;
}

SimEngine::Progress SimEngine::RunAction(const Action& action, uint64_t now) {
    switch (action.kind) {
        case ActionKind::kSend:
            port_->Send(action.bytes);
            break;
        case ActionKind::kSendGarbage:
            port_->Send(Garbage(action.garbage_len));
            break;
        case ActionKind::kRate:
            rate_active_ = true;
            rate_bytes_ = action.bytes;
            rate_start_us_ = now;
            rate_end_us_ = now + action.duration_ms * 1000;
            rate_per_s_ = action.rate_per_s;
            rate_sent_ = 0;
            log_->Write("rate", std::to_string(action.rate_per_s) + "/s for " +
                                    std::to_string(action.duration_ms) + " ms");
            break;
        case ActionKind::kPlug:
            if (!port_->Plug()) log_->Write("error", "plug failed");
            break;
        case ActionKind::kUnplug:
            port_->Unplug();
            break;
        case ActionKind::kExit:
            exit_status_ = action.status;
            log_->Write("end", "exit " + std::to_string(action.status));
            return Progress::kExit;
        case ActionKind::kNote:
            log_->Write("note", action.text);
            break;
        case ActionKind::kClock:
            start_us_ = now;
            log_->Write("note", "clock restarted");
            break;
    }
    return Progress::kDone;
}

SimEngine::Progress SimEngine::TryStep(const Step& step, uint64_t now) {
    bool ready = false;
    switch (step.kind) {
        case StepKind::kAt:
        case StepKind::kAfter: {
            uint64_t due = (step.kind == StepKind::kAt ? start_us_ : prev_end_us_) + step.ms * 1000;
            if (now < due) return Progress::kBlocked;
            return RunAction(step.action, now);
        }
        case StepKind::kWaitRx:
            ready = TakeWaited(step.prefix);
            break;
        case StepKind::kWaitOpen:
            ready = port_->opened();
            break;
        case StepKind::kWaitSpeed:
            ready = port_->line_speed() == step.speed;
            break;
    }
    if (ready) {
        log_->Write("wait", "line " + std::to_string(step.line) + " done");
        return Progress::kDone;
    }
    if (step.timeout_ms && now >= prev_end_us_ + step.timeout_ms * 1000) {
        if (step.go_on) {
            log_->Write("wait", "line " + std::to_string(step.line) + " timed out, going on");
            return Progress::kDone;
        }
        log_->Write("end", "wait of line " + std::to_string(step.line) + " timed out");
        exit_status_ = 3;
        return Progress::kExit;
    }
    return Progress::kBlocked;
}

// Drops queued packets up to and including the first that matches.
bool SimEngine::TakeWaited(const Pattern& pattern) {
    auto it = std::find_if(unwaited_.begin(), unwaited_.end(),
                           [&](const Bytes& p) { return Matches(pattern, p); });
    if (it == unwaited_.end()) return false;
    unwaited_.erase(unwaited_.begin(), it + 1);
    return true;
}

void SimEngine::RunRate(uint64_t now) {
    while (rate_active_) {
        uint64_t due = rate_start_us_ + rate_sent_ * 1000000 / rate_per_s_;
        if (due >= rate_end_us_) {
            rate_active_ = false;
            prev_end_us_ = now;
            log_->Write("rate", "done, " + std::to_string(rate_sent_) + " sent");
            return;
        }
        if (now < due) return;
        port_->Send(rate_bytes_);
        ++rate_sent_;
    }
}

void SimEngine::SendDueReplies(uint64_t now) {
    while (!pending_.empty() && pending_.begin()->first <= now) {
        port_->Send(pending_.begin()->second);
        pending_.erase(pending_.begin());
    }
}

void SimEngine::HandlePacket(const Bytes& packet, uint64_t now) {
    constexpr size_t kMaxUnwaited = 4096;
    if (unwaited_.size() >= kMaxUnwaited) unwaited_.pop_front();
    unwaited_.push_back(packet);
    for (Rule& rule : rules_) {
        if (rule.times_left == 0 || !Matches(rule.prefix, packet)) continue;
        if (rule.speed && port_->line_speed() != rule.speed) continue;
        if (rule.times_left > 0) --rule.times_left;
        log_->Write("match", "line " + std::to_string(rule.line));
        for (const Reply& reply : rule.replies) {
            Bytes bytes = reply.echo          ? packet
                          : reply.garbage_len ? Garbage(reply.garbage_len)
                                              : reply.bytes;
            if (reply.after_ms == 0)
                port_->Send(bytes);
            else
                pending_.emplace(now + reply.after_ms * 1000, std::move(bytes));
        }
        if (rule.unplug) port_->Unplug();
        return;
    }
}

uint64_t SimEngine::NextWake(uint64_t now) const {
    uint64_t wake = now + kTickUs;
    if (!pending_.empty()) wake = std::min(wake, pending_.begin()->first);
    if (rate_active_) wake = std::min(wake, rate_start_us_ + rate_sent_ * 1000000 / rate_per_s_);
    if (!rate_active_ && step_index_ < script_.steps.size()) {
        const Step& step = script_.steps[step_index_];
        if (step.kind == StepKind::kAt) wake = std::min(wake, start_us_ + step.ms * 1000);
        if (step.kind == StepKind::kAfter) wake = std::min(wake, prev_end_us_ + step.ms * 1000);
    }
    return wake;
}

int SimEngine::Run(const std::string& ready_path, volatile sig_atomic_t* stop) {
    port_ = script_.port == PortKind::kUsb ? CreateUhidPort(script_, log_)
                                           : CreatePtyPort(script_, log_);
    start_us_ = prev_end_us_ = MonotonicUs();
    if (!OpenControl() || !port_->Plug()) return 4;
    bool ready_done = ready_path.empty();

    std::vector<Bytes> packets;
    while (!*stop) {
        uint64_t now = MonotonicUs();
        if (max_ms_ && now >= start_us_ + max_ms_ * 1000) {
            log_->Write("end", "max-ms");
            break;
        }
        if (!ready_done && port_->ready()) {
            UniqueFd(open(ready_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
            ready_done = true;
        }
        RunRate(now);
        SendDueReplies(now);
        uint32_t timed = 0;  // timed steps run in this wake-up ('burst')
        bool capped = false;
        while (!rate_active_ && step_index_ < script_.steps.size()) {
            const Step& step = script_.steps[step_index_];
            bool is_timed = step.kind == StepKind::kAt || step.kind == StepKind::kAfter;
            if (is_timed && script_.max_burst && timed >= script_.max_burst) {
                capped = true;
                break;
            }
            Progress progress = TryStep(step, now);
            if (progress == Progress::kExit) return exit_status_;
            if (progress == Progress::kBlocked) break;
            if (is_timed) ++timed;
            ++step_index_;
            if (!rate_active_) prev_end_us_ = now;
        }

        uint64_t wake = NextWake(now);
        int timeout_ms = wake > now ? static_cast<int>((wake - now + 999) / 1000) : 0;
        if (capped) timeout_ms = 1;  // give way to the reader before the next steps
        pollfd pfds[2] = {{port_->fd(), POLLIN, 0}, {control_.get(), POLLIN, 0}};
        poll(pfds, 2, timeout_ms);  // negative descriptors are skipped
        if (control_.valid() && !ServiceControl(MonotonicUs())) return exit_status_;
        port_->Tick();
        packets.clear();
        if (port_->plugged() && !port_->Service(&packets))
            log_->Write("error", "port failed; unplugged");
        now = MonotonicUs();
        for (const Bytes& packet : packets) HandlePacket(packet, now);
    }
    if (*stop) log_->Write("end", "stopped by signal");
    return exit_status_;
}

}  // namespace tvm
