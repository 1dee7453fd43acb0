// tavrine-evrec: records the events of an input device found by name, in a
// text form close to evemu's, and checks multi-touch streams.
//
//   tavrine-evrec record --name NAME --out FILE [--wait-ms N] [--duration-ms N]
//                        [--count N] [--idle-ms N] [--ready FILE] [--check]
//   tavrine-evrec check FILE
//
// record waits up to --wait-ms (default 10000) for /dev/input/event* named
// NAME, reads it with CLOCK_MONOTONIC times, and stops after --duration-ms,
// --count events, --idle-ms without events, SIGTERM/SIGINT or removal of the
// device. --ready FILE is created once the device is open. With --check the
// recorded stream is checked as 'check' does.
// check reads "E:" lines (with or without times) and reports violations of
// the multi-touch rules (see mt_checker.h).
// Exit status: 0 fine, 1 check violations, 2 usage, 3 device not found.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "evdev_trace.h"
#include "event_log.h"
#include "mt_checker.h"

namespace {

volatile sig_atomic_t g_stop = 0;
void OnStop(int) {
    g_stop = 1;
}

struct Options {
    std::string name, out, ready;
    uint64_t wait_ms = 10000, duration_ms = 0, count = 0, idle_ms = 0;
    bool check = false;
};

const char kUsage[] =
    "usage: tavrine-evrec record --name NAME --out FILE [--wait-ms N] [--duration-ms N]\n"
    "                            [--count N] [--idle-ms N] [--ready FILE] [--check]\n"
    "       tavrine-evrec check FILE\n"
    "       tavrine-evrec --help\n"
    "\n"
    "record: waits up to --wait-ms (default 10000) for the input device named NAME, writes\n"
    "its description and every event with CLOCK_MONOTONIC times to FILE, and stops after\n"
    "--duration-ms, --count events, --idle-ms without events, a signal or the device's\n"
    "removal. --ready FILE is created once the device is open; --check checks the stream.\n"
    "check: checks the E: lines of FILE: every frame ends with SYN_REPORT, no SYN_DROPPED,\n"
    "and on a device with ABS_MT_SLOT a slot's tracking id only goes from -1 to an id and\n"
    "back. Exit status: 0 fine, 1 violations, 2 usage, 3 no such device. See tavrine-sim(1).\n";

int Usage() {
    std::fputs(kUsage, stderr);
    return 2;
}

// Opens the first /dev/input/event* whose name is 'name'.
UniqueFd FindDevice(const std::string& name) {
    DIR* dir = opendir("/dev/input");
    if (!dir) return UniqueFd();
    UniqueFd found;
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, "event", 5) != 0) continue;
        std::string path = std::string("/dev/input/") + entry->d_name;
        UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        char dev_name[256] = {};
        if (!fd.valid() || ioctl(fd.get(), EVIOCGNAME(sizeof dev_name - 1), dev_name) < 0) continue;
        if (name == dev_name) {
            found = std::move(fd);
            break;
        }
    }
    closedir(dir);
    return found;
}

int Report(const tvm::MtChecker& checker, FILE* trace) {
    for (const std::string& v : checker.violations()) {
        std::fprintf(stderr, "violation at %s\n", v.c_str());
        if (trace) std::fprintf(trace, "# violation at %s\n", v.c_str());
    }
    if (checker.violations().empty()) return 0;
    std::fprintf(stderr, "%zu violation(s) in %llu frame(s)\n", checker.violations().size(),
                 static_cast<unsigned long long>(checker.frames()));
    return 1;
}

