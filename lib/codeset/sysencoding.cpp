// The locale's code set, read once at construction, as the encoding of every kind of
// system text; callers may override all purposes at once with SetAll.
#include "lib/codeset/sysencoding.h"

#include <clocale>
#include <langinfo.h>

#include "lib/codeset/converter.h"

KySysEncoding::KySysEncoding() {
    std::setlocale(LC_CTYPE, "");
    const char* codeset = nl_langinfo(CODESET);
    SetAll(KyCodesetConverter::EncodingForLocale(codeset ? codeset : ""), 0);
}

void KySysEncoding::SetAll(int encoding, int option) {
    settings_.fill({encoding, option});
}
