// The commands end to end through the shared connection, against an in-process daemon built on the
// facility's listener that records every buffer it receives and answers with scripted replies.
// Every case runs in each calling form: a callback, use_future, use_awaitable on an io_context,
// and (where the record has it) the synchronous twin.

#include "integration/ipc/IpcTestSupport.hpp"
#include "support/FakeDaemon.hpp"
#include "support/Json.hpp"
#include "unit/model/ValueTesting.hpp"

#include <corvane/Corvane.hpp>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <mutex>

namespace corvane::testing {
namespace {

namespace asio = boost::asio;
using ipc::testing::Counter;
using ipc::testing::TemporaryDirectory;

enum class Form { callback, future, awaitable, synchronous };

std::string formName(const ::testing::TestParamInfo<Form>& info) {
  switch (info.param) {
    case Form::callback:
      return "callback";
    case Form::future:
      return "future";
    case Form::awaitable:
      return "awaitable";
    case Form::synchronous:
      return "synchronous";
  }
  return "unknown";
}

/// What a call gave: its value or its failure.
template <class Value>
struct Outcome {
  std::exception_ptr failure;
  std::optional<Value> value;

  /// The failure as a `corvane::Error` (a copy).
  [[nodiscard]] Error error() const {
    try {
      std::rethrow_exception(failure);
    } catch (const Error& error) {
      return error;
    } catch (...) {
      ADD_FAILURE() << "the failure is not a corvane::Error";
      return Error(CorvaneError::unrecoverableError, "not a corvane::Error");
    }
  }
};

/// Runs `start(token)` in one asynchronous form, or `sync()`, and waits for the outcome.
template <class Value, class Start, class Sync>
Outcome<Value> run(Form form, Start start, Sync sync) {
  Outcome<Value> outcome;
  auto capture = [&](auto&& call) {
    try {
      if constexpr (std::is_same_v<Value, None>) {
        call();
        outcome.value.emplace();
      } else {
        outcome.value.emplace(call());
      }
    } catch (...) {
      outcome.failure = std::current_exception();
    }
  };
  switch (form) {
    case Form::callback: {
      std::promise<void> done;
      if constexpr (std::is_same_v<Value, None>) {
        start([&](std::exception_ptr failure) {
          if (failure) {
            outcome.failure = failure;
          } else {
            outcome.value.emplace();
          }
          done.set_value();
        });
      } else {
        start([&](std::exception_ptr failure, Value value) {
          if (failure) {
            outcome.failure = failure;
          } else {
            outcome.value.emplace(std::move(value));
          }
          done.set_value();
        });
      }
      EXPECT_EQ(done.get_future().wait_for(ipc::testing::bound), std::future_status::ready);
      break;
    }
    case Form::future: {
      auto future = start(asio::use_future);
      capture([&] { return future.get(); });
      break;
    }
    case Form::awaitable: {
      asio::io_context io;
      asio::co_spawn(
          io,
          [&]() -> asio::awaitable<void> {
            try {
              if constexpr (std::is_same_v<Value, None>) {
                co_await start(asio::use_awaitable);
                outcome.value.emplace();
              } else {
                outcome.value.emplace(co_await start(asio::use_awaitable));
              }
            } catch (...) {
              outcome.failure = std::current_exception();
            }
          },
          asio::detached);
      io.run();  // returns once the call is done: it counts as work until then
      break;
    }
    case Form::synchronous:
      capture(sync);
      break;
  }
  return outcome;
}

/// The declaration keys, asked for in one form.
Outcome<std::vector<std::string>> askForKeys(Form form) {
  const DDMDeclarationKeysRequest keys;
  return run<std::vector<std::string>>(
      form, [&](auto&& token) { return keys.perform(std::forward<decltype(token)>(token)); },
      [&] { return keys.performSynchronously(); });
}

/// One operation as a caller starts it: how to start it in each form and what the daemon must
/// receive.
struct Operation {
  std::string name;
  std::optional<std::string> argument;  // the document the daemon must receive; none: no buffer
  std::function<Outcome<None>(Form)> perform;
  bool hasSynchronousTwin = false;
};

template <class Request>
std::function<Outcome<None>(Form)> performer(Request request) {
  return [request](Form form) {
    return run<None>(
        form, [&](auto&& token) { return request.perform(std::forward<decltype(token)>(token)); },
        [&] {
          if constexpr (requires { request.performSynchronously(); }) {
            (void)request.performSynchronously();
          }
        });
  };
}

ManagedApp catalogueApp(std::optional<std::string> buyParams) {
  return ManagedApp("D7", "dev.corvane.notes", std::nullopt, std::nullopt, Platform(1),
                    std::nullopt, std::nullopt, "Notes", std::nullopt, std::nullopt, {},
                    std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                    std::nullopt, std::nullopt, {}, std::nullopt, std::nullopt, std::nullopt, false,
                    std::nullopt, std::move(buyParams));
}

std::vector<Operation> everyOperation() {
  const auto declaration = decodeJson<ManagedAppDeclaration>(R"({"declarationKey": "K",
      "declarationIdentifier": "I", "managementScope": {"system": {}},
      "installBehavior": {"installTiming": {"immediately": {}}, "isAccountPromptAllowed": false,
        "purchaseMethod": {"volumePurchaseProgram": {"_0": {"itemID": {"_0": 42}},
                                                     "license": {"device": {}}}}},
      "backupBehavior": {"backupAppData": true}, "updateBehavior": {"automaticallyUpdate": {}},
      "platform": 1})");
  const VPPInstallRequest vpp(StoreAppIdentifier::itemID(42),
                              VPPInstallRequest::RequestType::install, 7U, std::nullopt);
  const auto vppId = boost::uuids::to_string(vpp.id());
  const auto clientID = boost::uuids::string_generator()("0F0E0D0C-0B0A-0908-0706-050403020100");
  const std::vector registrations{MessageRegistration::appCatalog()};
  auto registration = [&](const ipc::Operation& operation) {
    return [operation, registrations, clientID](Form form) {
      auto body = [operation](const ServiceProtocol& proxy, Bytes argument, ipc::Completion reply) {
        (proxy.remote()).call(operation.name, std::move(argument), std::move(reply));
      };
      return run<None>(
          form,
          [&](auto&& token) {
            return ServiceConnection::withAsyncService<None>(
                std::tuple(registrations, clientID), body, std::forward<decltype(token)>(token));
          },
          [&] {
            ServiceConnection::withSyncService<None>(std::tuple(registrations, clientID), body);
          });
    };
  };
  using S = ServiceProtocol::Selectors;
  std::string upperVppId = vppId;
  std::transform(upperVppId.begin(), upperVppId.end(), upperVppId.begin(), ::toupper);
  return {
      {std::string(S::installManagedApp.name),
       R"([{"declarationIdentifier": "D7", "buyParams": "p=1", "userInitiated": true}])",
       [](Form form) {
         return run<None>(
             form,
             [](auto&& token) {
               return ManagedAppLibrary::shared().install(catalogueApp("p=1"),
                                                          std::forward<decltype(token)>(token));
             },
             [] {
               ManagedAppLibrary::shared().install(catalogueApp("p=1"), asio::use_future).get();
             });
       }},
      {std::string(S::installManagedApp.name), R"([{"userInitiated": true}])",
       [](Form form) {
         return run<None>(
             form,
             [](auto&& token) {
               return ManagedAppLibrary::shared().install(std::forward<decltype(token)>(token));
             },
             [] { ManagedAppLibrary::shared().install(asio::use_future).get(); });
       }},
      {std::string(S::cancelManagedApp.name), R"([{"declarationIdentifier": "D7"}])",
       [](Form form) {
         return run<None>(
             form,
             [](auto&& token) {
               return ManagedAppLibrary::shared().cancel(catalogueApp(std::nullopt),
                                                         std::forward<decltype(token)>(token));
             },
             [] {
               ManagedAppLibrary::shared()
                   .cancel(catalogueApp(std::nullopt), asio::use_future)
                   .get();
             });
       }},
      {std::string(S::handleLaunchAppRequest.name), R"(["dev.corvane.notes"])",
       performer(AppLaunchRequest{"dev.corvane.notes"})},
      {std::string(S::handleLaunchAppRequest.name), R"(["dev.corvane.notes"])",
       [](Form form) {
         return run<None>(
             form,
             [](auto&& token) {
               return catalogueApp(std::nullopt).launch(std::forward<decltype(token)>(token));
             },
             [] { catalogueApp(std::nullopt).launch(asio::use_future).get(); });
       }},
      {std::string(S::removeManagedAppWithDeclarationIdentifier.name), R"(["I"])",
       performer(DDMRemoveManagedAppRequest{"I"}), true},
      {std::string(S::handleVPPInstallRequest.name),
       fmt::format(
           R"([{{"id": "{}", "accountIdentifier": 7, "appIdentifier": {{"itemID": {{"_0": 42}}}},
                     "requestType": 1}}])",
           upperVppId),
       performer(vpp)},
      {std::string(S::resetManagedAppInstallHistory.name), std::nullopt,
       performer(DDMResetManagedAppInstallHistoryRequest{})},
      {std::string(S::pollForMediaAPIUpdates.name), std::nullopt,
       performer(DDMPollForUpdatesRequest{})},
      {std::string(S::installEnterpriseManifest.name),
       R"([{"manifestURL": "https://corvane.dev/app.plist"}])",
       performer(InstallEnterpriseManifestRequest(
           EnterpriseApp(boost::urls::url("https://corvane.dev/app.plist"))))},
      {std::string(S::addOrUpdateManagedApp.name),
       fmt::format(R"([{{"app": {}}}])", boost::json::serialize(coding::encode(declaration))),
       performer(DDMAppOrUpdateManagedAppRequest(declaration)), true},
      {std::string(S::addMessageRegistrations.name),
       R"([[{"appCatalog": {}}], "0F0E0D0C-0B0A-0908-0706-050403020100"])",
       registration(S::addMessageRegistrations), true},
      {std::string(S::removeMessageRegistrations.name),
       R"([[{"appCatalog": {}}], "0F0E0D0C-0B0A-0908-0706-050403020100"])",
       registration(S::removeMessageRegistrations), true},
  };
}

