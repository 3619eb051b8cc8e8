// Test helpers for the logging and configuration tests: a temporary directory removed
// with its contents afterwards, and whole-file reads.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <stdlib.h>

class LogTempDir {
public:
    LogTempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "hglog.XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~LogTempDir() { std::filesystem::remove_all(path_); }
    LogTempDir(LogTempDir const&) = delete;
    LogTempDir& operator=(LogTempDir const&) = delete;

    std::string const& Path() const { return path_; }
    std::string operator/(std::string const& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string ReadWhole(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void WriteWhole(std::string const& path, std::string const& text) {
    std::ofstream(path, std::ios::binary) << text;
}
