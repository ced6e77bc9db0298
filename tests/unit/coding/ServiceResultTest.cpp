#include "support/Json.hpp"

#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <gtest/gtest.h>

#include <unordered_set>

namespace corvane::testing {
namespace {

using Strings = std::vector<std::string>;

template <class V>
ServiceResult<V> decodeReply(std::string_view document) {
  return std::get<0>(TetherDecoder<ServiceResult<V>>::decode(bytesOf(document)));
}

TEST(ServiceResult, ShapesOfTheReplyEnvelope) {
  struct Case {
    Bytes buffer;
    const char* expected;
  };
  Case cases[] = {
      {TetherEncoder::encode(ServiceResult<Strings>::success({"k1", "k2"})),
       R"([{"success": {"_0": ["k1", "k2"]}}])"},
      {TetherEncoder::encode(ServiceResult<Strings>::failure(CorvaneError::deviceNotManaged)),
       R"([{"failure": {"_0": {"deviceNotManaged": {}}}}])"},
      {TetherEncoder::encode(ServiceResult<None>::success({})), R"([{"success": {"_0": null}}])"},
      {TetherEncoder::encode(ServiceResult<Strings>::success({})), R"([{"success": {"_0": []}}])"},
  };
  for (const auto& c : cases) EXPECT_EQ(parseJson(c.buffer), parseJson(c.expected));
}

TEST(ServiceResult, EveryErrorKindRoundTripsAsItsCaseName) {
  for (auto error : {CorvaneError::unrecoverableError, CorvaneError::networkError,
                     CorvaneError::deviceNotManaged, CorvaneError::unsupportedPlatform}) {
    const Bytes buffer = TetherEncoder::encode(error);
    boost::json::object expected;
    expected[caseName(error)].emplace_object();
    EXPECT_EQ(parseJson(buffer).as_array().at(0), boost::json::value(expected));
    EXPECT_EQ(std::get<0>(TetherDecoder<CorvaneError>::decode(buffer)), error);
  }
}

TEST(ServiceResult, DecodedFailureRaisesTheDaemonsError) {
  auto result = decodeReply<Strings>(R"([{"failure": {"_0": {"networkError": {}}}}])");
  ASSERT_EQ(result.error(), CorvaneError::networkError);
  try {
    (void)std::move(result).valueOrThrow();
    FAIL() << "a failure must raise";
  } catch (const Error& e) {
    EXPECT_EQ(e.error(), CorvaneError::networkError);
    EXPECT_EQ(e.code(), make_error_code(CorvaneError::networkError));
    EXPECT_EQ(e.code(), CorvaneError::networkError);
  }
}

TEST(ServiceResult, SuccessYieldsTheValue) {
  EXPECT_EQ(decodeReply<Strings>(R"([{"success": {"_0": ["a"]}}])").valueOrThrow(), Strings{"a"});
  EXPECT_EQ(decodeReply<None>(R"([{"success": {"_0": null}}])").valueOrThrow(), None{});
}

TEST(ServiceResult, MalformedRepliesFailToDecode) {
  struct Case {
    const char* document;
    CodingError::Kind kind;
    const char* path;
  };
  const Case cases[] = {
      {R"([{"success": {}}])", CodingError::Kind::keyNotFound, "[0].success"},
      {R"([{"success": {"_0": 1}}])", CodingError::Kind::typeMismatch, "[0].success._0"},
      {R"([{"success": {"_0": null}, "failure": {"_0": {"networkError": {}}}}])",
       CodingError::Kind::typeMismatch, "[0]"},
      {R"([{"failure": {"_0": {"networkError": {}, "deviceNotManaged": {}}}}])",
       CodingError::Kind::typeMismatch, "[0].failure._0"},
      {R"([{"failure": {"_0": {"somethingElse": {}}}}])", CodingError::Kind::typeMismatch,
       "[0].failure._0"},
  };
  for (const auto& c : cases) {
    try {
      (void)decodeReply<None>(c.document);
      ADD_FAILURE() << c.document;
    } catch (const CodingError& e) {
      EXPECT_EQ(e.kind(), c.kind) << c.document << ": " << e.what();
      EXPECT_EQ(e.codingPath(), c.path) << c.document;
    }
  }
}

TEST(CorvaneErrorMapping, AnythingButACorvaneErrorIsUnrecoverable) {
  EXPECT_EQ(toCorvaneError(std::make_exception_ptr(Error(CorvaneError::unsupportedPlatform))),
            CorvaneError::unsupportedPlatform);
  EXPECT_EQ(toCorvaneError(std::make_exception_ptr(std::runtime_error("x"))),
            CorvaneError::unrecoverableError);
  EXPECT_EQ(toCorvaneError(
                std::make_exception_ptr(CodingError(CodingError::Kind::dataCorrupted, "", "bad"))),
            CorvaneError::unrecoverableError);
  EXPECT_EQ(toCorvaneError(std::make_exception_ptr(42)), CorvaneError::unrecoverableError);
  EXPECT_EQ(toCorvaneError(nullptr), CorvaneError::unrecoverableError);
}

TEST(CorvaneErrorMapping, OffersNoRecovery) {
  const Error e(CorvaneError::networkError);
  EXPECT_TRUE(e.recoveryOptions().empty());
  EXPECT_FALSE(e.attemptRecovery(0));
  int calls = 0;
  e.attemptRecovery(0, [&](bool recovered) {
    EXPECT_FALSE(recovered);
    ++calls;
  });
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(e.failureReason() || e.recoverySuggestion() || e.helpAnchor());
  EXPECT_TRUE(static_cast<bool>(std::error_code(CorvaneError::unrecoverableError)));
  const std::unordered_set<CorvaneError> kinds{CorvaneError::networkError,
                                               CorvaneError::networkError};
  EXPECT_EQ(kinds.size(), 1U);
  EXPECT_EQ(fmt::format("{}", CorvaneError::deviceNotManaged), "deviceNotManaged");
}

}  // namespace
}  // namespace corvane::testing
