#pragma once

// How the tree decoder (Coding.cpp, `parseDocument`) parses a document: its depth limit and its
// reading of numbers. The direct reading (TextReader) reads numbers with std::from_chars too and
// stops at a shallower depth, leaving deeper documents to this parse.

#include <boost/json/basic_parser.hpp>

#include <charconv>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

namespace corvane::coding::detail {

/// The options of every document parse: deep enough for every document of the protocol
/// (recursive app states included), shallow enough that decoding recursion can never exhaust a
/// thread's stack.
inline boost::json::parse_options documentParseOptions() noexcept {
  boost::json::parse_options options;
  options.max_depth = 128;
  return options;
}

/// The text of one number as the parser hands it over (possibly in parts), turned into a double
/// by std::from_chars: Boost.JSON 1.81's own conversion is not always correctly rounded
/// (8.888888888888889E40 comes out one unit in the last place off), which would change values on
/// their way through the connection.
class NumberText {
 public:
  void append(std::string_view part) { text_.append(part); }
  /// Forgets the parts of a number the parser read as an integer.
  void clear() noexcept { text_.clear(); }
  /// The correctly rounded value of the number whose last part is `last`; the parser's own
  /// `parsed` when the text is out of range (an infinity or zero, which decoding rejects or
  /// accepts like any other value).
  double finish(std::string_view last, double parsed) {
    text_.append(last);
    double exact = 0;
    const char* end = text_.data() + text_.size();
    const auto [stop, ec] = std::from_chars(text_.data(), end, exact);
    text_.clear();
    return ec == std::errc() && stop == end ? exact : parsed;
  }

 private:
  std::string text_;
};

}  // namespace corvane::coding::detail
