// The load-tool output filters: BaseFilter is what ChildManager feeds the tool's text to,
// createFilter picks the configured one at start-up, and VmstatFilter turns the sample lines
// of `vmstat -S` into cached samples and the run's average idle percentage.
#pragma once

#include "lib/unistring.h"

#include <array>
#include <string_view>

class BaseFilter {
public:
    // Parses the accumulated text of the current run; result is the run's average idle
    // so far, -1 while no sample line was recognised. False ends the run.
    virtual bool doFiltering(char* text, int length, int& result) = 0;
    // Samples to ask the tool for beyond the window size.
    virtual unsigned int adjustCount() = 0;
    virtual void resetFilter() = 0;
    virtual ~BaseFilter() = default;

    // Null (after logging why) when the name is not one of the known filters.
    static BaseFilter* createFilter(const KyUniString& name, unsigned int maxVirtualMemory,
                                    unsigned int maxPhysicalMemory);
};

// The filter made at start-up; processExit releases it.
extern BaseFilter* myFilter;

class VmstatFilter : public BaseFilter {
public:
    static constexpr const char* myFilterName = "vmstatFilter";
    static constexpr const char* MATCH_STRING = "State change";
    // Columns of a `vmstat -S` sample line.
    static constexpr int FIELD_COUNT = 22;

    VmstatFilter(unsigned int maxVirtualMemory, unsigned int maxPhysicalMemory);

    bool doFiltering(char* text, int length, int& result) override;
    unsigned int adjustCount() override { return 1; }
    void resetFilter() override;

    static bool matches(const KyUniString& name);
    bool parseHeaders(char* line);

    unsigned int getMaxVirtualMem() const { return maxVirtualMemory_; }
    unsigned int getMaxPhysMem() const { return maxPhysicalMemory_; }

private:
    // Skips the tool's two heading lines and its since-boot sample at the start of a run;
    // returns the position after them, or null when a line is not yet complete.
    const char* skipHeaders(const char* position, const char* end);
    // Scans one line; false once too many successive lines were not samples.
    bool takeLine(const char* line, const char* end, int& badLines);
    void acceptSample(const std::array<int, FIELD_COUNT>& fields);

    unsigned int idleSum_ = 0;
    unsigned int sampleCount_ = 0;
    unsigned int headerLinesSkipped_ = 0;
    unsigned int maxVirtualMemory_;
    unsigned int maxPhysicalMemory_;
    bool headersFound_ = false;
};

// Reads up to FIELD_COUNT decimal integers from [line, end) the way a "%d%d..." scan does:
// white space is skipped, each number may carry a sign, and scanning stops at the first
// text that is not a number. Returns how many fields were converted.
int scanSampleLine(const char* line, const char* end,
                   std::array<int, VmstatFilter::FIELD_COUNT>& fields);
