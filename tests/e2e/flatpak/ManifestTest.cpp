// corvaned on the Flatpak engine with .flatpakref manifests at http addresses, served by
// scripts/serve-test-repo: a manifest installs the app it names, and one that cannot be fetched
// (unreachable, an HTTP error status, too large) or does not parse is refused with its reason;
// stopping the daemon abandons a download under way; an install from a manifest that SIGKILL cuts
// short is made from the manifest again after a restart. https goes through the same code
// (libcurl), but no test server speaks it offline.

#include "FlatpakDaemon.hpp"
#include "Installation.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <boost/asio/use_future.hpp>
#include <boost/url/url.hpp>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>
#include <variant>
#include <vector>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::string_view hello = "org.corvane.Test.Hello";

std::future<void> installManifest(const std::string& url) {
  return InstallEnterpriseManifestRequest(EnterpriseApp(boost::urls::url(url)))
      .perform(boost::asio::use_future);
}

using FlatpakManifests = FlatpakDaemon;

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

TEST_F(FlatpakManifests, AnInstallFromAManifestCutShortBySigkillFinishesFromItAfterARestart) {
  // Big from a remote only the manifest names, served slowly so that SIGKILL comes mid-download;
  // the daemon's own remote offers Big as well, from another address.
  const RepositoryServer server(TestRepository::get().outDir(), 1 << 20);
  constexpr std::string_view big = "org.corvane.Test.Big";
  serve("big.flatpakref", fmt::format("[Flatpak Ref]\nName={}\nBranch=stable\nUrl={}repo\n"
                                      "SuggestRemoteName=manifest-remote\nGPGVerify=false\n",
                                      big, server.url()));
  start();
  {
    auto progress = ManagedAppLibrary::shared().progressUpdates();
    installManifest("file://" + (served() / "big.flatpakref").native()).get();
    // Into the download proper: the remote the manifest names is set up by then.
    ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
      const auto* downloading = std::get_if<AppState::Downloading>(&value.state.cases());
      return value.bundleID == big && downloading != nullptr && downloading->_0 > 0;
    }));
  }
  daemon_->kill();
  daemon_->restart();
  auto progress = ManagedAppLibrary::shared().progressUpdates();
  ASSERT_TRUE(readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == big && value.state == AppState::managed();
  })) << daemon_->process().err();
  const auto installed = flatpak::Installation::openAt(installation())
                             .findInstalled(flatpak::appRef(std::string(big), "stable"));
  ASSERT_TRUE(installed.has_value());
  EXPECT_EQ(installed->origin, "manifest-remote");
}

}  // namespace
}  // namespace corvane::testing
