#include "coding/ParserSupport.hpp"

#include <corvane/coding/detail/Tape.hpp>

#include <boost/json/array.hpp>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>

#include <array>
#include <functional>
#include <limits>

namespace corvane::coding::detail {
namespace {

// Writes the tokens of a document as the parser reports them.
class TapeBuilder {
 public:
  // The limits of a tree of values, so that the same texts are accepted.
  static constexpr std::size_t max_object_size = boost::json::object::max_size();
  static constexpr std::size_t max_array_size = boost::json::array::max_size();
  static constexpr std::size_t max_key_size = boost::json::string::max_size();
  static constexpr std::size_t max_string_size = boost::json::string::max_size();
  static_assert(max_object_size <= std::numeric_limits<std::uint32_t>::max()
                && max_array_size <= std::numeric_limits<std::uint32_t>::max());

  TapeBuilder(std::string_view text, std::vector<Tape::Token>& tokens, std::string& strings)
      : text_(text), tokens_(tokens), strings_(strings) {}

  bool on_document_begin(boost::system::error_code& /*ec*/) { return true; }
  bool on_document_end(boost::system::error_code& /*ec*/) { return true; }
  bool on_object_begin(boost::system::error_code& ec) { return open(Tape::Kind::object, ec); }
  bool on_object_end(std::size_t n, boost::system::error_code& /*ec*/) { return close(n); }
  bool on_array_begin(boost::system::error_code& ec) { return open(Tape::Kind::array, ec); }
  bool on_array_end(std::size_t n, boost::system::error_code& /*ec*/) { return close(n); }
  bool on_key_part(std::string_view s, std::size_t /*n*/, boost::system::error_code& ec) {
    return keep(s, ec);
  }
  bool on_key(std::string_view s, std::size_t /*n*/, boost::system::error_code& ec) {
    return text(Tape::Kind::key, s, ec);
  }
  bool on_string_part(std::string_view s, std::size_t /*n*/, boost::system::error_code& ec) {
    return keep(s, ec);
  }
  bool on_string(std::string_view s, std::size_t /*n*/, boost::system::error_code& ec) {
    return text(Tape::Kind::string, s, ec);
  }
  bool on_number_part(std::string_view s, boost::system::error_code& /*ec*/) {
    number_.append(s);
    return true;
  }
  bool on_int64(std::int64_t i, std::string_view /*s*/, boost::system::error_code& /*ec*/) {
    number_.clear();
    return scalar(Tape::Kind::int64, std::bit_cast<std::uint64_t>(i));
  }
  bool on_uint64(std::uint64_t u, std::string_view /*s*/, boost::system::error_code& /*ec*/) {
    number_.clear();
    return scalar(Tape::Kind::uint64, u);
  }
  bool on_double(double d, std::string_view s, boost::system::error_code& /*ec*/) {
    return scalar(Tape::Kind::double_, std::bit_cast<std::uint64_t>(number_.finish(s, d)));
  }
  bool on_bool(bool b, boost::system::error_code& /*ec*/) {
    return scalar(Tape::Kind::bool_, b ? 1 : 0);
  }
  bool on_null(boost::system::error_code& /*ec*/) { return scalar(Tape::Kind::null, 0); }
  bool on_comment_part(std::string_view /*s*/, boost::system::error_code& /*ec*/) { return true; }
  bool on_comment(std::string_view /*s*/, boost::system::error_code& /*ec*/) { return true; }

 private:
  bool open(Tape::Kind kind, boost::system::error_code& ec) {
    // The parser's depth limit keeps this within bounds; checked all the same.
    if (depth_ == open_.size()) {
      ec = boost::json::error::too_deep;
      return false;
    }
    open_[depth_++] = tokens_.size();
    tokens_.push_back({kind, 0, 0, {}, 0});  // completed by close()
    return true;
  }
  bool close(std::size_t n) {
    Tape::Token& container = tokens_[open_[--depth_]];
    container.size = static_cast<std::uint32_t>(n);
    container.next = tokens_.size();
    return true;
  }
  bool scalar(Tape::Kind kind, std::uint64_t bits) {
    tokens_.push_back({kind, 0, tokens_.size() + 1, {}, bits});
    return true;
  }
  // Appends to the text in progress; reserved to the whole text's size at first use, so that it
  // never moves (no unescaped text is longer than the text it comes from).
  bool keep(std::string_view s, boost::system::error_code& ec) {
    if (strings_.capacity() < text_.size()) strings_.reserve(text_.size());
    if (s.size() > strings_.capacity() - strings_.size()) {
      ec = boost::json::error::string_too_large;
      return false;
    }
    strings_.append(s);
    return true;
  }
  bool text(Tape::Kind kind, std::string_view last, boost::system::error_code& ec) {
    // A text in one piece inside the document (no escapes) is used where it stands.
    if (textStart_ == strings_.size() && inDocument(last)) {
      tokens_.push_back({kind, 0, tokens_.size() + 1, last, 0});
      return true;
    }
    return keptText(kind, last, ec);
  }
  [[gnu::noinline]] bool keptText(Tape::Kind kind, std::string_view last,
                                  boost::system::error_code& ec) {
    if (!keep(last, ec)) return false;
    const std::string_view whole(strings_.data() + textStart_, strings_.size() - textStart_);
    textStart_ = strings_.size();
    tokens_.push_back({kind, 0, tokens_.size() + 1, whole, 0});
    return true;
  }
  [[nodiscard]] bool inDocument(std::string_view s) const noexcept {
    const std::less_equal<const char*> notAfter;
    return notAfter(text_.data(), s.data())
           && notAfter(s.data() + s.size(), text_.data() + text_.size());
  }

  std::string_view text_;
  std::vector<Tape::Token>& tokens_;
  std::string& strings_;
  std::size_t textStart_ = 0;
  std::array<std::size_t, 130> open_{};  // the containers not yet closed
  std::size_t depth_ = 0;
  NumberText number_;
};

}  // namespace

bool Tape::parse(std::string_view text) {
  tokens_.clear();
  // A guess that fits most documents without growing (a token of a reply takes about ten
  // characters).
  tokens_.reserve(text.size() / 8 + 16);
  strings_.clear();
  boost::json::basic_parser<TapeBuilder> parser(documentParseOptions(), text, tokens_, strings_);
  boost::system::error_code ec;
  const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
  return !ec && used == text.size();
}

}  // namespace corvane::coding::detail
