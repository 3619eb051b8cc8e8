// Fuzz target for control requests: any byte sequence up to the largest accepted request
// goes through the same decoding the request circuit applies and then the parser, and
// the result is read back the way the command interpreter reads it.
#include <cstddef>
#include <cstdint>

#include "lib/unistring.h"
#include "probe/tier3lbstrans.h"

namespace {

constexpr std::size_t kMaxRequest = 512;
constexpr int kUtf8 = 42;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kMaxRequest)
        return 0;
    KyUniString request;
    request.CreateFrom(data, static_cast<std::uint32_t>(size), kUtf8);
    Tier3_LbsTransmission parsed(request);
    KyUniString value;
    parsed.getAttributes().getByName(Tier3_LbsTransmission::KEY_VERSION, value);
    KyUniString* stats[3];
    parsed.getAttributes().getAllByName(Tier3_LbsTransmission::KEY_STAT, stats, 3);
    for (KyUniString* stat : stats)
        value += *stat;
    Tier3_LbsTransmission::showCommand(parsed.getCommand());
    return 0;
}
