#include "coding/ParserSupport.hpp"

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/serializer.hpp>
#include <boost/json/value_stack.hpp>
#include <fmt/format.h>

namespace corvane::coding::detail {
namespace {

std::string_view kindName(const boost::json::value& v) noexcept {
  switch (v.kind()) {
    case boost::json::kind::null:
      return "null";
    case boost::json::kind::bool_:
      return "a boolean";
    case boost::json::kind::int64:
    case boost::json::kind::uint64:
    case boost::json::kind::double_:
      return "a number";
    case boost::json::kind::string:
      return "a string";
    case boost::json::kind::array:
      return "an array";
    case boost::json::kind::object:
      return "an object";
  }
  return "an unknown value";
}

// Builds a document like boost::json::parser does, except that floating-point numbers are read
// by `NumberText`.
class DocumentBuilder {
 public:
  static constexpr std::size_t max_object_size = boost::json::object::max_size();
  static constexpr std::size_t max_array_size = boost::json::array::max_size();
  static constexpr std::size_t max_key_size = boost::json::string::max_size();
  static constexpr std::size_t max_string_size = boost::json::string::max_size();

  explicit DocumentBuilder(boost::json::storage_ptr storage) : storage_(std::move(storage)) {}

  boost::json::value release() { return stack_.release(); }

  bool on_document_begin(boost::system::error_code& /*ec*/) {
    stack_.reset(storage_);
    return true;
  }
  bool on_document_end(boost::system::error_code& /*ec*/) { return true; }
  bool on_object_begin(boost::system::error_code& /*ec*/) { return true; }
  bool on_object_end(std::size_t n, boost::system::error_code& /*ec*/) {
    stack_.push_object(n);
    return true;
  }
  bool on_array_begin(boost::system::error_code& /*ec*/) { return true; }
  bool on_array_end(std::size_t n, boost::system::error_code& /*ec*/) {
    stack_.push_array(n);
    return true;
  }
  bool on_key_part(std::string_view s, std::size_t /*n*/, boost::system::error_code& /*ec*/) {
    stack_.push_chars(s);
    return true;
  }
  bool on_key(std::string_view s, std::size_t /*n*/, boost::system::error_code& /*ec*/) {
    stack_.push_key(s);
    return true;
  }
  bool on_string_part(std::string_view s, std::size_t /*n*/, boost::system::error_code& /*ec*/) {
    stack_.push_chars(s);
    return true;
  }
  bool on_string(std::string_view s, std::size_t /*n*/, boost::system::error_code& /*ec*/) {
    stack_.push_string(s);
    return true;
  }
  bool on_number_part(std::string_view s, boost::system::error_code& /*ec*/) {
    number_.append(s);
    return true;
  }
  bool on_int64(std::int64_t i, std::string_view /*s*/, boost::system::error_code& /*ec*/) {
    number_.clear();
    stack_.push_int64(i);
    return true;
  }
  bool on_uint64(std::uint64_t u, std::string_view /*s*/, boost::system::error_code& /*ec*/) {
    number_.clear();
    stack_.push_uint64(u);
    return true;
  }
  bool on_double(double d, std::string_view s, boost::system::error_code& /*ec*/) {
    stack_.push_double(number_.finish(s, d));
    return true;
  }
  bool on_bool(bool b, boost::system::error_code& /*ec*/) {
    stack_.push_bool(b);
    return true;
  }
  bool on_null(boost::system::error_code& /*ec*/) {
    stack_.push_null();
    return true;
  }
  bool on_comment_part(std::string_view /*s*/, boost::system::error_code& /*ec*/) { return true; }
  bool on_comment(std::string_view /*s*/, boost::system::error_code& /*ec*/) { return true; }

 private:
  boost::json::storage_ptr storage_;  // where the document's values live
  boost::json::value_stack stack_;    // scratch space while building
  NumberText number_;
};

}  // namespace
}  // namespace corvane::coding::detail

namespace corvane::coding {

boost::json::value parseDocument(std::string_view text, boost::json::storage_ptr storage) {
  boost::json::basic_parser<detail::DocumentBuilder> parser(detail::documentParseOptions(),
                                                            std::move(storage));
  boost::system::error_code ec;
  const std::size_t used = parser.write_some(false, text.data(), text.size(), ec);
  if (!ec && used != text.size()) ec = boost::json::error::extra_data;
  if (ec) {
    throw CodingError(
        CodingError::Kind::dataCorrupted, "",
        fmt::format("The given data was not a valid JSON document: {}.", ec.message()));
  }
  return parser.handler().release();
}

}  // namespace corvane::coding

