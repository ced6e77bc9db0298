#include "unit/model/ValueTesting.hpp"

#include <corvane/push/LogKey.hpp>

#include <fmt/format.h>

namespace corvane::testing {
namespace {

using Prefix = LogKey::Prefix;
using Representation = LogKey::Representation;

TEST(LogKey, PrefixedKeysRenderAsUpperCaseHexWithoutLeadingZeros) {
  const std::vector<std::tuple<Prefix, std::uint32_t, std::string_view>> table = {
      {Prefix::general, 256, "GEN100"},
      {Prefix::vpp, 171, "VPPAB"},
      {Prefix::cvnctl, 0, "CVNCTL0"},
      {Prefix::ddm, 255, "DDMFF"},
      {Prefix::unknown, 0xFFFFFFFF, "???FFFFFFFF"},
      {Prefix::appReview, 0x1A, "APR1A"},
  };
  for (const auto& [prefix, number, text] : table) {
    const LogKey key(Representation::prefixed(prefix, number));
    EXPECT_EQ(key.description(), text);
    EXPECT_EQ(fmt::format("{}", key), text);
  }
  EXPECT_EQ(LogKey(Representation::text("anything at all")).description(), "anything at all");
}

TEST(LogKey, PrefixRawValuesAndDescriptions) {
  const std::vector<std::tuple<Prefix, std::string_view, std::string_view>> table = {
      {Prefix::general, "GEN", "General"},   {Prefix::vpp, "VPP", "VPP"},
      {Prefix::manifest, "MAN", "Manifest"}, {Prefix::ddm, "DDM", "DDM"},
      {Prefix::update, "UPD", "UPD"},        {Prefix::edp, "EDP", "EDP"},
      {Prefix::unknown, "???", "???"},       {Prefix::appReview, "APR", "App Review"},
      {Prefix::cvnctl, "CVNCTL", "cvnctl"},
  };
  for (const auto& [prefix, raw, text] : table) {
    EXPECT_EQ(rawValue(prefix), raw);
    EXPECT_EQ(description(prefix), text);
    EXPECT_EQ(logKeyPrefix(raw), prefix);
  }
  EXPECT_FALSE(logKeyPrefix("gen"));
  EXPECT_FALSE(logKeyPrefix("GEN "));
  EXPECT_FALSE(logKeyPrefix(""));
  EXPECT_NE(std::hash<Prefix>{}(Prefix::vpp), std::hash<Prefix>{}(Prefix::ddm));
}

TEST(LogKey, CodedAsTextAndDecodedAsATextKey) {
  const LogKey key(Representation::prefixed(Prefix::vpp, 171));
  EXPECT_EQ(coding::encode(key), parseJson(R"("VPPAB")"));
  const auto decoded = decodeJson<LogKey>(R"("VPPAB")");
  EXPECT_EQ(decoded.representation, Representation::text("VPPAB"));
  EXPECT_EQ(decoded.description(), key.description());
  EXPECT_EQ(failureOf<LogKey>("171").kind, Kind::typeMismatch);
}

TEST(LogKey, RandomKeysCarryThePrefix) {
  const LogKey a(Prefix::manifest);
  const LogKey b(Prefix::manifest);
  EXPECT_TRUE(a.description().starts_with("MAN"));
  const auto& prefixed = std::get<Representation::Prefixed>(a.representation.cases());
  EXPECT_EQ(prefixed.prefix, Prefix::manifest);
  // Different with overwhelming likelihood (a 2^-32 chance of a false failure).
  EXPECT_NE(a, b);
}

}  // namespace
}  // namespace corvane::testing
