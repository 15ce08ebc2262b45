#include "OrinLinkShared/Date.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

namespace orin {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2 ? 1 : 0;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
  std::int64_t year;
  unsigned month;
  unsigned day;
};

Civil civilFromDays(std::int64_t z) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  const unsigned d = doy - (153 * mp + 2) / 5 + 1;
  const unsigned m = mp < 10 ? mp + 3 : mp - 9;
  return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2 ? 1 : 0), m, d};
}

bool readDigits(std::string_view text, std::size_t pos, std::size_t count, unsigned& out) {
  if (pos + count > text.size()) return false;
  out = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    out = out * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return true;
}

bool isLeapYear(unsigned y) {
  return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

unsigned daysInMonth(unsigned y, unsigned m) {
  static constexpr unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeapYear(y) ? 29 : days[m - 1];
}

}  // namespace

Date Date::now() {
  return fromSystemClock(std::chrono::system_clock::now());
}

Date Date::fromSystemClock(std::chrono::system_clock::time_point time) {
  const auto micros =
      std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
  return fromUnixSeconds(static_cast<double>(micros) / 1e6);
}

std::string Date::iso8601() const {
  const auto total = static_cast<std::int64_t>(std::floor(unixSeconds()));
  std::int64_t days = total / 86400;
  std::int64_t secondsOfDay = total % 86400;
  if (secondsOfDay < 0) {
    secondsOfDay += 86400;
    days -= 1;
  }
  const Civil civil = civilFromDays(days);
  char text[64];
  std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02lld:%02lld:%02lldZ",
                static_cast<long long>(civil.year), civil.month, civil.day,
                static_cast<long long>(secondsOfDay / 3600),
                static_cast<long long>(secondsOfDay / 60 % 60),
                static_cast<long long>(secondsOfDay % 60));
  return text;
}

std::optional<Date> Date::parseISO8601(std::string_view text) {
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!readDigits(text, 0, 4, year) || text.size() < 20 || text[4] != '-' ||
      !readDigits(text, 5, 2, month) || text[7] != '-' || !readDigits(text, 8, 2, day) ||
      text[10] != 'T' || !readDigits(text, 11, 2, hour) || text[13] != ':' ||
      !readDigits(text, 14, 2, minute) || text[16] != ':' || !readDigits(text, 17, 2, second)) {
    return std::nullopt;
  }
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 59) {
    return std::nullopt;
  }
  std::int64_t offsetSeconds = 0;
  const std::string_view zone = text.substr(19);
  if (zone != "Z") {
    unsigned offsetHours = 0, offsetMinutes = 0;
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') ||
        !readDigits(zone, 1, 2, offsetHours) || zone[3] != ':' ||
        !readDigits(zone, 4, 2, offsetMinutes) || offsetHours > 23 || offsetMinutes > 59) {
      return std::nullopt;
    }
    const std::int64_t magnitude = offsetHours * 3600 + offsetMinutes * 60;
    offsetSeconds = zone[0] == '+' ? magnitude : -magnitude;
  }
  const std::int64_t unix =
      daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offsetSeconds;
  return fromUnixSeconds(static_cast<double>(unix));
}

}  // namespace orin
