#pragma once

// Helpers that compare buffers structurally: both sides parsed, never compared as strings.

#include <corvane/base/Bytes.hpp>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include <string_view>

namespace corvane::testing {

inline boost::json::value parseJson(std::string_view text) {
  return boost::json::parse(text);
}
inline boost::json::value parseJson(const Bytes& buffer) {
  return boost::json::parse(buffer.view());
}
inline Bytes bytesOf(std::string_view text) {
  return Bytes(text);
}

}  // namespace corvane::testing
