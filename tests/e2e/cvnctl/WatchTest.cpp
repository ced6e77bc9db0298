// The commands that follow the daemon's pushes: waiting for installs, watches ended by Ctrl-C,
// and watches whose daemon goes away.

#include "e2e/cvnctl/CvnctlFixture.hpp"

#include <corvane/ipc/Listener.hpp>
#include <corvane/service/ServiceProtocol.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <mutex>

namespace corvane::testing {
namespace {

/// The case names of the states in a list of coded AppProgress lines for `bundleID`.
std::vector<std::string> progressCases(const std::vector<boost::json::value>& lines,
                                       std::string_view bundleID) {
  std::vector<std::string> cases;
  for (const auto& line : lines) {
    const auto* object = line.if_object();
    if (object == nullptr || !object->contains("bundleID")) continue;
    if (object->at("bundleID").as_string() != bundleID) continue;
    cases.emplace_back(object->at("state").as_object().begin()->key());
  }
  return cases;
}

/// A daemon of another make than corvaned-sim, in the test process, on the facility's listener:
/// it answers every call with success (no keys for the key list) and pushes the catalogue
/// batches the test gives it to the client that registered for the catalogue, as the protocol
/// lets any daemon do, a catalogue it could not build included.
class CatalogueDaemon {
 public:
  explicit CatalogueDaemon(const std::filesystem::path& directory)
      : listener_(std::string(agentServiceName), ipc::ListenerOptions{directory, false}) {
    listener_.setConnectionHandler([this](ipc::Peer& peer) {
      auto table = std::make_shared<ipc::OperationTable>();
      auto client = peer.remoteObjectProxy([](const ipc::CallError&) {});
      for (const auto& operation : ServiceProtocol::operations) {
        const std::string name(operation.name);
        table->on(name, [this, name, client](std::optional<Bytes>, ipc::Reply reply) {
          reply.send(Bytes(name == "currentDeclarationKeysWithReply:"
                               ? R"([{"success": {"_0": []}}])"
                               : R"([{"success": {"_0": null}}])"));
          if (name != "addMessageRegistrations:reply:") return;
          const std::lock_guard lock(mutex_);
          client_ = client;
          registered_.notify_all();
        });
      }
      peer.setExportedObject(table);
      peer.setRemoteObjectInterface(TetherClientProtocolDescription::interface());
      return true;
    });
    listener_.resume();
  }