class ServiceCallsTest : public ::testing::TestWithParam<Form> {
 protected:
  void SetUp() override {
    // Each test case runs in a process of its own, so the shared connection is made afresh.
    ::setenv("CORVANE_RUNTIME_DIR", directory.path().c_str(), 1);  // NOLINT: single-threaded here
    ::unsetenv("CORVANE_FEATURE_CORVANE_SERVICE");                 // NOLINT
  }

  TemporaryDirectory directory;
  platform::ScopedLogCapture log;
};

TEST_P(ServiceCallsTest, EveryOperationSendsItsNameAndExactlyItsArgument) {
  FakeDaemon daemon(directory.path());
  int sent = 0;
  for (const auto& operation : everyOperation()) {
    if (GetParam() == Form::synchronous && !operation.hasSynchronousTwin) continue;
    const auto outcome = operation.perform(GetParam());
    ASSERT_FALSE(outcome.failure) << operation.name << ": " << outcome.error().what();
    ++sent;
    const auto received = daemon.received();
    ASSERT_EQ(received.size(), static_cast<std::size_t>(sent)) << operation.name;
    EXPECT_EQ(received.back().operation, operation.name);
    if (operation.argument) {
      ASSERT_TRUE(received.back().argument) << operation.name << " sent no argument";
      EXPECT_EQ(parseJson(*received.back().argument), parseJson(*operation.argument))
          << operation.name;
    } else {
      EXPECT_FALSE(received.back().argument) << operation.name << " sent an argument";
    }
  }
  EXPECT_EQ(daemon.connections.value(), 1) << "one shared connection serves every call";
}

