#include "tests/cli/time_zone.h"

#include <cstdlib>
#include <ctime>

CTimeZone::CTimeZone(const char* lpszZone) {
    ::_putenv_s("TZ", lpszZone);
    ::_tzset();
}

CTimeZone::~CTimeZone() {
    ::_putenv_s("TZ", "");
    ::_tzset();
}