  /// Pushes one catalogue message (its JSON form) to the registered client, once there is one.
  bool push(std::string_view catalogue) {
    std::optional<ipc::RemoteProxy> client;
    {
      std::unique_lock lock(mutex_);
      if (!registered_.wait_for(lock, std::chrono::seconds(30),
                                [this] { return client_.has_value(); }))
        return false;
      client = client_;
    }
    client->send("handleMessages:",
                 Bytes(fmt::format(R"([[{{"type": {{"managedAppCatalog": {}}}}}]])", catalogue)));
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable registered_;
  std::optional<ipc::RemoteProxy> client_;
  ipc::Listener listener_;
};

TEST_F(CvnctlTest, ACatalogueTheDaemonCouldNotBuildIsOneResultOfTheWatch) {
  const std::string failed = R"({"_1": {"networkError": {}}})";
  const std::string oneApp =
      R"({"_0": [{"declarationIdentifier": "D-maps", "bundleID": "dev.corvane.sample.maps",)"
      R"( "platform": 1, "name": "Field Maps", "genres": [], "languages": [],)"
      R"( "screenshots": [], "hasLicenseAgreement": false}]})";
  for (const bool json : {true, false}) {
    SCOPED_TRACE(json ? "--json" : "text");
    CatalogueDaemon daemon(directory_.path());
    std::vector<std::string> arguments{"catalog", "--watch"};
    if (json) arguments.insert(arguments.begin(), "--json");
    auto watch = start(arguments);
    ASSERT_TRUE(daemon.push(failed));
    const std::string said = json ? R"("error":"networkError")" : "networkError";
    ASSERT_TRUE(watch->waitFor([&](const std::string& out, const std::string& err) {
      return (json ? out : err).contains(said);
    })) << watch->out()
        << watch->err();
    // The watch goes on: the next catalogue is shown too.
    ASSERT_TRUE(daemon.push(oneApp));
    ASSERT_TRUE(watch->waitForOutput("D-maps")) << watch->out() << watch->err();
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait(bound), 0) << watch->err();
    if (!json) {
      EXPECT_TRUE(watch->err().contains("cvnctl: networkError: The network could not be reached."))
          << watch->err();
      continue;
    }
    // One JSON document per line on standard output, the failure an element of the stream;
    // standard error stays for a failure that ends the command.
    EXPECT_EQ(watch->err(), "");
    const auto lines = jsonLines(watch->out());
    ASSERT_EQ(lines.size(), 2U) << watch->out();
    const auto& error = lines[0].as_object();
    EXPECT_EQ(error.at("error"), "networkError");
    EXPECT_TRUE(error.at("description").is_string());
    EXPECT_EQ(error.at("reason"), "");
    EXPECT_FALSE(error.contains("exit")) << "the watch did not end there";
    ASSERT_TRUE(lines[1].is_array()) << lines[1];
    EXPECT_EQ(lines[1].as_array().at(0).at("declarationIdentifier"), "D-maps");
  }
  // Without --watch that catalogue is the answer, and a failure.
  CatalogueDaemon daemon(directory_.path());
  auto once = start({"--json", "catalog"});
  ASSERT_TRUE(daemon.push(failed));
  EXPECT_EQ(once->wait(bound), 1) << once->err();
  EXPECT_EQ(once->out(), "");
  const auto errors = jsonLines(once->err());
  ASSERT_EQ(errors.size(), 1U) << once->err();
  EXPECT_EQ(errors[0].at("error"), "networkError");
  EXPECT_EQ(errors[0].at("exit"), 1);
}

TEST_F(CvnctlTest, AddWaitFollowsTheInstallFromStartToManaged) {
  startDaemon();
  const auto result = run({"add", "--wait", "-"}, declarationJson("D-notes", notesItem));
  ASSERT_EQ(result.status, 0) << result.err;
  // Plain lines (standard output is a pipe): each change once, in order, ending managed.
  const auto lines = linesOf(result.out);
  ASSERT_GE(lines.size(), 3U) << result.out;
  EXPECT_TRUE(result.out.contains("dev.corvane.sample.notes: Downloading (")) << result.out;
  EXPECT_TRUE(result.out.contains("dev.corvane.sample.notes: Installing (")) << result.out;
  EXPECT_EQ(lines.back(), "dev.corvane.sample.notes: Managed");
  EXPECT_FALSE(result.out.contains("\x1b[")) << "escape sequences on a pipe";
  EXPECT_LT(result.out.find("Downloading"), result.out.find("Installing"));
  EXPECT_EQ(std::adjacent_find(lines.begin(), lines.end()), lines.end()) << "a repeated line";
}

TEST_F(CvnctlTest, InstallWaitInJsonEndsWithTheFinalStatuses) {
  startDaemon();
  declare("D-maps", mapsItem, "onDemand");
  const auto result = run({"--json", "install", "D-maps", "--wait"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto documents = jsonLines(result.out);
  ASSERT_GE(documents.size(), 2U);
  const auto cases = progressCases(documents, mapsBundle);
  EXPECT_NE(std::find(cases.begin(), cases.end(), "downloading"), cases.end());
  EXPECT_NE(std::find(cases.begin(), cases.end(), "installing"), cases.end());
  const auto& last = documents.back().as_array();
  ASSERT_EQ(last.size(), 1U);
  EXPECT_EQ(last[0].at("declarationIdentifier"), "D-maps");
  EXPECT_EQ(last[0].at("state"), "managed");
}

TEST_F(CvnctlTest, InstallEverythingWaitsForEachUnsettledDeclaration) {
  startDaemon();
  declare("D-maps", mapsItem, "onDemand");
  declare("D-notes", notesItem, "onDemand");
  const auto result = run({"install", "--wait"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(result.out.contains("dev.corvane.sample.maps: Managed")) << result.out;
  EXPECT_TRUE(result.out.contains("dev.corvane.sample.notes: Managed")) << result.out;
}

TEST_F(CvnctlTest, AFailedInstallEndsTheWaitWithStatusOne) {
  struct Row {
    std::vector<std::string> daemonArguments;
    std::int64_t item;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {{"--fail-install", "dev.corvane.sample.notes=downloadFailed"},
       notesItem,
       "Failed (downloadFailed)"},
      // An app the store does not know.
      {{}, 42, "Failed (couldNotVerifyAppID)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.expected);
    startDaemon(row.daemonArguments);
    const auto human = run({"add", "--wait", "-"}, declarationJson("D1", row.item));
    EXPECT_EQ(human.status, 1) << human.err;
    EXPECT_TRUE(linesOf(human.out).back().ends_with(row.expected)) << human.out;
    EXPECT_TRUE(human.err.contains("failed")) << human.err;

    const auto json = run({"--json", "add", "--wait", "-"}, declarationJson("D2", row.item));
    EXPECT_EQ(json.status, 1);
    const auto errors = jsonLines(json.err);
    ASSERT_EQ(errors.size(), 1U) << json.err;
    EXPECT_EQ(errors[0].at("error"), "installFailed");
    const auto documents = jsonLines(json.out);
    ASSERT_FALSE(documents.empty());
    EXPECT_EQ(documents.back().as_array().at(0).at("state"), "failed") << documents.back();
    daemon().stop();
  }
}

TEST_F(CvnctlTest, AddWaitOfAnOnDemandDeclarationDoesNotWait) {
  startDaemon();
  const auto result = run({"add", "--wait", "-"}, declarationJson("D-maps", mapsItem, "onDemand"));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(result.err.contains("installs on demand: not waiting")) << result.err;
}

TEST_F(CvnctlTest, CatalogWatchSeesAPoll) {
  startDaemon();
  declare("D-notes", notesItem, "onDemand");
  auto watch = start({"--json", "catalog", "--watch"});
  ASSERT_TRUE(watch->waitFor([](const std::string& out, const std::string&) {
    return !linesOf(out).empty();
  })) << watch->err();
  ASSERT_EQ(run({"poll"}).status, 0);
  ASSERT_TRUE(watch->waitFor([](const std::string& out, const std::string&) {
    return linesOf(out).size() >= 2;
  })) << watch->out();
  watch->signal(SIGINT);
  EXPECT_EQ(watch->wait(bound), 0) << watch->err();
  for (const auto& catalogue : jsonLines(watch->out())) {
    ASSERT_EQ(catalogue.as_array().size(), 1U);
    EXPECT_EQ(catalogue.as_array()[0].at("declarationIdentifier"), "D-notes");
  }
  EXPECT_EQ(watch->err(), "");
}

TEST_F(CvnctlTest, WatchesFollowUntilCtrlC) {
  startDaemon({"--tick-ms", "20", "--verbose"});
  struct Row {
    std::vector<std::string> arguments;
    std::string expected;  // a line the watch prints during the install
  };
  const std::vector<Row> rows = {
      {{"progress"}, "dev.corvane.sample.maps: Managed"},
      {{"state", std::string(mapsBundle), "--watch"}, "dev.corvane.sample.maps: Managed"},
      {{"--json", "progress"}, R"("managed":{})"},
      {{"--json", "state", std::string(mapsBundle), "--watch"}, R"({"managed":{}})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(row.arguments, " ")));
    declare("D-maps", mapsItem, "onDemand");
    auto watch = start(row.arguments);
    awaitRegistration();
    const auto install = run({"install", "D-maps", "--wait"});
    ASSERT_EQ(install.status, 0) << install.err;
    awaitRegistration();  // the install's own wait
    ASSERT_TRUE(watch->waitForOutput(row.expected)) << watch->out() << watch->err();
    watch->signal(SIGINT);
    EXPECT_EQ(watch->wait(bound), 0) << watch->err();
    EXPECT_EQ(watch->err(), "");
    if (row.arguments[0] == "--json") {
      EXPECT_FALSE(jsonLines(watch->out()).empty());
    }
    ASSERT_EQ(run({"remove", "D-maps"}).status, 0);
  }
}

TEST_F(CvnctlTest, AWatchWhoseDaemonDiesSaysSoInsteadOfHanging) {
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"progress"},
                                             {"catalog", "--watch"},
                                             {"state", std::string(notesBundle), "--watch"},
                                             {"--json", "progress"}}) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(arguments, " ")));
    startDaemon({"--verbose"});
    auto watch = start(arguments);
    awaitRegistration();
    // The state watch asks for the app's state first; it follows once it has shown it.
    if (arguments[0] == "state") {
      ASSERT_TRUE(watch->waitForOutput(notesBundle)) << watch->err();
    }
    daemon().kill();
    const auto status = watch->wait(bound);
    ASSERT_TRUE(status.has_value()) << "the watch hung after its daemon died";
    EXPECT_EQ(*status, 4);
    if (arguments[0] == "--json") {
      const auto errors = jsonLines(watch->err());
      ASSERT_EQ(errors.size(), 1U) << watch->err();
      EXPECT_EQ(errors[0].at("error"), "daemonUnavailable");
    } else {
      EXPECT_TRUE(watch->err().contains("cvnctl: corvaned went away (the connection to "
                                        + socketPath().native() + " was lost)"))
          << watch->err();
    }
  }
}

}  // namespace
}  // namespace corvane::testing
