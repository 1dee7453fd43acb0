#include "support/disc_log_capture.h"

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <mutex>

#include "log/debug_log.h"

namespace {

std::mutex g_mutex;
std::vector<std::string> g_messages;
uint32_t g_saved_bits;
uint8_t g_saved_position;

void Sink(bool /*is_error*/, const char* message) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_messages.emplace_back(message);
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

DiscLogCapture::DiscLogCapture() {
    g_saved_bits = DebugEnableBits;
    g_saved_position = ShowDebugPosition;
    Clear();
    DebugEnableBits = 0xFFFFFFFFu;
    ShowDebugPosition = 1;
    SetPlatformLogSinkForTest(Sink);
}

DiscLogCapture::~DiscLogCapture() {
    SetPlatformLogSinkForTest(nullptr);
    DebugEnableBits = g_saved_bits;
    ShowDebugPosition = g_saved_position;
}

std::vector<std::string> DiscLogCapture::Messages() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_messages;
}

int DiscLogCapture::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const auto& m : g_messages) n += m.find(text) != std::string::npos ? 1 : 0;
    return n;
}

int DiscLogCapture::Find(const std::string& text, int from) const {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (size_t i = from < 0 ? 0 : static_cast<size_t>(from); i < g_messages.size(); ++i) {
        if (g_messages[i].find(text) != std::string::npos) return static_cast<int>(i);
    }
    return -1;
}

void DiscLogCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_messages.clear();
}

DiscTempDir::DiscTempDir() {
    char tmpl[] = "/tmp/tavrine_disc_XXXXXX";
    const char* made = mkdtemp(tmpl);
    path_ = made ? made : "";
}

DiscTempDir::~DiscTempDir() {
    if (!path_.empty()) nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}
