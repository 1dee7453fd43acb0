#include "core/startup.h"

#include <stdlib.h>
#include <unistd.h>

#include <new>

#include "config/global_settings.h"
#include "core/command_line.h"
#include "core/data_file.h"
#include "core/environment.h"
#include "core/inherited_fds.h"
#include "core/manager.h"
#include "core/single_instance.h"
#include "log/debug_log.h"

CManager* g_Manager = nullptr;

int TavrineMain(int argc, char** argv) {
    // Before the first shell command (the old-log removal below): commands inherit
    // standard input, output and error only.
    CloseInheritedDescriptors();

    // Lives in this frame for the life of the process: the scan loop below never returns.
    GlobalSettings settings{};

    SetDefaultSettings(&settings);
    ReadGlobalSettings(&settings);
    ParseCommandLine(argc, argv, &settings);
    HandleStartupFlags(&settings);
    PrintGlobalSettings(&settings);
    WarnIfDataDirWritable();

    TLOG(LOG_MAIN, "Run process as a background daemon");
    if (daemon(0, 0) != 0) {
        // Not detached: carry on in the foreground, as the start-up does not depend on it.
    }

    GetEnvironment();
    CheckSingleInstance(&settings);
    WritePidFile();

    CManager* manager = new (std::nothrow) CManager(&settings);
    if (!manager) {
        TLOG_ERR(LOG_MAIN, "[E] Create new CManager failed");
        exit(1);
    }
    g_Manager = manager;

    TLOG(LOG_MAIN, "Loop in endless scan");
    EndlessScanLoop(manager);
}
