#include "core/paths.h"

#include <stdio.h>

namespace {

struct DataPaths {
    char dir[kDataPathMax - 32];  // leaves room for the longest file name
    char ini[kDataPathMax];
    char tmp[kDataPathMax];
    char pid[kDataPathMax];
    char drvlog[kDataPathMax];
    char pipe_in[kDataPathMax];
    char pipe_out[kDataPathMax];
};

void Build(DataPaths* p, const char* dir) {
    snprintf(p->dir, sizeof(p->dir), "%s", dir);
    snprintf(p->ini, sizeof(p->ini), "%s/%s", p->dir, "TavrineA.ini");
    snprintf(p->tmp, sizeof(p->tmp), "%s/%s", p->dir, "TavrineA.tmp");
    snprintf(p->pid, sizeof(p->pid), "%s/%s", p->dir, "TouchPID");
    snprintf(p->drvlog, sizeof(p->drvlog), "%s/%s", p->dir, "tmpDrvLog");
    snprintf(p->pipe_in, sizeof(p->pipe_in), "%s/%s", p->dir, "MorvelPipe_in");
    snprintf(p->pipe_out, sizeof(p->pipe_out), "%s/%s", p->dir, "MorvelPipe_out");
}

DataPaths& Paths() {
    static DataPaths paths = [] {
        DataPaths p{};
        Build(&p, TAVRINE_DATA_DIR);
        return p;
    }();
    return paths;
}

}  // namespace

const char* DataDir() { return Paths().dir; }
const char* IniFilePath() { return Paths().ini; }
const char* IniTempPath() { return Paths().tmp; }
const char* PidFilePath() { return Paths().pid; }
const char* DrvLogPath() { return Paths().drvlog; }
const char* PipeInPath() { return Paths().pipe_in; }
const char* PipeOutPath() { return Paths().pipe_out; }

void SetDataDirForTest(const char* dir) { Build(&Paths(), dir); }
