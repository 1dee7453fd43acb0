// Helpers of the settings-file tests: a temporary data directory, byte-exact file access,
// the block text as the daemon must write it (spelled out by hand).
#pragma once

#include <stdint.h>

#include <string>

namespace conftest {

// A fresh directory under /tmp that is the daemon's data directory for the lifetime of the
// object; removed with its content (files and directories) afterwards. Also silences the
// debug log (every category on, so every message is formatted, but no output).
class ConfDataDir {
  public:
    ConfDataDir();
    ~ConfDataDir();
    ConfDataDir(const ConfDataDir&) = delete;
    ConfDataDir& operator=(const ConfDataDir&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    uint32_t saved_bits_;
    uint8_t saved_position_;
};

std::string ReadBytes(const std::string& path);  // "" when missing
bool WriteBytes(const std::string& path, const std::string& bytes);
bool Exists(const std::string& path);

// The default block text with block number no; address nullptr gives the bare
// "Physical_Address" line of a single-device file.
std::string DefaultBlock(int no, const char* address);
// The global part of a generated file, before the first block.
std::string GeneratedHead(const char* debug_bits_hex, int show_position, int device_nums,
                          int baud_rate);

}  // namespace conftest
