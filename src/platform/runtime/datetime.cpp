#include "platform/runtime/datetime.h"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "tessarel/errors.h"

namespace tessarel {

namespace {
using namespace std::chrono;
constexpr double kMsPerDay = 86400000.0;
const sys_days kEpoch = sys_days{year{1899} / 12 / 30};
}  // namespace

DateTime EncodeDateTime(const CivilTime& t) {
  year_month_day ymd{year{t.year}, month{static_cast<unsigned>(t.month)},
                     day{static_cast<unsigned>(t.day)}};
  if (!ymd.ok() || t.hour < 0 || t.hour > 23 || t.minute < 0 || t.minute > 59 || t.second < 0 ||
      t.second > 59 || t.millisecond < 0 || t.millisecond > 999)
    throw EConvertError("Invalid argument to date encode");
  double days = static_cast<double>((sys_days{ymd} - kEpoch).count());
  double frac =
      (t.hour * 3600000.0 + t.minute * 60000.0 + t.second * 1000.0 + t.millisecond) / kMsPerDay;
  // Before the epoch the integer part counts days back and the fraction still adds time.
  return days >= 0 ? days + frac : days - frac;
}

CivilTime DecodeDateTime(DateTime dt) {
  double whole = std::trunc(dt);
  double frac = std::fabs(dt - whole);
  long long ms = std::llround(frac * kMsPerDay);
  long long day_count = static_cast<long long>(whole);
  if (ms >= 86400000) {  // rounding reached midnight
    ms -= 86400000;
    day_count += dt >= 0 ? 1 : -1;
  }
  year_month_day ymd{kEpoch + days{day_count}};
  CivilTime t;
  t.year = static_cast<int>(ymd.year());
  t.month = static_cast<int>(static_cast<unsigned>(ymd.month()));
  t.day = static_cast<int>(static_cast<unsigned>(ymd.day()));
  t.hour = static_cast<int>(ms / 3600000);
  t.minute = static_cast<int>(ms / 60000 % 60);
  t.second = static_cast<int>(ms / 1000 % 60);
  t.millisecond = static_cast<int>(ms % 1000);
  return t;
}

DateTime DateTimeFromSys(sys_seconds t) {
  auto dp = floor<days>(t);
  year_month_day ymd{dp};
  hh_mm_ss<seconds> hms{t - dp};
  return EncodeDateTime(
      {static_cast<int>(ymd.year()), static_cast<int>(static_cast<unsigned>(ymd.month())),
       static_cast<int>(static_cast<unsigned>(ymd.day())), static_cast<int>(hms.hours().count()),
       static_cast<int>(hms.minutes().count()), static_cast<int>(hms.seconds().count()), 0});
}

sys_seconds SysFromDateTime(DateTime dt) {
  CivilTime c = DecodeDateTime(dt);
  sys_days d{year{c.year} / c.month / c.day};
  return d + hours{c.hour} + minutes{c.minute} + seconds{c.second};
}

DateTime LocalDateTime(system_clock::time_point now) {
  auto ms_total = duration_cast<milliseconds>(now.time_since_epoch()).count();
  std::time_t secs = static_cast<std::time_t>(ms_total / 1000);
  std::tm tm{};
  localtime_r(&secs, &tm);
  return EncodeDateTime({tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                         std::min(tm.tm_sec, 59), static_cast<int>(ms_total % 1000)});
}

DateTime Now() {
  return LocalDateTime(system_clock::now());
}

DateTime Date() {
  return std::trunc(Now());
}

DateTime UTCNow() {
  auto now = system_clock::now();
  auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  return DateTimeFromSys(floor<seconds>(now)) + static_cast<double>(ms) / kMsPerDay;
}

std::string FormatShortDate(DateTime dt) {
  CivilTime c = DecodeDateTime(dt);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d/%02d/%04d", c.day, c.month, c.year);
  return buf;
}

std::string FormatTime(DateTime dt) {
  CivilTime c = DecodeDateTime(dt);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", c.hour, c.minute, c.second);
  return buf;
}

std::string FormatIsoDate(DateTime dt) {
  CivilTime c = DecodeDateTime(dt);
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", c.year, c.month, c.day);
  return buf;
}

std::string FormatDateTime(DateTime dt) {
  return FormatShortDate(dt) + " " + FormatTime(dt);
}

}  // namespace tessarel
