#include <corvane/ipc/ConnectionError.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>

#include <gtest/gtest.h>

namespace corvane::ipc {
namespace {

TEST(InterfaceDescription, KnowsItsOperationsAndRefusesBadTables) {
  const InterfaceDescription description("Sample",
                                         {{"install:reply:", OperationShape::argumentAndReply},
                                          {"keysWithReply:", OperationShape::replyOnly},
                                          {"handleMessages:", OperationShape::oneWay}});
  EXPECT_EQ(description.size(), 3U);
  EXPECT_EQ(description.shape("keysWithReply:"), OperationShape::replyOnly);
  EXPECT_EQ(description.shape("handleMessages:"), OperationShape::oneWay);
  EXPECT_FALSE(description.shape("missing:").has_value());

  EXPECT_THROW(InterfaceDescription("Twice", {{"a:"}, {"a:"}}), std::invalid_argument);
  EXPECT_THROW(InterfaceDescription("Blank", {{"with space"}}), std::invalid_argument);
  EXPECT_THROW(InterfaceDescription("Empty", {{""}}), std::invalid_argument);
}

TEST(CallError, DescribesCodeAndReason) {
  const CallError error(ConnectionError::peerFault, "unknown operation x:");
  EXPECT_TRUE(error.is(ConnectionError::peerFault));
  EXPECT_EQ(error.code().category().name(), std::string("corvane.ipc"));
  EXPECT_EQ(fmt::format("{}", error), "the peer refused the call: unknown operation x:");
}

}  // namespace
}  // namespace corvane::ipc
