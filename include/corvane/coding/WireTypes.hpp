#pragma once

// The value types of the daemon's wire, fixed here for both sides:
//  - UUID: boost::uuids::uuid as its upper-case 36-character string;
//  - URL: boost::urls::url as its string (an absolute URI);
//  - point in time: `TimePoint`, system-clock microseconds, as an RFC 3339 string, written in UTC
//    with fractional seconds when there are any ("2026-11-22T10:00:00.5Z"), read with any offset
//    and every year from 0000 to 9999;
//  - language identifier and information storage: see their own headers.
// A malformed value fails decoding with a dataCorrupted CodingError at its coding path.

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/InformationStorage.hpp>
#include <corvane/coding/LanguageIdentifier.hpp>

#include <boost/url/url.hpp>
#include <boost/uuid/uuid.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// A point in time as the wire carries it. Microseconds, not the system clock's nanoseconds: a
/// 64-bit count of nanoseconds ends in 1677 and 2262, one of microseconds spans every year an RFC
/// 3339 date can name.
using TimePoint = std::chrono::sys_time<std::chrono::microseconds>;

namespace coding {

/// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F": the wire form of a UUID.
[[nodiscard]] std::string uuidString(const boost::uuids::uuid& value);
/// The UUID written in the standard 36-character form (either letter case); empty otherwise.
[[nodiscard]] std::optional<boost::uuids::uuid> parseUuid(std::string_view text) noexcept;
/// The RFC 3339 form in UTC, fractional seconds without trailing zeros ("...T10:00:00.5Z").
/// Throws `CodingError` (invalidValue) for a time whose year in UTC is outside 0000 to 9999,
/// which the form cannot write.
[[nodiscard]] std::string rfc3339String(TimePoint value);
/// The point in time an RFC 3339 date-time denotes (any offset, "T"/"t", "Z"/"z"); fractional
/// digits beyond microseconds are read and dropped. Empty for malformed text. Never throws.
[[nodiscard]] std::optional<TimePoint> parseRfc3339(std::string_view text) noexcept;
/// The URL when `text` is an absolute URI; empty otherwise. Never throws.
[[nodiscard]] std::optional<boost::urls::url> parseUrl(std::string_view text);

template <>
struct Coding<boost::uuids::uuid> {
  static void encode(const boost::uuids::uuid& value, boost::json::value& out);
  static boost::uuids::uuid decode(const boost::json::value& in, const CodingPath& path);
};

template <>
struct Coding<boost::urls::url> {
  static void encode(const boost::urls::url& value, boost::json::value& out);
  static boost::urls::url decode(const boost::json::value& in, const CodingPath& path);
};

template <>
struct Coding<TimePoint> {
  static void encode(TimePoint value, boost::json::value& out);
  static TimePoint decode(const boost::json::value& in, const CodingPath& path);
};

}  // namespace coding
}  // namespace corvane
