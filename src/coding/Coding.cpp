#include <corvane/coding/Coding.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <boost/json/parse.hpp>
#include <boost/json/serializer.hpp>
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

// Deep enough for every document of the protocol (recursive app states included), shallow enough
// that decoding recursion can never exhaust a thread's stack.
constexpr std::size_t maxDocumentDepth = 128;

}  // namespace

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
    // An integral double within range (1e3, 5.0) is accepted as the integer it denotes.
    const double d = in.get_double();
    if (std::trunc(d) == d && d >= -9223372036854775808.0 && d < 9223372036854775808.0) {
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

const boost::json::array& parseEnvelope(std::span<const std::byte> buffer,
                                        boost::json::value& document,
                                        boost::json::storage_ptr storage, std::size_t expected) {
  boost::json::parse_options options;
  options.max_depth = maxDocumentDepth;
  boost::system::error_code ec;
  const std::string_view text(reinterpret_cast<const char*>(buffer.data()),  // NOLINT: byte view
                              buffer.size());
  document = boost::json::parse(text, ec, std::move(storage), options);
  const CodingPath root;
  if (ec) {
    throwError(CodingError::Kind::dataCorrupted, root,
               fmt::format("The given data was not a valid JSON document: {}.", ec.message()));
  }
  const auto& list = expectArray(document, root);
  if (list.size() < expected) {
    const CodingPath missing(root, list.size());
    throwError(CodingError::Kind::valueNotFound, missing,
               fmt::format("Expected {} values but the list holds {}.", expected, list.size()));
  }
  return list;
}

}  // namespace corvane::coding::detail