TEST_P(ServiceCallsTest, ValuesComeBackDecoded) {
  FakeDaemon daemon(directory.path());
  daemon.script(ServiceProtocol::Selectors::currentDeclarationKeys.name,
                R"([{"success": {"_0": ["K1", "K2"]}}])");
  daemon.script(ServiceProtocol::Selectors::getDeclarationStatus.name,
                R"([{"success": {"_0": [
                    {"bundleID": "b2", "declarationIdentifier": "d2", "declarationKey": "k2",
                     "state": "queued", "reasons": [], "name": "Two"},
                    {"bundleID": "b1", "declarationIdentifier": "d1", "declarationKey": "k1",
                     "state": "managed", "reasons": [], "name": "One"}]}}])");
  const auto gotKeys = askForKeys(GetParam());
  ASSERT_TRUE(gotKeys.value) << gotKeys.error().what();
  EXPECT_EQ(*gotKeys.value, (std::vector<std::string>{"K1", "K2"}));

  const DDMDeclarationStatusRequest status{};
  const auto gotStatus = run<std::vector<ManagedAppStatus>>(
      GetParam(),
      [&](auto&& token) { return status.perform(std::forward<decltype(token)>(token)); },
      [&] { return status.performSynchronously(); });
  ASSERT_TRUE(gotStatus.value) << gotStatus.error().what();
  ASSERT_EQ(gotStatus.value->size(), 2U);
  EXPECT_EQ((*gotStatus.value)[0].bundleID, "b2") << "the daemon's order is kept";
  EXPECT_EQ((*gotStatus.value)[1].name, "One");
  EXPECT_EQ(daemon.received().at(1).argument, std::optional<std::string>("[{}]"));
}

