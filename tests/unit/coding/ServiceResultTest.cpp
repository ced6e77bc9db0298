#include "support/Json.hpp"

#include <corvane/coding/ServiceResult.hpp>
#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/coding/TetherEncoder.hpp>

#include <boost/describe/class.hpp>
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
      {TetherEncoder::encode(ServiceResult<None>::failure(CorvaneError::networkError,
                                                          "no.such.app is not installed")),
       R"([{"failure": {"_0": {"networkError": {}}, "reason": "no.such.app is not installed"}}])"},
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

/// The failure case as a peer that does not know of reasons declares it.
struct PlainFailure {
  static constexpr std::string_view caseName = "failure";
  CorvaneError _0{CorvaneError::unrecoverableError};
  BOOST_DESCRIBE_CLASS(PlainFailure, (), (_0), (), ())
};

TEST(ServiceResult, AReasonReachesTheErrorAndAPlainDecoderIgnoresIt) {
  constexpr std::string_view withReason =
      R"([{"failure": {"_0": {"deviceNotManaged": {}}, "reason": "unknown declaration D-x"}}])";
  // Both ways of decoding (straight from the text, and through a tree of values) agree.
  const Bytes buffer = bytesOf(withReason);
  const auto direct = coding::detail::decodeDirectly<ServiceResult<None>>(buffer.span());
  ASSERT_TRUE(direct.has_value());
  const auto [tree] = coding::detail::decodeFromTree<ServiceResult<None>>(buffer.span());
  EXPECT_EQ(std::get<0>(*direct), tree);
  EXPECT_EQ(tree.reason(), std::optional<std::string>("unknown declaration D-x"));
  try {
    (void)ServiceResult<None>(tree).valueOrThrow();
    FAIL() << "a failure must raise";
  } catch (const Error& e) {
    EXPECT_EQ(e.error(), CorvaneError::deviceNotManaged);
    EXPECT_EQ(e.cause(), "unknown declaration D-x");
    EXPECT_EQ(std::string(e.what()),
              localizedDescription(CorvaneError::deviceNotManaged) + " (unknown declaration D-x)");
  }
  // A peer that knows only the plain envelope reads the same error kind.
  const auto [plain] = TetherDecoder<PlainFailure>::decode(
      bytesOf(R"([{"_0": {"deviceNotManaged": {}}, "reason": "unknown declaration D-x"}])"));
  EXPECT_EQ(plain._0, CorvaneError::deviceNotManaged);
  // And a plain envelope decodes as before: no reason.
  EXPECT_EQ(decodeReply<None>(R"([{"failure": {"_0": {"networkError": {}}}}])").reason(),
            std::nullopt);
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
      {R"([{"failure": {"_0": {"networkError": {}}, "reason": 7}}])",
       CodingError::Kind::typeMismatch, "[0].failure.reason"},
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
