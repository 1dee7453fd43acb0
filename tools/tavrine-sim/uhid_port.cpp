// USB controller played through /dev/uhid.
#include <dirent.h>
#include <fcntl.h>
#include <linux/input.h>
#include <linux/uhid.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "hid_report_sizes.h"
#include "sim_port.h"

namespace tvm {

namespace {

const char* ReportTypeName(uint8_t type) {
    switch (type) {
        case UHID_FEATURE_REPORT:
            return "feature";
        case UHID_OUTPUT_REPORT:
            return "output";
        case UHID_INPUT_REPORT:
            return "input";
        default:
            return "unknown";
    }
}

// The hidraw node ("hidraw0") whose HID device has the script's ids and
// phys, or "" when there is none yet.
std::string FindHidraw(const Script& script) {
    char id[48];
    std::snprintf(id, sizeof id, "HID_ID=0003:%08X:%08X", script.vendor, script.product);
    DIR* dir = opendir("/sys/class/hidraw");
    if (!dir) return "";
    std::string found;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream uevent(std::string("/sys/class/hidraw/") + entry->d_name + "/device/uevent");
        bool id_ok = false, phys_ok = false;
        for (std::string line; std::getline(uevent, line);) {
            id_ok = id_ok || line == id;
            phys_ok = phys_ok || line == "HID_PHYS=" + script.phys;
        }
        if (id_ok && phys_ok) {
            found = entry->d_name;
            break;
        }
    }
    closedir(dir);
    return found;
}

class UhidPort final : public SimPort {
  public:
    UhidPort(const Script& script, EventLog* log)
        : script_(script), log_(log), sizes_(script.descriptor) {}
    ~UhidPort() override { UhidPort::Unplug(); }

    bool Plug() override;
    void Unplug() override;
    bool plugged() const override { return fd_.valid(); }
    int fd() const override { return fd_.get(); }
    bool Send(const Bytes& bytes) override;
    bool Service(std::vector<Bytes>* packets) override;
    bool opened() const override { return opened_; }
    bool ready() override;

  private:
    bool WriteEvent(const uhid_event& ev);
    void AnswerGetReport(const uhid_get_report_req& req);
    void AnswerSetReport(const uhid_set_report_req& req, std::vector<Bytes>* packets);

