// Fuzz target for the load-tool output filter: any byte sequence as the tool's output,
// handed over in reads of arbitrary sizes the way the child manager does it (a growing
// NUL-terminated buffer, cleared once the filter took its text; a rejection ends the run),
// with runs ending at arbitrary points. The run average must stay a percentage.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "probe/cache.h"
#include "probe/childmanager.h"
#include "probe/vmstatfilter.h"

namespace {

constexpr std::size_t kLongestRead = 4096;

// What the child manager does with the text read so far: the filter judges it, and the
// buffer is cleared once the filter took it. False when the filter rejected the text.
bool analyse(ToolOutputBuffer& buffer, VmstatFilter& filter) {
    const int length = buffer.length();
    if (length == 0)
        return true;
    if (buffer.text()[length] != '\0')
        std::abort();
    int result = 0;
    const bool ok = filter.doFiltering(buffer.text(), length, result);
    if (result < -1 || result > 100)
        std::abort();
    if (ok)
        buffer.clear();
    return ok;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Cache cache(10, 1u << 20, 1u << 20);
    myCache = &cache;
    ToolOutputBuffer buffer;
    if (!buffer.allocate())
        std::abort();
    VmstatFilter filter{1u << 20, 1u << 20};
    // The run's end: what is left is filtered once more unless it was rejected.
    const auto finish = [&](bool ok) {
        if (ok)
            analyse(buffer, filter);
        filter.resetFilter();
        buffer.clear();
    };
    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        // The read sizes come from the end of the input, the text from its start; a read of
        // length 0 stands for the end of the run.
        const auto count = input.ConsumeIntegralInRange<std::size_t>(0, kLongestRead);
        const auto bytes = input.ConsumeBytes<std::uint8_t>(count);
        bool ok = count > 0;
        // No more than the buffer has room for at a time; the rest comes with the next read.
        for (std::size_t at = 0; ok && at < bytes.size();) {
            const auto n =
                std::min(bytes.size() - at, static_cast<std::size_t>(buffer.spaceLeft()));
            std::memcpy(buffer.writePosition(), bytes.data() + at, n);
            buffer.appended(static_cast<int>(n));
            if (buffer.needsToGrow(static_cast<int>(n)) && !buffer.grow())
                std::abort();
            ok = analyse(buffer, filter);
            at += n;
        }
        if (count == 0 || !ok)
            finish(count == 0);
    }
    finish(true);
    return 0;
}
