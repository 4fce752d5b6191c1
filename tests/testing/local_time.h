// A fixed moment on this machine's local clock, for names that carry the local time.
#pragma once

#include <ctime>

namespace qvn::test {

inline std::time_t localTime(int year, int month, int day, int hour, int minute) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_isdst = -1;  // whatever the zone says on that day
  return std::mktime(&local);
}

}  // namespace qvn::test
