#include <corvane/coding/WireTypes.hpp>

#include <boost/url/parse.hpp>
#include <fmt/format.h>

#include <array>
#include <cstdint>
#include <limits>

namespace corvane::coding {
namespace {

constexpr std::string_view upperHex = "0123456789ABCDEF";

int hexDigit(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Reads `count` decimal digits at `pos`; false when any is not a digit.
bool readNumber(std::string_view text, std::size_t pos, std::size_t count, int& out) noexcept {
  if (pos + count > text.size()) return false;
  out = 0;
  for (std::size_t i = pos; i < pos + count; ++i) {
    if (!isDigit(text[i])) return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

bool expectChar(std::string_view text, std::size_t pos, char c) noexcept {
  return pos < text.size() && text[pos] == c;
}

// The times RFC 3339 can write in UTC: years 0000 to 9999.
constexpr TimePoint firstWritable{std::chrono::sys_days{std::chrono::year{0} / 1 / 1}};
constexpr TimePoint pastLastWritable{std::chrono::sys_days{std::chrono::year{10000} / 1 / 1}};

// Every date-time that can be read, offsets of a day either way and leap seconds included, is a
// TimePoint, so reading needs no range check.
static_assert(TimePoint::min() < firstWritable - std::chrono::days{1}
              && pastLastWritable + std::chrono::days{1} < TimePoint::max());

}  // namespace

std::string uuidString(const boost::uuids::uuid& value) {
  std::string out;
  out.reserve(36);
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    const auto byte = static_cast<unsigned>(value.data[i]);
    out.push_back(upperHex[byte >> 4U]);
    out.push_back(upperHex[byte & 0xFU]);
  }
  return out;
}

std::optional<boost::uuids::uuid> parseUuid(std::string_view text) noexcept {
  if (text.size() != 36) return std::nullopt;
  boost::uuids::uuid out{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    const int high = hexDigit(text[i]);
    const int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    out.data[byte++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return out;
}

std::string rfc3339String(TimePoint value) {
  using namespace std::chrono;
  if (value < firstWritable || value >= pastLastWritable) {
    throw CodingError(CodingError::Kind::invalidValue, "",
                      fmt::format("Unable to write the time {} microseconds from 1970 in RFC 3339: "
                                  "its year is outside 0000 to 9999.",
                                  value.time_since_epoch().count()));
  }
  const sys_days day = floor<days>(value);
  const year_month_day date(day);
  const hh_mm_ss<microseconds> time(value - day);
  std::string out =
      fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  time.hours().count(), time.minutes().count(), time.seconds().count());
  if (const auto fraction = time.subseconds().count(); fraction != 0) {
    std::string digits = fmt::format("{:06}", fraction);
    digits.erase(digits.find_last_not_of('0') + 1);
    out += '.';
    out += digits;
  }
  out += 'Z';
  return out;
}

std::optional<TimePoint> parseRfc3339(std::string_view text) noexcept {
  using namespace std::chrono;
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  if (!readNumber(text, 0, 4, y) || !expectChar(text, 4, '-') || !readNumber(text, 5, 2, mo)
      || !expectChar(text, 7, '-') || !readNumber(text, 8, 2, d)
      || !(expectChar(text, 10, 'T') || expectChar(text, 10, 't')) || !readNumber(text, 11, 2, h)
      || !expectChar(text, 13, ':') || !readNumber(text, 14, 2, mi) || !expectChar(text, 16, ':')
      || !readNumber(text, 17, 2, s)) {
    return std::nullopt;
  }
  std::size_t pos = 19;
  std::int64_t micros = 0;
  if (expectChar(text, pos, '.')) {
    ++pos;
    const std::size_t first = pos;
    std::int64_t scale = 100'000;
    while (pos < text.size() && isDigit(text[pos])) {
      // Digits beyond microseconds are read and dropped.
      micros += (text[pos] - '0') * scale;
      scale /= 10;
      ++pos;
    }
    if (pos == first) return std::nullopt;
  }
  int offsetMinutes = 0;
  if (expectChar(text, pos, 'Z') || expectChar(text, pos, 'z')) {
    ++pos;
  } else if (expectChar(text, pos, '+') || expectChar(text, pos, '-')) {
    const int sign = text[pos] == '-' ? -1 : 1;
    int oh = 0, om = 0;
    if (!readNumber(text, pos + 1, 2, oh) || !expectChar(text, pos + 3, ':')
        || !readNumber(text, pos + 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offsetMinutes = sign * (oh * 60 + om);
    pos += 6;
  } else {
    return std::nullopt;
  }
  // A leap second (60) is accepted as RFC 3339 allows and lands on the next minute.
  if (pos != text.size() || h > 23 || mi > 59 || s > 60) return std::nullopt;
  const year_month_day date{year(y), month(static_cast<unsigned>(mo)),
                            day(static_cast<unsigned>(d))};
  if (!date.ok()) return std::nullopt;
  const std::int64_t seconds = std::int64_t{sys_days(date).time_since_epoch().count()} * 86'400
                               + std::int64_t{h} * 3'600 + std::int64_t{mi} * 60 + s
                               - std::int64_t{offsetMinutes} * 60;
  return TimePoint(std::chrono::seconds(seconds) + microseconds(micros));
}

std::optional<boost::urls::url> parseUrl(std::string_view text) {
  auto parsed = boost::urls::parse_uri(text);
  if (!parsed) return std::nullopt;
  return boost::urls::url(*parsed);
}

void Coding<boost::uuids::uuid>::encode(const boost::uuids::uuid& value, boost::json::value& out) {
  out = uuidString(value);
}

boost::uuids::uuid Coding<boost::uuids::uuid>::decode(const boost::json::value& in,
                                                      const CodingPath& path) {
  if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
  const auto uuid = parseUuid(in.get_string());
  if (!uuid) {
    detail::throwError(CodingError::Kind::dataCorrupted, path,
                       fmt::format("Attempted to decode UUID from invalid UUID string \"{}\".",
                                   std::string_view(in.get_string())));
  }
  return *uuid;
}

void Coding<boost::urls::url>::encode(const boost::urls::url& value, boost::json::value& out) {
  out = value.buffer();
}

boost::urls::url Coding<boost::urls::url>::decode(const boost::json::value& in,
                                                  const CodingPath& path) {
  if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
  auto url = parseUrl(in.get_string());
  if (!url) {
    detail::throwError(
        CodingError::Kind::dataCorrupted, path,
        fmt::format("Invalid URL string \"{}\".", std::string_view(in.get_string())));
  }
  return std::move(*url);
}

void Coding<TimePoint>::encode(TimePoint value, boost::json::value& out) {
  out = rfc3339String(value);
}

TimePoint Coding<TimePoint>::decode(const boost::json::value& in, const CodingPath& path) {
  if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
  const auto value = parseRfc3339(in.get_string());
  if (!value) {
    detail::throwError(CodingError::Kind::dataCorrupted, path,
                       fmt::format("Expected date string to be RFC 3339-formatted, found \"{}\".",
                                   std::string_view(in.get_string())));
  }
  return *value;
}

}  // namespace corvane::coding
