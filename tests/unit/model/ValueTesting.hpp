#pragma once

// Helpers for the value tests: decode a hand-written document as a type, encode a value back,
// and capture the CodingError a document produces.

#include "support/Json.hpp"

#include <corvane/coding/Coding.hpp>
#include <corvane/coding/CodingError.hpp>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace corvane::testing {

using Kind = CodingError::Kind;

template <class T>
T decodeJson(std::string_view document) {
  return coding::decode<T>(parseJson(document));
}

/// Decodes `document` as T and encodes the result again.
template <class T>
boost::json::value reencode(std::string_view document) {
  return coding::encode(decodeJson<T>(document));
}

/// What a failed decoding reported.
struct Failure {
  Kind kind;
  std::string path;
  std::string description;
  friend bool operator==(const Failure&, const Failure&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Failure& f) {
    return out << toString(f.kind) << " at \"" << f.path << "\": " << f.description;
  }
};

/// The failure of decoding `document` as T; a test failure when it decodes.
template <class T>
Failure failureOf(std::string_view document) {
  try {
    (void)decodeJson<T>(document);
  } catch (const CodingError& e) {
    return {e.kind(), e.codingPath(), e.description()};
  }
  ADD_FAILURE() << "expected a CodingError for " << document;
  return {Kind::invalidValue, "<decoded>", ""};
}

inline constexpr std::string_view oneKeyExpected = "Invalid number of keys found, expected one.";

}  // namespace corvane::testing
