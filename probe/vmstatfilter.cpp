// The filter factory and the vmstat filter: recognised sample lines go into the sample
// cache one by one, and the filter keeps the idle sum of the run so ChildManager can
// report the run's average when the tool ends.
#include "probe/vmstatfilter.h"

#include "probe/bootstrap.h"
#include "probe/cache.h"
#include "probe/messages.h"
#include "probe/sarfilter.h"

#include <cctype>
#include <cmath>
#include <cstring>

BaseFilter* myFilter = nullptr;

namespace {

// Beyond this many successive unrecognised lines the whole text is rejected.
constexpr int MAX_BAD_LINES = 3;
constexpr unsigned int HEADER_LINES = 3;
constexpr unsigned int MAX_IDLE = 100;

const char* nextLineEnd(const char* position, const char* end) {
    return static_cast<const char*>(std::memchr(position, '\n', end - position));
}

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// One "%d" conversion: optional sign, then at least one digit. Out-of-range values wrap
// to 32 bits, so a huge number still counts as a converted field.
bool scanInteger(const char*& position, const char* end, int& value) {
    const char* p = position;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    if (p == end || !std::isdigit(static_cast<unsigned char>(*p))) {
        return false;
    }
    unsigned int magnitude = 0;
    for (; p < end && std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        magnitude = magnitude * 10u + static_cast<unsigned int>(*p - '0');
    }
    value = static_cast<int>(negative ? 0u - magnitude : magnitude);
    position = p;
    return true;
}

} // namespace

int scanSampleLine(const char* line, const char* end,
                   std::array<int, VmstatFilter::FIELD_COUNT>& fields) {
    int converted = 0;
    const char* position = line;
    while (converted < VmstatFilter::FIELD_COUNT) {
        while (position < end && isBlank(*position)) {
            ++position;
        }
        if (!scanInteger(position, end, fields[converted])) {
            break;
        }
        ++converted;
    }
    return converted;
}

BaseFilter* BaseFilter::createFilter(const KyUniString& name, unsigned int maxVirtualMemory,
                                     unsigned int maxPhysicalMemory) {
    if (VmstatFilter::matches(name)) {
        return new VmstatFilter(maxVirtualMemory, maxPhysicalMemory);
    }
    if (SarFilter::matches(name)) {
        return new SarFilter(maxVirtualMemory, maxPhysicalMemory);
    }
    LogFilterNotRecognised(name);
    return nullptr;
}

VmstatFilter::VmstatFilter(unsigned int maxVirtualMemory, unsigned int maxPhysicalMemory)
    : maxVirtualMemory_(maxVirtualMemory), maxPhysicalMemory_(maxPhysicalMemory) {}

bool VmstatFilter::matches(const KyUniString& name) {
    return name == myFilterName;
}

// vmstat's headings carry nothing the probe needs; every line is scanned as data.
bool VmstatFilter::parseHeaders(char*) {
    return false;
}

void VmstatFilter::resetFilter() {
    idleSum_ = 0;
    sampleCount_ = 0;
    headerLinesSkipped_ = 0;
}

const char* VmstatFilter::skipHeaders(const char* position, const char* end) {
    while (position < end && headerLinesSkipped_ < HEADER_LINES) {
        const char* lineEnd = nextLineEnd(position, end);
        if (lineEnd == nullptr) {
            return nullptr;
        }
        headersFound_ = parseHeaders(const_cast<char*>(position));
        position = lineEnd + 1;
        ++headerLinesSkipped_;
    }
    return position;
}

// Field numbers in the comments are the tool's 1-based column numbers.
void VmstatFilter::acceptSample(const std::array<int, FIELD_COUNT>& fields) {
    unsigned int idle = static_cast<unsigned int>(fields[21]); // 22: CPU idle
    if (idle > MAX_IDLE) {
        idle = MAX_IDLE;
    }
    const auto virtualFree = static_cast<unsigned int>(fields[3]); // 4: free swap
    if (virtualFree > maxVirtualMemory_) {
        LogVMemOutOfRange(virtualFree, maxVirtualMemory_);
        maxVirtualMemory_ = virtualFree;
    }
    const auto physicalFree = static_cast<unsigned int>(fields[4]); // 5: free memory
    if (physicalFree > maxPhysicalMemory_) {
        maxPhysicalMemory_ = physicalFree;
    }
    if (myCache != nullptr) {
        myCache->addToCache(idle, virtualFree, physicalFree, static_cast<unsigned int>(fields[7]),
                            static_cast<unsigned int>(fields[8]));
    }
    idleSum_ += idle;
    ++sampleCount_;
}

bool VmstatFilter::takeLine(const char* line, const char* end, int& badLines) {
    std::array<int, FIELD_COUNT> fields{};
    if (scanSampleLine(line, end, fields) != FIELD_COUNT) {
        return ++badLines <= MAX_BAD_LINES;
    }
    badLines = 0;
    acceptSample(fields);
    return true;
}

bool VmstatFilter::doFiltering(char* text, int length, int& result) {
    result = -1;
    int badLines = 0;
    if (length < 1) {
        return false;
    }
    const char* end = text + length;
    const char* position = skipHeaders(text, end);
    if (position == nullptr) {
        return false;
    }
    while (position < end) {
        const char* lineEnd = nextLineEnd(position, end);
        if (!headersFound_ && !takeLine(position, lineEnd ? lineEnd : end, badLines)) {
            const KyUniString probePath = myBootstrap ? myBootstrap->getProbePath() : KyUniString();
            LogDataNotRecognised(probePath, KyUniString(text));
            return false;
        }
        if (lineEnd == nullptr) {
            return false;
        }
        position = lineEnd + 1;
    }
    if (sampleCount_ != 0) {
        const float average = static_cast<float>(idleSum_) / static_cast<float>(sampleCount_);
        result = static_cast<int>(std::rint(average));
    }
    return true;
}
