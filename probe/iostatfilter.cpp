// The iostat placeholder: no iostat output format is supported on this platform.
#include "probe/iostatfilter.h"

bool IostatFilter::doFiltering(char*, int, int&) {
    return false;
}

bool IostatFilter::matches(const KyUniString&) {
    return false;
}
