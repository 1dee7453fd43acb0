// SIGUSR2: any thread asks the scan loop for a plug-and-play check.
#pragma once

#include <stdint.h>

// The handler. Async-signal-safe: for SIGUSR2 it sets bDeviceExistCheck and counts the
// signal in a lock-free atomic; every other signal number is ignored. It logs nothing:
// the scan loop logs one line per counted signal (LogReceivedSigUsr2).
void OnSignalUSR2(int signal_number);

// Installs OnSignalUSR2 for SIGUSR2 with sigaction (SA_RESTART; the handler stays
// installed). Returns the sigaction result (0 or -1).
int InstallSigUsr2Handler();

// Logs "Receive signal SIGUSR2. Set bDeviceExistCheck true." once for every signal
// counted since the previous call, and returns that number.
uint32_t LogReceivedSigUsr2();
