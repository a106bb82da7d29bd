// The time zone of one test. time_zone_posix.cpp, time_zone_windows.cpp.
#pragma once

class CTimeZone {
  public:
    // A zone as of the variable TZ: a name of three letters, and what is to be added to get UTC.
    explicit CTimeZone(const char* lpszZone);
    ~CTimeZone();
    CTimeZone(const CTimeZone&) = delete;
    CTimeZone& operator=(const CTimeZone&) = delete;
};
