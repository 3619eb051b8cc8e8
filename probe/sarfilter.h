// Placeholder filter for the `sar` tool: it is declared so the factory knows the name, but
// it recognises no output, so a configuration naming it is refused at start-up.
#pragma once

#include "probe/vmstatfilter.h"

class SarFilter : public BaseFilter {
public:
    static constexpr const char* myFilterName = "sarFilter";

    SarFilter(unsigned int maxVirtualMemory, unsigned int maxPhysicalMemory)
        : maxVirtualMemory_(maxVirtualMemory), maxPhysicalMemory_(maxPhysicalMemory) {}

    bool doFiltering(char* text, int length, int& result) override;
    unsigned int adjustCount() override { return 0; }
    void resetFilter() override {}

    static bool matches(const KyUniString& name);

private:
    // Configured maxima, kept with the object that was built from them; no reading uses them.
    [[maybe_unused]] unsigned int maxVirtualMemory_;
    [[maybe_unused]] unsigned int maxPhysicalMemory_;
};
