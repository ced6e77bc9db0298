// The one-shot subcommands against a real daemon: their human and JSON results, the daemon's
// refusals with their reasons, faults the daemon injects, a daemon that is not there, and a caller
// it refuses.

#include "e2e/cvnctl/CvnctlFixture.hpp"
#include "support/RefusingStore.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <unistd.h>

namespace corvane::testing {
namespace {

/// The statuses in a JSON status list, by declaration identifier.
std::map<std::string, std::string> statesOf(const boost::json::value& list) {
  std::map<std::string, std::string> states;
  for (const auto& status : list.as_array()) {
    states[std::string(status.at("declarationIdentifier").as_string())] =
        std::string(status.at("state").as_string());
  }
  return states;
}

TEST_F(CvnctlTest, EverySubcommandAnswersInJsonWithTheCodedValue) {
  startDaemon();
  ASSERT_EQ(run({"add", "--wait", "-"}, declarationJson("D-notes", notesItem)).status, 0);
  declare("D-maps", mapsItem, "onDemand");
  struct Row {
    std::vector<std::string> arguments;
    // Checks the single document the command wrote.
    std::function<void(const boost::json::value&)> check;
  };
  auto isNull = [](const boost::json::value& v) { EXPECT_TRUE(v.is_null()) << v; };
  const std::vector<Row> rows = {
      {{"keys"},
       [](const boost::json::value& v) {
         EXPECT_EQ(v, boost::json::parse(R"(["key-D-maps", "key-D-notes"])")) << v;
       }},
      {{"status", "key-D-maps"},
       [](const boost::json::value& v) {
         ASSERT_EQ(v.as_array().size(), 1U) << v;
         EXPECT_EQ(v.as_array()[0].at("bundleID").as_string(), mapsBundle);
       }},
      {{"catalog"},
       [](const boost::json::value& v) {
         ASSERT_EQ(v.as_array().size(), 2U) << v;
         for (const auto& app : v.as_array()) {
           EXPECT_TRUE(app.at("declarationIdentifier") == "D-maps"
                       || app.at("declarationIdentifier") == "D-notes")
               << app;
         }
       }},
      {{"state", std::string(mapsBundle)},
       [](const boost::json::value& v) { EXPECT_TRUE(v.as_object().contains("available")) << v; }},
      // A catalogue app the daemon does not look after yet: it can be obtained.
      {{"state", "dev.corvane.sample.vault"},
       [](const boost::json::value& v) { EXPECT_TRUE(v.as_object().contains("available")) << v; }},
      {{"poll"}, isNull},
      {{"reset-history"}, isNull},
      {{"launch", std::string(notesBundle)}, isNull},
      {{"vpp-install", "--item", "1000000002", "--type", "1", "--account", "7", "--evid", "3"},
       isNull},
      {{"vpp-install", "--bundle", "dev.corvane.sample.chat", "--type", "1"}, isNull},
      {{"enterprise-install", "https://corvane.dev/enterprise/manifest.plist"}, isNull},
      {{"cancel", "D-maps"}, isNull},
      {{"install", "D-maps"}, isNull},
      {{"install"}, isNull},
      {{"add", "-"}, isNull},
      {{"remove", "D-notes"}, isNull},
  };
  for (const auto& row : rows) {
    auto arguments = row.arguments;
    arguments.insert(arguments.begin(), "--json");
    const auto input = row.arguments[0] == "add" ? declarationJson("D-chat", 1000000006) : "";
    const auto result = run(arguments, input);
    SCOPED_TRACE(fmt::format("{}", fmt::join(arguments, " ")));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const auto documents = jsonLines(result.out);
    ASSERT_EQ(documents.size(), 1U) << result.out;
    row.check(documents[0]);
  }
  // The requests reached the daemon: the added and removed declarations show in the status.
  const auto status = run({"--json", "status"});
  ASSERT_EQ(status.status, 0) << status.err;
  const auto states = statesOf(jsonLines(status.out).at(0));
  EXPECT_TRUE(states.contains("D-chat"));
  EXPECT_FALSE(states.contains("D-notes"));
}

TEST_F(CvnctlTest, HumanOutputSaysWhatWasDone) {
  startDaemon();
  struct Row {
    std::vector<std::string> arguments;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {{"keys"}, "(no declaration keys)"},
      {{"status"}, "(no declared apps)"},
      {{"catalog"}, "(the catalogue is empty)"},
      {{"add", writeFile("maps.json", declarationJson("D-maps", mapsItem, "onDemand"))},
       "Declared D-maps (key key-D-maps)."},
      {{"keys"}, "key-D-maps"},
      {{"status"}, "D-maps       key-D-maps  dev.corvane.sample.maps  optional"},
      {{"catalog"}, "D-maps       dev.corvane.sample.maps  1000000003  7.3.1    Field Maps"},
      {{"install", "D-maps"}, "Asked corvaned to install Field Maps (dev.corvane.sample.maps)."},
      {{"vpp-install", "--item", "1000000002", "--type", "2"},
       "Sent the update request for Item ID: 1000000002."},
      {{"install", "D-maps", "--wait"}, "dev.corvane.sample.maps: Managed"},
      {{"launch", "dev.corvane.sample.maps"}, "Asked corvaned to launch dev.corvane.sample.maps."},
      {{"--sync", "remove", "D-maps"}, "Removed declaration D-maps."},
      {{"--sync", "keys"}, "(no declaration keys)"},
  };
  for (const auto& row : rows) {
    const auto result = run(row.arguments);
    SCOPED_TRACE(fmt::format("{}", fmt::join(row.arguments, " ")));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(result.out.contains(row.expected)) << result.out;
  }
}

TEST_F(CvnctlTest, AnUnknownCatalogueEntryIsAClearError) {
  startDaemon();
  declare("D-maps", mapsItem, "onDemand");
  for (const auto* verb : {"install", "cancel"}) {
    const auto result = run({verb, "D-nothing"});
    EXPECT_EQ(result.status, 3) << verb;
    EXPECT_TRUE(result.err.contains(
        "no catalogue app has the declaration identifier \"D-nothing\" (see cvnctl catalog)"))
        << result.err;
  }
}

TEST_F(CvnctlTest, VerboseShowsTheConnectAndEachCallWithItsOutcome) {
  startDaemon();
  const auto quiet = run({"keys"});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.err, "");
  const auto verbose = run({"-v", "keys"});
  EXPECT_EQ(verbose.status, 0) << verbose.err;
  EXPECT_TRUE(verbose.err.contains("[Tether] debug: Connected to ")) << verbose.err;
  EXPECT_TRUE(
      verbose.err.contains("[Tether] debug: currentDeclarationKeysWithReply: succeeded in "))
      << verbose.err;
  EXPECT_FALSE(verbose.err.contains("invalidated")) << verbose.err;
}

TEST_F(CvnctlTest, ADaemonsRefusalIsShownWithItsReason) {
  const auto state = (files_.path() / "state.db").native();
  // A tick a minute long: the queued install stays queued.
  startDaemon({"--tick-ms", "60000", "--state", state});
  declare("D-maps", mapsItem);
  struct Row {
    std::vector<std::string> arguments;
    std::string input;
    std::string reason;
    bool storeRefuses = false;
  };
  const std::vector<Row> rows = {
      {{"launch", std::string(notesBundle)},
       "",
       "dev.corvane.sample.notes is not installed, so it cannot be launched"},
      {{"vpp-install", "--item", "42", "--type", "1"}, "", "item 42 is not in the catalogue"},
      {{"vpp-install", "--bundle", std::string(mapsBundle), "--type", "3"},
       "",
       "dev.corvane.sample.maps is not installed"},
      {{"enterprise-install", "ftp://corvane.dev/apps/Tool.plist"},
       "",
       "a manifest must be fetched over http(s), not ftp://corvane.dev/apps/Tool.plist"},
      {{"add", "-"},
       declarationJson("D-notes", notesItem),
       "the change could not be stored: store a declaration: the disk is full",
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("{}", fmt::join(row.arguments, " ")));
    std::optional<RefusingStore> refusing;
    if (row.storeRefuses) refusing.emplace(state);

    const auto human = run(row.arguments, row.input);
    EXPECT_EQ(human.status, 1);
    EXPECT_EQ(human.out, "");
    EXPECT_TRUE(human.err.contains(fmt::format(
        "cvnctl: unrecoverableError: An unrecoverable error occurred. ({})", row.reason)))
        << human.err;

    auto arguments = row.arguments;
    arguments.insert(arguments.begin(), "--json");
    const auto json = run(arguments, row.input);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.out, "");
    const auto errors = jsonLines(json.err);
    ASSERT_EQ(errors.size(), 1U) << json.err;
    EXPECT_EQ(errors[0].at("error"), "unrecoverableError");
    EXPECT_EQ(errors[0].at("reason").as_string(), row.reason);
    EXPECT_EQ(errors[0].at("exit"), 1);
  }
  // Nothing was changed by any of them.
  const auto keys = run({"--json", "keys"});
  EXPECT_EQ(jsonLines(keys.out).at(0), boost::json::parse(R"(["key-D-maps"])"));
  const auto status = run({"--json", "status"});
  EXPECT_EQ(statesOf(jsonLines(status.out).at(0)),
            (std::map<std::string, std::string>{{"D-maps", "queued"}}));
}

