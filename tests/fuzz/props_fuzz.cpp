// Fuzz target for the properties-file loader: any byte sequence becomes a file's content
// and is loaded, the keys the daemon looks for are read back, and what was loaded is saved
// and loaded again, so the writer's escapes meet the reader too.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "lib/bytebuf.h"
#include "lib/file.h"
#include "lib/props.h"

namespace {

// The two files every input goes through, in a directory of this process's own that goes
// when the process ends.
struct Scratch {
    std::string dir = [] {
        std::string pattern = std::filesystem::temp_directory_path() / "props_fuzz.XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            std::abort();
        return pattern;
    }();
    const std::string input = dir + "/in.properties", saved = dir + "/saved.properties";
    ~Scratch() { std::filesystem::remove_all(dir); }
};

// Reads back two keys the daemon looks for and two odd ones.
void readBack(const KyProperties& properties) {
    for (const char* key :
         {"corvane.config.hostspread.port", "corvane.config.hostspread.probepath", "", "#"})
        if (const KyUniString* value = properties.Get(KyUniString(key)))
            (void)value->AsUtf8();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Scratch scratch;
    KyByteBuffer content;
    content.Append(static_cast<std::uint32_t>(size), data);
    if (KyFile::WriteFile(scratch.input, content) == Failure)
        std::abort();

    KyProperties loaded;
    if (loaded.Load(KyUniString(scratch.input.c_str())) == Failure)
        std::abort();
    readBack(loaded);
    if (loaded.Save(KyUniString(scratch.saved.c_str()), KyUniString("fuzz")) == Failure)
        std::abort();
    KyProperties reloaded;
    if (reloaded.Load(KyUniString(scratch.saved.c_str())) == Failure)
        std::abort();
    readBack(reloaded);
    // Every entry is saved as one line of its own, and keys cannot gain entries on the way.
    if (reloaded.Count() > loaded.Count())
        std::abort();
    return 0;
}
