// Every file the daemon keeps lives in one data directory, fixed at build time
// (TAVRINE_DATA_DIR, "/data" by default). The paths below are derived from it once.
#pragma once

constexpr int kDataPathMax = 128;

// The data directory and the files in it. All return NUL-terminated text of fewer
// than kDataPathMax bytes that stays valid for the life of the process.
const char* DataDir();
const char* IniFilePath();     // <data>/TavrineA.ini  settings file
const char* IniTempPath();     // <data>/TavrineA.tmp  temporary copy during a rewrite
const char* PidFilePath();     // <data>/TouchPID
const char* DrvLogPath();      // <data>/tmpDrvLog     captured shell command output
const char* PipeInPath();      // <data>/MorvelPipe_in   tool -> controller
const char* PipeOutPath();     // <data>/MorvelPipe_out  controller -> tool

// Points every path above at another directory. Only unit tests call this, with a
// temporary directory, so that they never touch the real data directory.
void SetDataDirForTest(const char* dir);