TEST_P(ServiceCallsTest, TheDaemonsFailuresArriveUnchangedWithTheirReasons) {
  FakeDaemon daemon(directory.path());
  // A reason beside "_0", in either order, and a failure without one (the plain envelope).
  const std::vector<std::pair<std::string, std::string>> envelopes = {
      {R"([{{"failure": {{"_0": {{"{}": {{}}}}}}}}])", ""},
      {R"([{{"failure": {{"_0": {{"{}": {{}}}}, "reason": "item 42 is not in the catalogue"}}}}])",
       "item 42 is not in the catalogue"},
      {R"([{{"failure": {{"reason": "D-x: \u00fcber", "_0": {{"{}": {{}}}}}}}}])", "D-x: über"},
      {R"([{{"failure": {{"_0": {{"{}": {{}}}}, "reason": null}}}}])", ""},
  };
  for (const auto& [envelope, reason] : envelopes) {
    for (auto kind : {CorvaneError::unrecoverableError, CorvaneError::networkError,
                      CorvaneError::deviceNotManaged, CorvaneError::unsupportedPlatform}) {
      SCOPED_TRACE(envelope);
      daemon.script(ServiceProtocol::Selectors::currentDeclarationKeys.name,
                    fmt::format(fmt::runtime(envelope), caseName(kind)));
      const auto outcome = askForKeys(GetParam());
      ASSERT_TRUE(outcome.failure) << caseName(kind);
      const Error error = outcome.error();
      EXPECT_EQ(error.error(), kind);
      EXPECT_EQ(error.cause(), reason);
      EXPECT_FALSE(error.origin()) << "a failure the daemon reported has no local origin";
      const std::string expected = reason.empty()
                                       ? localizedDescription(kind)
                                       : fmt::format("{} ({})", localizedDescription(kind), reason);
      EXPECT_EQ(std::string(error.what()), expected);
    }
  }
  EXPECT_EQ(log.count(platform::LogLevel::error, "Error decoding Tether values"), 0U);
}

TEST_P(ServiceCallsTest, AnUndecodableReplyIsUnrecoverableAndLoggedOnce) {
  FakeDaemon daemon(directory.path());
  daemon.script(ServiceProtocol::Selectors::currentDeclarationKeys.name,
                R"([{"success": {"_0": ["K1", 2]}}])");
  const auto outcome = askForKeys(GetParam());
  ASSERT_TRUE(outcome.failure);
  EXPECT_EQ(outcome.error().error(), CorvaneError::unrecoverableError);
  EXPECT_NE(std::string(outcome.error().what())
                .find("the reply could not be decoded: typeMismatch at "
                      "[0].success._0[1]"),
            std::string::npos)
      << outcome.error().what();
  std::size_t lines = 0;
  for (const auto& record : log.records()) {
    if (record.message.starts_with("Error decoding Tether values: ")) {
      ++lines;
      EXPECT_EQ(record.level, platform::LogLevel::error);
      EXPECT_EQ(record.category, "Tether");
    }
  }
  EXPECT_EQ(lines, 1U);
}