    const Script& script_;
    EventLog* log_;
    ReportSizes sizes_;
    UniqueFd fd_;
    bool opened_ = false;
    bool started_ = false;
    std::string hidraw_;
};

bool UhidPort::WriteEvent(const uhid_event& ev) {
    if (WriteAll(fd_.get(), &ev, sizeof ev) == 0) return true;
    log_->Write("error", std::string("uhid write: ") + std::strerror(errno));
    return false;
}

bool UhidPort::Plug() {
    if (plugged()) return true;
    int fd = open("/dev/uhid", O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        log_->Write("error", std::string("open /dev/uhid: ") + std::strerror(errno));
        return false;
    }
    fd_.reset(fd);
    uhid_event ev{};
    ev.type = UHID_CREATE2;
    auto& c = ev.u.create2;
    std::snprintf(reinterpret_cast<char*>(c.name), sizeof c.name, "%s", script_.name.c_str());
    std::snprintf(reinterpret_cast<char*>(c.phys), sizeof c.phys, "%s", script_.phys.c_str());
    std::snprintf(reinterpret_cast<char*>(c.uniq), sizeof c.uniq, "%s", "tavrine-sim");
    size_t size = std::min(script_.descriptor.size(), sizeof c.rd_data);
    std::memcpy(c.rd_data, script_.descriptor.data(), size);
    c.rd_size = static_cast<uint16_t>(size);
    c.bus = BUS_USB;
    c.vendor = script_.vendor;
    c.product = script_.product;
    c.version = script_.version;
    if (!WriteEvent(ev)) {
        fd_.reset();
        return false;
    }
    char text[96];
    std::snprintf(text, sizeof text, "usb %04x:%04x descriptor %zu bytes", script_.vendor,
                  script_.product, size);
    log_->Write("plug", text);
    return true;
}

void UhidPort::Unplug() {
    if (!plugged()) return;
    uhid_event ev{};
    ev.type = UHID_DESTROY;
    WriteEvent(ev);
    fd_.reset();
    opened_ = started_ = false;
    hidraw_.clear();
    log_->Write("unplug", "usb");
}

bool UhidPort::ready() {
    if (!started_) return false;
    if (hidraw_.empty()) hidraw_ = FindHidraw(script_);
    if (!hidraw_.empty() && access(("/dev/" + hidraw_).c_str(), F_OK) == 0) {
        log_->Write("ready", "/dev/" + hidraw_);
        return true;
    }
    return false;
}

bool UhidPort::Send(const Bytes& raw) {
    if (!plugged()) {
        log_->WriteBytes("tx-dropped", raw);
        return false;
    }
    Bytes bytes = raw;
    if (script_.pad_reports && !bytes.empty() && sizes_.numbered())
        bytes.resize(std::max(bytes.size(), sizes_.Size(ReportKind::kInput, bytes[0])), 0);
    uhid_event ev{};
    ev.type = UHID_INPUT2;
    size_t size = std::min(bytes.size(), sizeof ev.u.input2.data);
    std::memcpy(ev.u.input2.data, bytes.data(), size);
    ev.u.input2.size = static_cast<uint16_t>(size);
    const uint64_t before_us = MonotonicUs();
    if (!WriteEvent(ev)) return false;
    const Bytes sent(bytes.begin(), bytes.begin() + static_cast<long>(size));
    if (script_.stamp_before) {
        log_->WriteAt(before_us, "tx", FormatHex(sent));
    } else {
        log_->WriteBytes("tx", sent);
    }
    return true;
}

void UhidPort::AnswerGetReport(const uhid_get_report_req& req) {
    char text[64];
    std::snprintf(text, sizeof text, "id %02x type %s", req.rnum, ReportTypeName(req.rtype));
    log_->Write("rx-get-report", text);
    uhid_event ev{};
    ev.type = UHID_GET_REPORT_REPLY;
    ev.u.get_report_reply.id = req.id;
    ev.u.get_report_reply.err = EIO;
    for (const GetReportRule& rule : script_.get_reports) {
        if (rule.report_id != req.rnum) continue;
        ev.u.get_report_reply.err = rule.error;
        size_t size = std::min(rule.data.size(), sizeof ev.u.get_report_reply.data);
        std::memcpy(ev.u.get_report_reply.data, rule.data.data(), size);
        ev.u.get_report_reply.size = static_cast<uint16_t>(size);
        break;
    }
    if (!WriteEvent(ev)) return;
    if (ev.u.get_report_reply.err)
        log_->Write("tx-get-report", "error " + std::to_string(ev.u.get_report_reply.err));
    else
        log_->Write("tx-get-report",
                    FormatHex(ev.u.get_report_reply.data, ev.u.get_report_reply.size));
}

void UhidPort::AnswerSetReport(const uhid_set_report_req& req, std::vector<Bytes>* packets) {
    size_t size = std::min<size_t>(req.size, sizeof req.data);
    Bytes data(req.data, req.data + size);
    log_->Write("rx-set-report", std::string(ReportTypeName(req.rtype)) + " " + FormatHex(data));
    uhid_event ev{};
    ev.type = UHID_SET_REPORT_REPLY;
    ev.u.set_report_reply.id = req.id;
    ev.u.set_report_reply.err = 0;
    WriteEvent(ev);
    packets->push_back(std::move(data));
}

bool UhidPort::Service(std::vector<Bytes>* packets) {
    while (plugged()) {
        uhid_event ev{};
        ssize_t n = read(fd_.get(), &ev, sizeof ev);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return true;
        if (n <= 0) {
            log_->Write("error", std::string("uhid read: ") +
                                     (n < 0 ? std::strerror(errno) : "end of file"));
            Unplug();
            return false;
        }
        switch (ev.type) {
            case UHID_START:
                started_ = true;
                log_->Write("event", "start");
                break;
            case UHID_STOP:
                started_ = false;
                log_->Write("event", "stop");
                break;
            case UHID_OPEN:
                opened_ = true;
                log_->Write("event", "open");
                break;
            case UHID_CLOSE:
                opened_ = false;
                log_->Write("event", "close");
                break;
            case UHID_OUTPUT: {
                size_t size = std::min<size_t>(ev.u.output.size, sizeof ev.u.output.data);
                Bytes data(ev.u.output.data, ev.u.output.data + size);
                log_->WriteBytes("rx", data);
                packets->push_back(std::move(data));
                break;
            }
            case UHID_GET_REPORT:
                AnswerGetReport(ev.u.get_report);
                break;
            case UHID_SET_REPORT:
                AnswerSetReport(ev.u.set_report, packets);
                break;
            default:
                log_->Write("event", "type " + std::to_string(ev.type));
                break;
        }
    }
    return false;
}

}  // namespace

std::unique_ptr<SimPort> CreateUhidPort(const Script& script, EventLog* log) {
    return std::make_unique<UhidPort>(script, log);
}

}  // namespace tvm