TEST_F(CvnctlTest, InjectedFaultsReachTheCallerAsStatusOne) {
  struct Row {
    std::string fault;  // OPERATION=ERROR for the daemon
    std::vector<std::string> arguments;
    std::string caseName;
    std::string description;
  };
  const std::vector<Row> rows = {
      {"getDeclarationStatus=networkError",
       {"status"},
       "networkError",
       "The network could not be reached."},
      {"getDeclarationStatus:reply:=networkError",
       {"--sync", "status"},
       "networkError",
       "The network could not be reached."},
      {"currentDeclarationKeys=deviceNotManaged",
       {"keys"},
       "deviceNotManaged",
       "This device is not managed."},
      {"addOrUpdateManagedApp=unsupportedPlatform",
       {"add", "-"},
       "unsupportedPlatform",
       "This platform is not supported."},
      {"removeManagedAppWithDeclarationIdentifier=unrecoverableError",
       {"remove", "D1"},
       "unrecoverableError",
       "An unrecoverable error occurred."},
      {"pollForMediaAPIUpdates=networkError",
       {"poll"},
       "networkError",
       "The network could not be reached."},
      {"handleVPPInstallRequest=deviceNotManaged",
       {"vpp-install", "--item", "5", "--type", "1"},
       "deviceNotManaged",
       "This device is not managed."},
      {"installManagedApp=networkError",
       {"install"},
       "networkError",
       "The network could not be reached."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    startDaemon({"--fail", row.fault});
    // remove checks that the declaration exists before it sends.
    if (row.arguments[0] == "remove") declare("D1", notesItem, "onDemand");
    const auto input = row.arguments.back() == "-" ? declarationJson("D1", notesItem) : "";
    const auto human = run(row.arguments, input);
    EXPECT_EQ(human.status, 1);
    EXPECT_EQ(human.out, "");
    EXPECT_TRUE(human.err.contains(fmt::format("cvnctl: {}: {}", row.caseName, row.description)))
        << human.err;

    auto arguments = row.arguments;
    arguments.insert(arguments.begin(), "--json");
    const auto json = run(arguments, input);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(json.out, "");
    const auto errors = jsonLines(json.err);
    ASSERT_EQ(errors.size(), 1U) << json.err;
    EXPECT_EQ(errors[0].at("error").as_string(), row.caseName);
    EXPECT_EQ(errors[0].at("description").as_string(), row.description);
    EXPECT_EQ(errors[0].at("reason"), "");
    daemon().stop();
  }
}

TEST_F(CvnctlTest, NoDaemonIsNamedWithItsSocket) {
  const std::string expected =
      fmt::format("cvnctl: corvaned is not running (no socket at {})", socketPath().native());
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"keys"},
                                                                     {"--sync", "status"},
                                                                     {"catalog"},
                                                                     {"progress"},
                                                                     {"state", "x", "--watch"},
                                                                     {"install", "D1"}}) {
    SCOPED_TRACE(arguments[0]);
    const auto human = run(arguments);
    EXPECT_EQ(human.status, 4);
    EXPECT_TRUE(human.err.starts_with(expected)) << human.err;
  }
  const auto json = run({"--json", "keys"});
  EXPECT_EQ(json.status, 4);
  const auto errors = jsonLines(json.err);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0].at("error"), "daemonUnavailable");
  EXPECT_TRUE(std::string_view(errors[0].at("reason").as_string()).starts_with("cannot connect to"))
      << errors[0];
}

TEST_F(CvnctlTest, ARefusedCallerIsToldPermissionWasDenied) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run cvnctl as another user";
  startDaemon();
  // The other user must reach the socket and the tool.
  std::filesystem::permissions(directory_.path(), std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
  Process process({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", CVNCTL_PATH,
                   "--runtime-dir", directory_.path().native(), "reset-history"},
                  environment());
  process.closeStdin();
  const auto status = process.wait(bound);
  if (status == 127 || process.err().contains("Permission denied: "))
    GTEST_SKIP() << "cvnctl cannot run as uid 65534 here: " << process.err();
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(process.err().contains("cvnctl: permission denied: corvaned refused this caller"))
      << process.err();
}

}  // namespace
}  // namespace corvane::testing