namespace corvane::coding::detail {

void throwError(CodingError::Kind kind, const CodingPath& path, std::string description) {
  throw CodingError(kind, path.toString(), std::move(description));
}

void throwTypeMismatch(std::string_view expected, const boost::json::value& found,
                       const CodingPath& path) {
  const auto kind =
      found.is_null() ? CodingError::Kind::valueNotFound : CodingError::Kind::typeMismatch;
  throwError(kind, path,
             fmt::format("Expected {} but found {} instead.", expected, kindName(found)));
}

void throwInvalidNumberOfKeys(const CodingPath& path) {
  throwError(CodingError::Kind::typeMismatch, path, "Invalid number of keys found, expected one.");
}

void throwUnknownRawValue(std::string_view found, const CodingPath& path) {
  throwError(CodingError::Kind::dataCorrupted, path,
             fmt::format("Cannot initialize from invalid raw value \"{}\".", found));
}

void throwUnknownRawValue(std::int64_t found, const CodingPath& path) {
  throwError(CodingError::Kind::dataCorrupted, path,
             fmt::format("Cannot initialize from invalid raw value {}.", found));
}

const boost::json::object& expectObject(const boost::json::value& in, const CodingPath& path) {
  if (!in.is_object()) throwTypeMismatch("an object", in, path);
  return in.get_object();
}

const boost::json::array& expectArray(const boost::json::value& in, const CodingPath& path) {
  if (!in.is_array()) throwTypeMismatch("an array", in, path);
  return in.get_array();
}

std::int64_t decodeInt64(const boost::json::value& in, const CodingPath& path) {
  if (in.is_int64()) return in.get_int64();
  if (in.is_uint64()) {
    if (in.get_uint64() <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(in.get_uint64());
    }
    throwError(CodingError::Kind::typeMismatch, path,
               fmt::format("Number {} does not fit a signed 64-bit integer.", in.get_uint64()));
  }
  if (in.is_double()) {
    // An integral double within range (1e3, 5.0) is accepted as the integer it denotes. -2^63 is
    // not: it is also the nearest double to the integers up to 1,024 below the range, so it
    // cannot tell whether the text was in range (the minimum itself arrives as an int64).
    const double d = in.get_double();
    if (std::trunc(d) == d && d > -9223372036854775808.0 && d < 9223372036854775808.0) {
      return static_cast<std::int64_t>(d);
    }
    throwError(CodingError::Kind::typeMismatch, path,
               fmt::format("Number {} is not a signed 64-bit integer.", d));
  }
  throwTypeMismatch("an integer", in, path);
}

std::uint64_t decodeUInt64(const boost::json::value& in, const CodingPath& path) {
  if (in.is_uint64()) return in.get_uint64();
  if (in.is_int64()) {
    if (in.get_int64() >= 0) return static_cast<std::uint64_t>(in.get_int64());
    throwError(CodingError::Kind::typeMismatch, path,
               fmt::format("Number {} does not fit an unsigned 64-bit integer.", in.get_int64()));
  }
  if (in.is_double()) {
    const double d = in.get_double();
    if (std::trunc(d) == d && d >= 0.0 && d < 18446744073709551616.0) {
      return static_cast<std::uint64_t>(d);
    }
    throwError(CodingError::Kind::typeMismatch, path,
               fmt::format("Number {} is not an unsigned 64-bit integer.", d));
  }
  throwTypeMismatch("an integer", in, path);
}

double decodeDouble(const boost::json::value& in, const CodingPath& path) {
  if (in.is_double()) {
    const double d = in.get_double();
    // The parser turns numbers beyond the double range into infinities.
    if (!std::isfinite(d)) {
      throwError(CodingError::Kind::dataCorrupted, path, "Number does not fit a double.");
    }
    return d;
  }
  if (in.is_int64()) return static_cast<double>(in.get_int64());
  if (in.is_uint64()) return static_cast<double>(in.get_uint64());
  throwTypeMismatch("a number", in, path);
}

void encodeDouble(double value, boost::json::value& out) {
  if (!std::isfinite(value)) {
    throw CodingError(CodingError::Kind::invalidValue, "",
                      fmt::format("Unable to encode the non-finite number {} in JSON.", value));
  }
  out = value;
}

const boost::json::value* find(const boost::json::object& object, std::string_view key) noexcept {
  return object.if_contains(key);
}

Bytes serialize(const boost::json::value& envelope) {
  boost::json::serializer serializer;
  serializer.reset(&envelope);
  std::vector<std::byte> out;
  char chunk[4096];
  while (!serializer.done()) {
    const std::string_view piece = serializer.read(chunk, sizeof chunk);
    const auto* bytes = reinterpret_cast<const std::byte*>(piece.data());  // NOLINT: byte view
    out.insert(out.end(), bytes, bytes + piece.size());
  }
  return Bytes(std::move(out));
}

namespace {
std::string_view textOf(std::span<const std::byte> buffer) noexcept {
  return {reinterpret_cast<const char*>(buffer.data()), buffer.size()};  // NOLINT: byte view
}
}  // namespace

boost::json::value parseEnvelope(std::span<const std::byte> buffer,
                                 boost::json::storage_ptr storage, std::size_t expected) {
  boost::json::value document = parseDocument(textOf(buffer), std::move(storage));
  const CodingPath root;
  const auto& list = expectArray(document, root);
  if (list.size() < expected) {
    const CodingPath missing(root, list.size());
    throwError(CodingError::Kind::valueNotFound, missing,
               fmt::format("Expected {} values but the list holds {}.", expected, list.size()));
  }
  return document;
}

}  // namespace corvane::coding::detail