TEST_P(ServiceCallsTest, SwitchedOffEveryOperationFailsAndNothingIsSent) {
  ::setenv("CORVANE_FEATURE_CORVANE_SERVICE", "0", 1);  // NOLINT: no other thread reads it yet
  FakeDaemon daemon(directory.path());
  for (const auto& operation : everyOperation()) {
    if (GetParam() == Form::synchronous && !operation.hasSynchronousTwin) continue;
    const auto outcome = operation.perform(GetParam());
    ASSERT_TRUE(outcome.failure) << operation.name;
    EXPECT_EQ(outcome.error().error(), CorvaneError::unrecoverableError);
    EXPECT_EQ(outcome.error().cause(), "the service is switched off");
  }
  EXPECT_TRUE(daemon.received().empty());
  EXPECT_EQ(daemon.connections.value(), 0) << "no socket may be opened while switched off";
}

TEST_P(ServiceCallsTest, WithoutADaemonTheErrorNamesTheSocket) {
  const auto outcome = askForKeys(GetParam());
  ASSERT_TRUE(outcome.failure);
  EXPECT_EQ(outcome.error().error(), CorvaneError::unrecoverableError);
  const auto socket = (directory.path() / agentServiceName).native();
  EXPECT_EQ(outcome.error().cause(), "cannot connect to " + socket + ": No such file or directory");
  EXPECT_NE(std::string(outcome.error().what()).find(socket), std::string::npos);
}

TEST_P(ServiceCallsTest, ADaemonLostMidCallFailsItOnceAndTheNextCallReconnects) {
  auto daemon = std::make_unique<FakeDaemon>(directory.path());
  daemon->hold();
  std::promise<Outcome<None>> lost;
  std::thread caller([&] {
    lost.set_value(performer(DDMPollForUpdatesRequest{})(
        GetParam() == Form::synchronous ? Form::callback : GetParam()));
  });
  ASSERT_TRUE(daemon->calls.waitFor(1));
  daemon.reset();  // the daemon goes away with the call unanswered
  auto future = lost.get_future();
  ASSERT_EQ(future.wait_for(ipc::testing::bound), std::future_status::ready);
  caller.join();
  const auto outcome = future.get();
  ASSERT_TRUE(outcome.failure);
  EXPECT_EQ(outcome.error().error(), CorvaneError::unrecoverableError);
  EXPECT_TRUE(log.waitFor(
      [](const platform::LogRecord& r) { return r.message == "Daemon connection interrupted"; },
      std::chrono::seconds(10)));

  FakeDaemon again(directory.path());
  const auto next = performer(DDMRemoveManagedAppRequest{"I"})(GetParam());
  EXPECT_FALSE(next.failure);
  EXPECT_EQ(again.received().size(), 1U);
  EXPECT_EQ(log.count(platform::LogLevel::error, "Daemon connection interrupted"), 1U);
}

using ServiceConnectionLoss = ServiceCallsTest;

TEST_F(ServiceConnectionLoss, ObserversHearOfEachLossUntilTheyStop) {
  auto daemon = std::make_unique<FakeDaemon>(directory.path());
  Counter first;
  Counter second;
  auto& connection = ServiceConnection::shared();
  std::optional<LossObservation> stopsEarly(connection.observeLoss([&] { first.add(); }));
  const LossObservation staysOn = connection.observeLoss([&] { second.add(); });
  ASSERT_FALSE(performer(DDMRemoveManagedAppRequest{"I"})(Form::synchronous).failure);
  daemon.reset();
  ASSERT_TRUE(first.waitFor(1));
  ASSERT_TRUE(second.waitFor(1));

  stopsEarly.reset();
  daemon = std::make_unique<FakeDaemon>(directory.path());
  ASSERT_FALSE(performer(DDMRemoveManagedAppRequest{"I"})(Form::synchronous).failure);
  daemon.reset();
  ASSERT_TRUE(second.waitFor(2));
  EXPECT_EQ(first.value(), 1);
  // The connection's own log line is written for each loss, observed or not.
  EXPECT_EQ(log.count(platform::LogLevel::error, "Daemon connection interrupted"), 2U);
}

INSTANTIATE_TEST_SUITE_P(Forms, ServiceCallsTest,
                         ::testing::Values(Form::callback, Form::future, Form::awaitable,
                                           Form::synchronous),
                         formName);

}  // namespace
}  // namespace corvane::testing
