// Foundation value types beside their standard-library equivalents, in pairs: building
// a string from UTF-8 text, number parsing, splitting a list and a hash table of
// integer pairs. Each Ky... benchmark is followed by its Std... counterpart.
#include <benchmark/benchmark.h>

#include <clocale>
#include <cstdlib>
#include <cuchar>
#include <string>
#include <unordered_map>
#include <vector>

#include "lib/dictionary.h"
#include "lib/dlist.h"
#include "lib/stringutil.h"
#include "lib/unistring.h"

namespace {

const char* const Line = "corvane.config.hostspread.logdirectory=/var/log/h\xC3\xB4stgauge "
                         "caf\xC3\xA9 na\xC3\xAFve \xE2\x82\xAC 42";

void KyFromNarrow(benchmark::State& state) {
    for (auto _ : state) {
        KyUniString text(Line);
        benchmark::DoNotOptimize(text.AsPointer());
    }
}
BENCHMARK(KyFromNarrow);

// What a plain standard-library program writes: decode into a growing u16string.
void StdFromNarrowHandDecode(benchmark::State& state) {
    for (auto _ : state) {
        std::u16string text;
        for (const char* p = Line; *p != '\0';) {
            const auto b = static_cast<unsigned char>(*p);
            const int extra = b < 0x80 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : 3;
            char32_t cp = extra == 0 ? b : b & (0x3F >> extra);
            for (int k = 1; k <= extra && p[k] != '\0'; ++k)
                cp = (cp << 6) | (static_cast<unsigned char>(p[k]) & 0x3F);
            p += extra + 1;
            if (cp >= 0x10000) {
                text.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
                text.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
            } else {
                text.push_back(static_cast<char16_t>(cp));
            }
        }
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(StdFromNarrowHandDecode);

// The standard library's own UTF-8 decoder, one code unit per call.
void StdFromNarrowMbrtoc16(benchmark::State& state) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    const std::string_view in(Line);
    for (auto _ : state) {
        std::u16string text;
        std::mbstate_t st{};
        const char* p = in.data();
        const char* const end = p + in.size();
        char16_t unit;
        while (p < end) {
            const std::size_t n = std::mbrtoc16(&unit, p, static_cast<std::size_t>(end - p), &st);
            if (n == static_cast<std::size_t>(-1) || n == static_cast<std::size_t>(-2))
                break;
            if (n != static_cast<std::size_t>(-3))
                p += n == 0 ? 1 : n;
            text.push_back(unit);
        }
        benchmark::DoNotOptimize(text.data());
    }
    std::setlocale(LC_CTYPE, "C");
}
BENCHMARK(StdFromNarrowMbrtoc16);

void KyAsUint32(benchmark::State& state) {
    const KyUniString number("3579123456");
    for (auto _ : state)
        benchmark::DoNotOptimize(number.AsUint32());
}
BENCHMARK(KyAsUint32);

void StdStrtoul(benchmark::State& state) {
    const std::string number = "3579123456";
    for (auto _ : state)
        benchmark::DoNotOptimize(std::strtoul(number.c_str(), nullptr, 10));
}
BENCHMARK(StdStrtoul);

const char* const Filter = "hostgauge/*/fatalerror:console,hostgauge/*/error:error.log,"
                           "hostgauge/*/info:error.jsl,hostgauge/child/moreinfo:child.log,"
                           "hostgauge/net/*:net.log,,trailing,";

void KySplit(benchmark::State& state) {
    const KyUniString text(Filter);
    KyDList<KyUniString> list;
    for (auto _ : state) {
        list.Flush();
        Split(text, list, u',');
        benchmark::DoNotOptimize(list.Length());
    }
}
BENCHMARK(KySplit);

void StdSplitHandLoop(benchmark::State& state) {
    const std::u16string text(KyUniString(Filter).View());
    std::vector<std::u16string> list;
    for (auto _ : state) {
        list.clear();
        std::size_t start = 0;
        for (std::size_t at; (at = text.find(u',', start)) != text.npos; start = at + 1)
            list.emplace_back(text, start, at - start);
        list.emplace_back(text, start);
        benchmark::DoNotOptimize(list.size());
    }
}
BENCHMARK(StdSplitHandLoop);

using Pair = KyDDAssoc<unsigned, unsigned>;

void KyDictionaryInsertFind(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        KyDictionary<Pair> dictionary(16);
        for (unsigned i = 0; i < count; ++i)
            dictionary.Insert(new Pair(i * 7919u, i));
        unsigned sum = 0;
        for (unsigned i = 0; i < count; ++i)
            sum += dictionary.Find(Pair(i * 7919u))->Value();
        benchmark::DoNotOptimize(sum);
        dictionary.Flush(true);
    }
}
BENCHMARK(KyDictionaryInsertFind)->Arg(1000);

void StdUnorderedMapInsertFind(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        std::unordered_map<unsigned, unsigned> map(16);
        for (unsigned i = 0; i < count; ++i)
            map.emplace(i * 7919u, i);
        unsigned sum = 0;
        for (unsigned i = 0; i < count; ++i)
            sum += map.find(i * 7919u)->second;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(StdUnorderedMapInsertFind)->Arg(1000);

// Look-ups alone in a table built once, without the cost of building it.
void KyDictionaryFind(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    KyDictionary<Pair> dictionary(16);
    for (unsigned i = 0; i < count; ++i)
        dictionary.Insert(new Pair(i * 7919u, i));
    for (auto _ : state) {
        unsigned sum = 0;
        for (unsigned i = 0; i < count; ++i)
            sum += dictionary.Find(Pair(i * 7919u))->Value();
        benchmark::DoNotOptimize(sum);
    }
    dictionary.Flush(true);
}
BENCHMARK(KyDictionaryFind)->Arg(1000);

void StdUnorderedMapFind(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    std::unordered_map<unsigned, unsigned> map(16);
    for (unsigned i = 0; i < count; ++i)
        map.emplace(i * 7919u, i);
    for (auto _ : state) {
        unsigned sum = 0;
        for (unsigned i = 0; i < count; ++i)
            sum += map.find(i * 7919u)->second;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(StdUnorderedMapFind)->Arg(1000);

} // namespace

BENCHMARK_MAIN();
