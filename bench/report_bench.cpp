// Per-report cost of the whole data path, from a read buffer to the written events:
// DispatchPortBytes on a bare device record (splitting, parsing, coordinate processing,
// frame building, one write(2) per frame), beside two floors: the same number of
// input_event records written one per write, and all in one write, into the same kind of
// descriptor with nothing else done.
//
// Sinks: "pipe" (a pipe emptied by a drain thread, the closest host stand-in for the
// uinput descriptor) and "null" (/dev/null, a write that costs only the system call).
// One iteration is one frame: the reads that make one SYN_REPORT-terminated frame (two
// reads for ten contacts in 0x06 reports, which carry five slots each).
//
//   report_bench [google benchmark options]        the timed comparison
//   report_bench --fixed <case> <frames> path|floor  one fixed input into /dev/null, for
//       valgrind --tool=callgrind --collect-atstart=no --toggle-collect=tavrine_bench_measured
//   report_bench --list                              case names and events per frame
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/input.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "config/global_settings.h"
#include "core/unique_fd.h"
#include "device/device_object.h"
#include "log/debug_log.h"
#include "touch/reception.h"

namespace {

using Read = std::vector<uint8_t>;
using Frame = std::vector<Read>;

constexpr int kVariants = 16;    // frames with different coordinates, cycled
constexpr int kUsbReadLen = 64;  // one hidraw report as read
constexpr int kWarmFrames = 64;  // brings the contact tables to their steady state

struct Case {
    const char* name;
    uint8_t interface;
    int32_t series;
    uint32_t baud;
    std::vector<Frame> frames;  // kVariants frames
};

void Put16(Read* r, int offset, int v) {
    (*r)[offset] = static_cast<uint8_t>(v & 0xFF);
    (*r)[offset + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
}

int Coord(int variant, int contact, int axis) {
    return 100 + (variant * 37 + contact * 311 + axis * 1013) % 3800;
}

// A multi-contact frame of n touching contacts in reports of `per_report` slots of
// `slot_size` bytes; Y at `y_offset` within the slot. The first report announces n, the
// continuation reports 0.
Frame MultiFrame(uint8_t id, int n, int per_report, int slot_size, int y_offset, int variant) {
    Frame frame;
    for (int first = 0; first < n; first += per_report) {
        Read r(kUsbReadLen, 0);
        r[0] = id;
        r[1] = static_cast<uint8_t>(first == 0 ? n : 0);
        for (int k = 0; k < per_report && first + k < n; ++k) {
            const int off = 2 + k * slot_size;
            r[off] = 0x01;  // touching
            r[off + 1] = static_cast<uint8_t>(first + k);
            Put16(&r, off + 2, Coord(variant, first + k, 0));
            Put16(&r, off + y_offset, Coord(variant, first + k, 1));
        }
        frame.push_back(r);
    }
    return frame;
}

Frame PenFrame(int variant) {
    Read r(kUsbReadLen, 0);
    r[0] = 0x02;
    r[1] = 0x21;  // tip, in range
    Put16(&r, 2, Coord(variant, 0, 0));
    Put16(&r, 4, Coord(variant, 0, 1));
    Put16(&r, 6, 200 + variant);
    Put16(&r, 8, variant);
    Put16(&r, 10, 65536 - variant);
    return Frame{r};
}

Frame SerialFrame(int variant) {
    const int x = Coord(variant, 0, 0) / 2;
    const int y = Coord(variant, 0, 1) / 2;
    Read r = {0xA1,
              static_cast<uint8_t>((x >> 7) & 0x0F),
              static_cast<uint8_t>(x & 0x7F),
              static_cast<uint8_t>((y >> 7) & 0x0F),
              static_cast<uint8_t>(y & 0x7F),
              'A'};
    return Frame{r};
}

std::vector<Case> MakeCases() {
    std::vector<Case> cases;
    auto add = [&](const char* name, uint8_t interface, int32_t series, uint32_t baud,
                   Frame (*make)(int)) {
        Case c{name, interface, series, baud, {}};
        for (int v = 0; v < kVariants; ++v) c.frames.push_back(make(v));
        cases.push_back(c);
    };
    add("usb06_1contact", DEV_USB, 0, 0, [](int v) { return MultiFrame(0x06, 1, 5, 10, 4, v); });
    add("usb06_5contacts", DEV_USB, 0, 0, [](int v) { return MultiFrame(0x06, 5, 5, 10, 4, v); });
    add("usb06_10contacts", DEV_USB, 0, 0,
        [](int v) { return MultiFrame(0x06, 10, 5, 10, 4, v); });
    add("usb17_4contacts", DEV_USB, 0, 0, [](int v) { return MultiFrame(0x17, 4, 4, 14, 6, v); });
    add("usb02_pen_series22", DEV_USB, 22, 0, PenFrame);
    add("rs232_6byte", DEV_RS232, 0, 115200, SerialFrame);
    return cases;
}

// A bare device record with neutral settings (no transform, no filter, slot protocol,
// ten contacts), as the daemon sets it up for a controller without a settings block.
struct Rig {
    GlobalSettings settings;
    std::unique_ptr<CDeviceObject> dev;

    Rig(const Case& c, int touch_fd, int pen_fd) {
        memset(&settings, 0, sizeof(settings));
        snprintf(settings.UinputPath, sizeof(settings.UinputPath), "%s", kDefaultUinputPath);
        dev.reset(new CDeviceObject(c.interface == DEV_USB ? "/dev/hidraw0" : "/dev/ttyS0",
                                    &settings));
        dev->DevInterface = c.interface;
        dev->Series = c.series;
        dev->BaudRate = c.baud;
        DeviceParam& p = dev->Param;
        p.SupportPoints = 10;
        p.EventType = 2;
        p.ResolX = -1;
        p.ResolY = -1;
        p.HoldRange = 20;
        p.VKEYReportMod = 1;
        dev->MouseResShift = 1;
        dev->DigitizerResShift = 1;
        dev->MTouchResShift = 1;
        dev->ParallelResShift = 1;
        dev->UinputTouchFd.reset(dup(touch_fd));
        dev->UinputPenFd.reset(dup(pen_fd));
    }
};

inline void RunFrame(CDeviceObject* dev, const Frame& frame) {
    for (const Read& r : frame) {
        DispatchPortBytes(dev, r.data(), static_cast<int>(r.size()));
    }
}

// The floor: n writes of one input_event record, nothing else.
inline void WriteFloor(int fd, int n, struct input_event* ev) {
    for (int i = 0; i < n; ++i) {
        ev->value = i;
        const ssize_t w = WriteRetry(fd, ev, sizeof(*ev));
        benchmark::DoNotOptimize(w);
    }
}

// Events of one steady-state frame, counted through a pipe that is read after each frame.
int EventsPerFrame(const Case& c) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
    UniqueFd rd(fds[0]), wr(fds[1]);
    Rig rig(c, wr.get(), wr.get());
    uint8_t buffer[65536];
    int last = -1;
    for (int f = 0; f < kWarmFrames + kVariants; ++f) {
        RunFrame(rig.dev.get(), c.frames[f % kVariants]);
        ssize_t total = 0;
        for (ssize_t n; (n = read(rd.get(), buffer, sizeof(buffer))) > 0;) total += n;
        const int events = static_cast<int>(total / sizeof(struct input_event));
        if (f >= kWarmFrames) {
            if (last != -1 && last != events) return -1;  // not a steady state
            last = events;
        }
    }
    return last;
}

// A sink descriptor: a pipe whose reader thread empties it, or /dev/null.
class Sink {
  public:
    explicit Sink(bool pipe) {
        if (!pipe) {
            write_.reset(OpenCloexec("/dev/null", O_WRONLY));
            return;
        }
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) abort();
        read_.reset(fds[0]);
        write_.reset(fds[1]);
        drain_ = std::thread([fd = read_.get()] {
            static uint8_t buffer[65536];
            while (read(fd, buffer, sizeof(buffer)) > 0) {
            }
        });
    }
    ~Sink() {
        write_.reset();
        if (drain_.joinable()) drain_.join();
    }
    int fd() const { return write_.get(); }

