// corvaned on the Flatpak engine with .flatpakref manifests at http addresses, served by
// scripts/serve-test-repo: a manifest installs the app it names, and one that cannot be fetched
// (unreachable, an HTTP error status, too large) or does not parse is refused with its reason;
// stopping the daemon abandons a download under way. https goes through the same code (libcurl),
// but no test server speaks it offline.

#include "TestRepository.hpp"
#include "support/DaemonProcess.hpp"
#include "support/ServiceClient.hpp"
#include "support/TemporaryDirectory.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/url/url.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view hello = "org.corvane.Test.Hello";

std::future<void> installManifest(const std::string& url) {
  return InstallEnterpriseManifestRequest(EnterpriseApp(boost::urls::url(url)))
      .perform(boost::asio::use_future);
}

class FlatpakManifests : public ::testing::Test {
 protected:
  void SetUp() override {
    (void)TestRepository::get();  // the environment first: nothing may reach the machine's own
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
    std::filesystem::create_directories(served());
  }
  void start() {
    daemon_ = std::make_unique<DaemonProcess>(
        runtime_.path(),
        std::vector<std::string>{"--engine", "flatpak", "--installation", installation().native(),
                                 "--remote", "corvane-test=" + TestRepository::get().url(),
                                 "--state", (state_.path() / "state.db").native(), "--tick-ms",
                                 "20", "--verbose"});
  }
  [[nodiscard]] std::filesystem::path installation() const {
    return state_.path() / "installation";
  }
  /// What the test's server serves.
  [[nodiscard]] std::filesystem::path served() const { return state_.path() / "served"; }
  void serve(const std::string& name, const std::string& contents) const {
    std::ofstream(served() / name, std::ios::binary) << contents;
  }

  TemporaryDirectory runtime_;
  TemporaryDirectory state_;
  std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(FlatpakManifests, AManifestIsFetchedOverHttpOrRefusedWithItsReason) {
  serve("hello.flatpakref",
        readFile(TestRepository::get().outDir() / (std::string(hello) + ".flatpakref")));
  serve("notes.flatpakref", "this is not a flatpakref\n");
  serve("huge.flatpakref", std::string((std::size_t{1} << 20) + 1, '#'));
  const RepositoryServer server(served(), 0);
  start();
  // A port nothing listens on: the server's, once it is gone.
  std::string gone;
  {
    const RepositoryServer stopped(served(), 0);
    gone = stopped.url();
  }
  struct Row {
    const char* what;
    std::string url;
    std::string says;
  };
  const std::vector<Row> refused = {
      {"unreachable", gone + "hello.flatpakref", "cannot be fetched: "},
      {"not found", server.url() + "missing.flatpakref", "the server answered HTTP 404"},
      {"does not parse", server.url() + "notes.flatpakref", "is not a .flatpakref: "},
      {"too large", server.url() + "huge.flatpakref", "it is larger than 1 MiB"},
      {"another scheme", "ftp://127.0.0.1/hello.flatpakref", "file, http and https addresses"},
  };
  for (const auto& row : refused) {
    SCOPED_TRACE(row.what);
    const auto error = failureOf([&] { installManifest(row.url).get(); });
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->cause().find(row.says), std::string::npos) << error->cause();
  }

  auto progress = ManagedAppLibrary::shared().progressUpdates();
  installManifest(server.url() + "hello.flatpakref").get();
  ASSERT_TRUE(readUntil(progress, [](const AppProgress& value) {
    return value.bundleID == hello && value.state == AppState::managed();
  }));
  EXPECT_EQ(readFile(installation() / "app" / hello / "current/active/files/version"), "1.0\n");
}

TEST_F(FlatpakManifests, StoppingTheDaemonAbandonsAFetchUnderWay) {
  // Below the size limit, served at a byte a second: the download would take days.
  serve("slow.flatpakref", std::string(std::size_t{600} << 10, '#'));
  const RepositoryServer server(served(), 1);
  start();
  auto call = installManifest(server.url() + "slow.flatpakref");
  ASSERT_TRUE(daemon_->process().waitForError("fetching the manifest"));
  // The worker gives the download up at once; waiting it out would take the whole timeout.
  EXPECT_EQ(daemon_->process().terminate(15s), 0);
  ASSERT_EQ(call.wait_for(bound), std::future_status::ready);
  EXPECT_TRUE(failureOf([&] { call.get(); }).has_value());
}

}  // namespace
}  // namespace corvane::testing
