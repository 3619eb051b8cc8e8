// The sar placeholder: no sar output format is supported on this platform.
#include "probe/sarfilter.h"

bool SarFilter::doFiltering(char*, int, int&) {
    return false;
}

bool SarFilter::matches(const KyUniString&) {
    return false;
}