  private:
    UniqueFd read_;
    UniqueFd write_;
    std::thread drain_;
};

void BM_Path(benchmark::State& state, const Case* c, bool pipe, int events) {
    Sink sink(pipe);
    Rig rig(*c, sink.fd(), sink.fd());
    for (int f = 0; f < kWarmFrames; ++f) RunFrame(rig.dev.get(), c->frames[f % kVariants]);
    int v = 0;
    for (auto _ : state) {
        RunFrame(rig.dev.get(), c->frames[v]);
        v = (v + 1) % kVariants;
    }
    state.counters["events"] = events;
    state.counters["reads"] = static_cast<double>(c->frames[0].size());
}

void BM_Floor(benchmark::State& state, bool pipe, int events) {
    Sink sink(pipe);
    struct input_event ev = {};
    ev.type = EV_ABS;
    ev.code = ABS_MT_POSITION_X;
    for (auto _ : state) WriteFloor(sink.fd(), events, &ev);
    state.counters["events"] = events;
}

// The same events in one write(2) per frame, as the daemon writes them (uinput takes any
// number of whole records per write): the floor of the path.
void BM_FloorOneWrite(benchmark::State& state, bool pipe, int events) {
    Sink sink(pipe);
    std::vector<struct input_event> frame(static_cast<size_t>(events));
    for (struct input_event& ev : frame) {
        ev.type = EV_ABS;
        ev.code = ABS_MT_POSITION_X;
    }
    const size_t bytes = frame.size() * sizeof(frame[0]);
    for (auto _ : state) {
        const ssize_t w = WriteRetry(sink.fd(), frame.data(), bytes);
        benchmark::DoNotOptimize(w);
    }
    state.counters["events"] = events;
}

}  // namespace

