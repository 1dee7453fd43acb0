// A terminal where the daemon expects one of its own files: tells whether opening it by
// a session leader without a terminal makes it that process's controlling terminal (a
// daemon that acquires one can be sent SIGHUP by whoever hangs the terminal up).
#pragma once

#include <functional>

namespace sectest {

enum class TtyResult { kSkipped, kAcquired, kNotAcquired };

// Makes a fresh pseudo-terminal, then in a child that has just called setsid() runs
// open_path with the terminal's path (open_path returns a descriptor or -1, which the
// child closes) and reports whether the child ended up with a controlling terminal.
// kSkipped when no pseudo-terminal can be made.
TtyResult OpenOfTerminalAcquiresIt(const std::function<int(const char*)>& open_path);

}  // namespace sectest
