// Captures the daemon's debug-log messages (every category) for the discovery tests.
#pragma once

#include <string>
#include <vector>

class DiscLogCapture {
  public:
    DiscLogCapture();
    ~DiscLogCapture();
    DiscLogCapture(const DiscLogCapture&) = delete;
    DiscLogCapture& operator=(const DiscLogCapture&) = delete;

    std::vector<std::string> Messages() const;
    // Number of messages that contain text.
    int Count(const std::string& text) const;
    bool Contains(const std::string& text) const { return Count(text) > 0; }
    // Index of the first message at or after from that contains text, -1 if none.
    int Find(const std::string& text, int from = 0) const;
    void Clear();
};

// A fresh temporary directory, removed (recursively) when the object goes away.
class DiscTempDir {
  public:
    DiscTempDir();
    ~DiscTempDir();
    DiscTempDir(const DiscTempDir&) = delete;
    DiscTempDir& operator=(const DiscTempDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};
