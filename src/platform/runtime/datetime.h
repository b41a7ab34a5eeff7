// Date-time values as days since 1899-12-30 (the fraction being the time of day), and the
// fixed text forms the library writes whatever the process locale is.
#pragma once

#include <chrono>
#include <string>

#include "tessarel/types.h"

namespace tessarel {

struct CivilTime {
  int year = 1899, month = 12, day = 30;
  int hour = 0, minute = 0, second = 0, millisecond = 0;
};

// Throws EConvertError for an impossible date.
DateTime EncodeDateTime(const CivilTime& t);
CivilTime DecodeDateTime(DateTime dt);

// Wall-clock conversions. A DateTime carries no zone: sys_* treat it as UTC.
DateTime DateTimeFromSys(std::chrono::sys_seconds t);
std::chrono::sys_seconds SysFromDateTime(DateTime dt);

DateTime Now();     // local time
DateTime Date();    // today, local, no time part
DateTime UTCNow();  // current UTC time
// Local wall-clock time of a point in time.
DateTime LocalDateTime(std::chrono::system_clock::time_point t);

std::string FormatShortDate(DateTime dt);  // "dd/mm/yyyy"
std::string FormatTime(DateTime dt);       // "hh:nn:ss", 24-hour
std::string FormatIsoDate(DateTime dt);    // "yyyy-mm-dd"
std::string FormatDateTime(DateTime dt);   // "dd/mm/yyyy hh:nn:ss"

}  // namespace tessarel
