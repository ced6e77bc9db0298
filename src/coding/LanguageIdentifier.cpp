#include <corvane/coding/LanguageIdentifier.hpp>

#include <fmt/format.h>

#include <stdexcept>

namespace corvane {
namespace {

bool isAsciiLetter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isAsciiAlnum(char c) noexcept {
  return isAsciiLetter(c) || (c >= '0' && c <= '9');
}

}  // namespace

bool LanguageIdentifier::isValid(std::string_view text) noexcept {
  if (text.empty()) return false;
  bool first = true;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t end = std::min(text.find('-', start), text.size());
    const std::string_view subtag = text.substr(start, end - start);
    if (subtag.empty() || subtag.size() > 8) return false;
    for (char c : subtag) {
      if (first ? !isAsciiLetter(c) : !isAsciiAlnum(c)) return false;
    }
    // The primary subtag is a language (2 to 8 letters) or the single-letter private-use "x"
    // and legacy "i" prefixes.
    if (first && subtag.size() == 1 && subtag != "x" && subtag != "X" && subtag != "i"
        && subtag != "I") {
      return false;
    }
    first = false;
    start = end + 1;
  }
  return true;
}

LanguageIdentifier::LanguageIdentifier(std::string identifier)
    : identifier_(std::move(identifier)) {
  if (!isValid(identifier_)) {
    throw std::invalid_argument(fmt::format("\"{}\" is not a language identifier", identifier_));
  }
}

std::optional<LanguageIdentifier> LanguageIdentifier::parse(std::string_view text) {
  if (!isValid(text)) return std::nullopt;
  return LanguageIdentifier(Trusted{}, std::string(text));
}

namespace coding {

void Coding<LanguageIdentifier>::encode(const LanguageIdentifier& value, boost::json::value& out) {
  out = value.identifier();
}

LanguageIdentifier Coding<LanguageIdentifier>::decode(const boost::json::value& in,
                                                      const CodingPath& path) {
  if (!in.is_string()) detail::throwTypeMismatch("a string", in, path);
  auto value = LanguageIdentifier::parse(in.get_string());
  if (!value) {
    detail::throwError(
        CodingError::Kind::dataCorrupted, path,
        fmt::format("Invalid language identifier \"{}\".", std::string_view(in.get_string())));
  }
  return std::move(*value);
}

}  // namespace coding
}  // namespace corvane