// The measured region of --fixed (callgrind toggles collection on this function).
extern "C" __attribute__((noinline)) void tavrine_bench_measured(CDeviceObject* dev,
                                                                 const Case* c, int frames,
                                                                 int fd, int floor_events) {
    if (floor_events > 0) {
        struct input_event ev = {};
        ev.type = EV_ABS;
        for (int f = 0; f < frames; ++f) WriteFloor(fd, floor_events, &ev);
        return;
    }
    for (int f = 0; f < frames; ++f) RunFrame(dev, c->frames[f % kVariants]);
}

namespace {

int RunFixed(const std::vector<Case>& cases, const char* name, int frames, bool floor) {
    for (const Case& c : cases) {
        if (strcmp(c.name, name) != 0) continue;
        const int events = EventsPerFrame(c);
        UniqueFd null_fd(OpenCloexec("/dev/null", O_WRONLY));
        Rig rig(c, null_fd.get(), null_fd.get());
        for (int f = 0; f < kWarmFrames; ++f) RunFrame(rig.dev.get(), c.frames[f % kVariants]);
        tavrine_bench_measured(rig.dev.get(), &c, frames, null_fd.get(), floor ? events : 0);
        printf("fixed %s %s frames=%d events_per_frame=%d\n", c.name, floor ? "floor" : "path",
               frames, events);
        return 0;
    }
    fprintf(stderr, "unknown case %s\n", name);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    // Production logging: the main category only, to a file that must stay empty (nothing
    // on the data path logs under it).
    char log_path[] = "/tmp/tavrine_bench_log_XXXXXX";
    UniqueFd log_fd(mkstemp(log_path));
    snprintf(LogFilePath, sizeof(LogFilePath), "%s", log_path);
    DebugEnableBits = LOG_MAIN;
    ShowDebugPosition = 0;

    static std::vector<Case> cases = MakeCases();
    int rc = 0;
    if (argc >= 2 && strcmp(argv[1], "--list") == 0) {
        for (const Case& c : cases) {
            printf("%s reads=%zu events=%d\n", c.name, c.frames[0].size(), EventsPerFrame(c));
        }
    } else if (argc >= 5 && strcmp(argv[1], "--fixed") == 0) {
        rc = RunFixed(cases, argv[2], atoi(argv[3]), strcmp(argv[4], "floor") == 0);
    } else {
        for (const Case& c : cases) {
            const int events = EventsPerFrame(c);
            if (events <= 0) {
                fprintf(stderr, "%s: no steady frame size\n", c.name);
                return 1;
            }
            for (bool pipe : {true, false}) {
                const std::string sink = pipe ? "pipe" : "null";
                benchmark::RegisterBenchmark(("path/" + std::string(c.name) + "/" + sink).c_str(),
                                             BM_Path, &c, pipe, events);
                benchmark::RegisterBenchmark(("floor/" + std::string(c.name) + "/" + sink).c_str(),
                                             BM_Floor, pipe, events);
                benchmark::RegisterBenchmark(
                    ("onewrite/" + std::string(c.name) + "/" + sink).c_str(), BM_FloorOneWrite,
                    pipe, events);
            }
        }
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }
    struct stat st;
    if (fstat(log_fd.get(), &st) == 0 && st.st_size != 0) {
        fprintf(stderr, "log lines were written on the data path (%lld bytes in %s)\n",
                static_cast<long long>(st.st_size), log_path);
        rc = 1;
    } else {
        unlink(log_path);
    }
    return rc;
}
