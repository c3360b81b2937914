#include "support/platform/Date.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace vesp::platform {

Date Date::now() {
  auto since1970 = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  return fromTimeIntervalSince1970(since1970);
}

std::string Date::iso8601() const {
  double since1970 = timeIntervalSince1970();
  if (!std::isfinite(since1970)) return std::isnan(since1970) ? "nan" : (since1970 < 0 ? "-inf" : "inf");
  // Beyond a few hundred million years no calendar date is meaningful (nor representable here):
  // such instants are shown as seconds since the reference date.
  if (std::fabs(since1970) > 1e16) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g seconds since 2001-01-01T00:00:00Z", seconds_);
    return buffer;
  }
  double wholeSeconds = std::floor(since1970);
  double fraction = since1970 - wholeSeconds;
  // Days and seconds of the day, then the civil date of the day count (proleptic Gregorian).
  double days = std::floor(wholeSeconds / 86400.0);
  long long secondOfDay = static_cast<long long>(wholeSeconds - days * 86400.0);
  std::chrono::sys_days day{std::chrono::days{static_cast<long long>(days)}};
  std::chrono::year_month_day civil{day};
  const int year = static_cast<int>(civil.year());
  std::string text;
  if (year >= 0 && year <= 9999) {
    // Digits put in place: the program writes several dates for each of tens of thousands of
    // records, and formatting them was a tenth of its JSON output.
    char digits[] = "0000-00-00T00:00:00";
    auto put = [&digits](std::size_t at, long long value, std::size_t width) {
      for (std::size_t i = width; i-- > 0; value /= 10) digits[at + i] = static_cast<char>('0' + value % 10);
    };
    put(0, year, 4);
    put(5, static_cast<unsigned>(civil.month()), 2);
    put(8, static_cast<unsigned>(civil.day()), 2);
    put(11, secondOfDay / 3600, 2);
    put(14, secondOfDay / 60 % 60, 2);
    put(17, secondOfDay % 60, 2);
    text.assign(digits, sizeof digits - 1);
  } else {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02lld:%02lld:%02lld", year,
                  static_cast<unsigned>(civil.month()), static_cast<unsigned>(civil.day()), secondOfDay / 3600,
                  secondOfDay / 60 % 60, secondOfDay % 60);
    text = buffer;
  }
  if (fraction > 0) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.6f", fraction);
    std::string decimals = digits + 1;  // ".xxxxxx"
    while (decimals.size() > 2 && decimals.back() == '0') decimals.pop_back();
    if (decimals != ".0" && decimals != ".000000") text += decimals;
  }
  text += 'Z';
  return text;
}

std::ostream& operator<<(std::ostream& out, Date date) { return out << date.iso8601(); }

}  // namespace vesp::platform
