#pragma once

#include <chrono>
#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace orin {

// A point in time as seconds since 2001-01-01T00:00:00Z, the reference date that device clients
// put on the wire for generation requests.
struct Date {
  // Seconds between 1970-01-01 and 2001-01-01.
  static constexpr double unixEpochOffset = 978307200.0;

  double secondsSinceReferenceDate = 0;

  static Date now();
  static Date fromUnixSeconds(double seconds) { return Date{seconds - unixEpochOffset}; }
  static Date fromSystemClock(std::chrono::system_clock::time_point time);

  double unixSeconds() const { return secondsSinceReferenceDate + unixEpochOffset; }
  Date adding(double seconds) const { return Date{secondsSinceReferenceDate + seconds}; }
  double secondsSince(Date other) const {
    return secondsSinceReferenceDate - other.secondsSinceReferenceDate;
  }

  // ISO 8601 in UTC with whole seconds, e.g. 2026-11-21T05:33:00Z (fractions are dropped).
  std::string iso8601() const;
  // Accepts YYYY-MM-DDTHH:MM:SS followed by Z or a +HH:MM / -HH:MM offset.
  static std::optional<Date> parseISO8601(std::string_view text);

  auto operator<=>(const Date&) const = default;
};

}  // namespace orin
