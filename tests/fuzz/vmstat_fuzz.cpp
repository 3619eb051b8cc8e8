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

// A read of length 0 stands for the end of the run.
constexpr std::size_t kLongestRead = 4096;

class Run {
public:
    Run() {
        if (!buffer_.allocate())
            std::abort();
    }

    // One read from the pipe: no more than the buffer has room for; the rest of the
    // bytes comes with the next read. False once the filter rejected the text.
    bool read(const std::uint8_t* bytes, std::size_t count) {
        while (count > 0) {
            const auto n = std::min(count, static_cast<std::size_t>(buffer_.spaceLeft()));
            std::memcpy(buffer_.writePosition(), bytes, n);
            buffer_.appended(static_cast<int>(n));
            if (buffer_.needsToGrow(static_cast<int>(n)) && !buffer_.grow())
                std::abort();
            if (!analyse())
                return false;
            bytes += n;
            count -= n;
        }
        return true;
    }

    bool analyse() {
        const int length = buffer_.length();
        if (length == 0)
            return true;
        if (buffer_.text()[length] != '\0')
            std::abort();
        int result = 0;
        const bool ok = filter_.doFiltering(buffer_.text(), length, result);
        if (result < -1 || result > 100)
            std::abort();
        if (ok)
            buffer_.clear();
        return ok;
    }

    // The run's end: what is left is filtered once more unless it was rejected.
    void finish(bool ok) {
        if (ok)
            analyse();
        filter_.resetFilter();
        buffer_.clear();
    }

private:
    ToolOutputBuffer buffer_;
    VmstatFilter filter_{1u << 20, 1u << 20};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Cache cache(10, 1u << 20, 1u << 20);
    myCache = &cache;
    FuzzedDataProvider input(data, size);
    Run run;
    while (input.remaining_bytes() > 0) {
        // The read sizes come from the end of the input, the text from its start.
        const auto count = input.ConsumeIntegralInRange<std::size_t>(0, kLongestRead);
        const auto bytes = input.ConsumeBytes<std::uint8_t>(count);
        if (count == 0) {
            run.finish(true);
        } else if (!run.read(bytes.data(), bytes.size())) {
            run.finish(false);
        }
    }
    run.finish(true);
    return 0;
}
