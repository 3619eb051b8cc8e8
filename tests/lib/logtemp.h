// Test helpers for the logging and configuration tests: a temporary directory removed
// with its contents afterwards, whole-file reads and writes, and plain log records
// split back into category and text.
#pragma once

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <stdlib.h>

#include "lib/logging.h"

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

// A log file as it stands once the records still buffered are written.
inline std::string ReadLog(std::string const& path) {
    KyLog::Flush();
    return ReadWhole(path);
}

inline void WriteWhole(std::string const& path, std::string const& text) {
    std::ofstream(path, std::ios::binary) << text;
}

struct LogRecord {
    std::string category;
    std::string text;
};

// Splits a plain log file into its records; a text may span lines.
inline std::vector<LogRecord> ParseRecords(std::string const& log) {
    static const std::regex header(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}\t \(pid \d+\)\t)"
                                   R"(([^\t]+)\t#\d+\tKeldmoor Vantorel\(\(legacy\)\)\n)");
    std::vector<LogRecord> records;
    std::ptrdiff_t textStart = -1;
    for (std::sregex_iterator it(log.begin(), log.end(), header), end; it != end; ++it) {
        if (!records.empty()) {
            records.back().text = log.substr(textStart, it->position(0) - textStart - 1);
        }
        records.push_back({(*it)[1].str(), ""});
        textStart = it->position(0) + it->length(0);
    }
    if (!records.empty()) {
        records.back().text = log.substr(textStart, log.size() - textStart - 1);
    }
    return records;
}

// The texts of a plain log file's records, oldest first.
inline std::vector<std::string> RecordTexts(std::string const& log) {
    std::vector<std::string> texts;
    for (LogRecord& record : ParseRecords(log)) {
        texts.push_back(std::move(record.text));
    }
    return texts;
}