int Record(const Options& opt) {
    uint64_t start = tvm::MonotonicUs();
    UniqueFd fd;
    while (!g_stop && !(fd = FindDevice(opt.name)).valid()) {
        if (tvm::MonotonicUs() - start >= opt.wait_ms * 1000) {
            std::fprintf(stderr, "tavrine-evrec: no input device named '%s' within %llu ms\n",
                         opt.name.c_str(), static_cast<unsigned long long>(opt.wait_ms));
            return 3;
        }
        usleep(50000);
    }
    if (!fd.valid()) return 3;
    int clock = CLOCK_MONOTONIC;
    if (ioctl(fd.get(), EVIOCSCLOCKID, &clock) < 0)
        std::fprintf(stderr, "EVIOCSCLOCKID: %s\n", std::strerror(errno));
    FILE* trace = std::fopen(opt.out.c_str(), "w");
    if (!trace) {
        std::fprintf(stderr, "tavrine-evrec: cannot write %s: %s\n", opt.out.c_str(),
                     std::strerror(errno));
        return 2;
    }
    std::fputs(tvm::DescribeDevice(fd.get()).c_str(), trace);
    std::fflush(trace);
    if (!opt.ready.empty()) UniqueFd(open(opt.ready.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));

    uint8_t abs_bits[(ABS_MAX + 8) / 8] = {};
    ioctl(fd.get(), EVIOCGBIT(EV_ABS, sizeof abs_bits), abs_bits);
    bool slotted = abs_bits[ABS_MT_SLOT / 8] & (1u << (ABS_MT_SLOT % 8));
    tvm::MtChecker checker(slotted);
    uint64_t events = 0, begin = tvm::MonotonicUs(), last = begin;
    const char* why = "signal";
    while (!g_stop) {
        uint64_t now = tvm::MonotonicUs();
        if (opt.duration_ms && now - begin >= opt.duration_ms * 1000) {
            why = "duration";
            break;
        }
        if (opt.idle_ms && now - last >= opt.idle_ms * 1000) {
            why = "idle";
            break;
        }
        pollfd pfd{fd.get(), POLLIN, 0};
        poll(&pfd, 1, 20);
        input_event ev[64];
        ssize_t n = read(fd.get(), ev, sizeof ev);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (n <= 0) {
            why = "device removed";
            break;
        }
        last = tvm::MonotonicUs();
        size_t count = static_cast<size_t>(n) / sizeof ev[0];
        for (size_t i = 0; i < count && !(opt.count && events >= opt.count); ++i, ++events) {
            std::fputs(tvm::FormatEvent(ev[i]).c_str(), trace);
            char where[48];
            std::snprintf(where, sizeof where, "%lu.%06lu",
                          static_cast<unsigned long>(ev[i].input_event_sec),
                          static_cast<unsigned long>(ev[i].input_event_usec));
            checker.Feed(ev[i].type, ev[i].code, ev[i].value, where);
        }
        std::fflush(trace);
        if (opt.count && events >= opt.count) {
            why = "count";
            break;
        }
    }
    std::fprintf(trace, "# end: %s, %llu events\n", why, static_cast<unsigned long long>(events));
    int status = 0;
    if (opt.check) {
        if (!slotted) std::fputs("# check: no ABS_MT_SLOT, slot rules not applied\n", trace);
        checker.Finish();
        status = Report(checker, trace);
    }
    std::fclose(trace);
    return status;
}

int Check(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "tavrine-evrec: cannot read %s\n", path.c_str());
        return 2;
    }
    // A header with axes but without "A: 2f" (ABS_MT_SLOT) is an unslotted
    // device; a bare list of events is taken as slotted.
    std::vector<std::string> lines;
    bool has_axes = false, has_slot = false;
    for (std::string line; std::getline(in, line);) {
        has_axes = has_axes || line.compare(0, 3, "A: ") == 0;
        has_slot = has_slot || line.compare(0, 6, "A: 2f ") == 0;
        lines.push_back(line);
    }
    tvm::MtChecker checker(!has_axes || has_slot);
    std::string time;
    int line_no = 0;
    uint16_t type = 0, code = 0;
    int32_t value = 0;
    for (const std::string& line : lines) {
        ++line_no;
        if (tvm::ParseEventLine(line, &time, &type, &code, &value))
            checker.Feed(type, code, value, "line " + std::to_string(line_no) + " (" + time + ")");
    }
    checker.Finish();
    return Report(checker, nullptr);
}

bool ParseOptions(int argc, char** argv, Options* opt) {
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--check") {
            opt->check = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        std::string value = argv[++i];
        uint64_t* number = arg == "--wait-ms"       ? &opt->wait_ms
                           : arg == "--duration-ms" ? &opt->duration_ms
                           : arg == "--count"       ? &opt->count
                           : arg == "--idle-ms"     ? &opt->idle_ms
                                                    : nullptr;
        if (number) {
            if (!tvm::ParseNumber(value, 1ull << 40, number)) return false;
        } else if (arg == "--name") {
            opt->name = value;
        } else if (arg == "--out") {
            opt->out = value;
        } else if (arg == "--ready") {
            opt->ready = value;
        } else {
            return false;
        }
    }
    return !opt->name.empty() && !opt->out.empty();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h")) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc == 3 && std::string(argv[1]) == "check") return Check(argv[2]);
    Options opt;
    if (argc < 2 || std::string(argv[1]) != "record" || !ParseOptions(argc, argv, &opt))
        return Usage();
    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    return Record(opt);
}
