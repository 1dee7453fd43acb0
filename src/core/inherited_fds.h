// Descriptors the daemon's starter left open (a pipe of a shell's command substitution, a
// lock file, a socket of the init system) must not outlive the start: the daemon would
// hold them for ever and hand them on to every command it runs.
#pragma once

// Closes every descriptor above 2. Called first thing at start-up, before anything of the
// daemon's own is open. Uses close_range(2) where the kernel has it (5.9 and later), else
// the listing of /proc/self/fd, else every number below the descriptor limit.
void CloseInheritedDescriptors();
