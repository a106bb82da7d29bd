#include "tests/cli/time_zone.h"

#include <cstdlib>
#include <ctime>

CTimeZone::CTimeZone(const char* lpszZone) {
    ::setenv("TZ", lpszZone, 1);
    ::tzset();
}

CTimeZone::~CTimeZone() {
    ::unsetenv("TZ");
    ::tzset();
}
