// The daemon's entry: the start-up sequence, then the endless scan loop.
#pragma once

// Never returns unless start-up ends the process (usage, version, -k, errors).
int TavrineMain(int argc, char** argv);

class CManager;
// The one device manager, set by TavrineMain before the scan loop starts.
extern CManager* g_Manager;
