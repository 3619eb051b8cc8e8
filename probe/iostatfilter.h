// Placeholder filter for the `iostat` tool: declared for completeness of the filter family,
// never created, and it recognises no output.
#pragma once

#include "probe/vmstatfilter.h"

class IostatFilter : public BaseFilter {
public:
    static constexpr const char* myFilterName = "iostatFilter";

    bool doFiltering(char* text, int length, int& result) override;
    unsigned int adjustCount() override { return 1; }
    void resetFilter() override {}

    static bool matches(const KyUniString& name);
};
