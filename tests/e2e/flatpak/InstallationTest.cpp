// Installations and transactions of the Flatpak layer against the test repository: installs
// with their runtime and progress, updates, uninstalls, cancellation, failures, .flatpakref
// files, launching.

#include "FlatpakError.hpp"
#include "Installation.hpp"
#include "Transaction.hpp"
#include "support/TestRepository.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/syscall.h>
#include <thread>

namespace corvane::flatpak {
namespace {

using testing::readFile;
using testing::RepositoryServer;
using testing::TemporaryDirectory;
using testing::TestRepository;

constexpr const char* remote = "corvane-test";
constexpr const char* hello = "org.corvane.Test.Hello";
constexpr const char* big = "org.corvane.Test.Big";
constexpr const char* branch = "stable";
std::string runtimeRef() {
  return std::string("runtime/org.corvane.Platform/") + flatpak_get_default_arch() + "/1";
}

class InstallationTest : public ::testing::Test {
 protected:
  TestRepository& repository = TestRepository::get();
  TemporaryDirectory dir;
  Installation installation = Installation::openAt(dir.path() / "installation");

  /// Runs one install of `ref` from `remote` and returns its progress reports.
  std::vector<TransactionProgress> install(const std::string& ref) {
    std::vector<TransactionProgress> reports;
    Transaction transaction(installation);
    transaction.addInstall(remote, ref);
    transaction.run([&](const TransactionProgress& progress) { reports.push_back(progress); });
    return reports;
  }

  [[nodiscard]] std::string remoteCommit(const std::string& ref) const {
    for (const auto& offered : installation.remoteRefs(remote))
      if (offered.ref == ref) return offered.commit;
    return {};
  }
};

TEST_F(InstallationTest, InstallsAnAppWithItsRuntimeAndReportsProgressToTheEnd) {
  // Over HTTP at 2 MiB/s, so that the runtime's megabyte takes half a second and arrives in
  // steps that get reported (a file:// remote reports no bytes until the end).
  const RepositoryServer server(repository.repo(), 2 << 20);
  installation.addRemote(remote, server.url());
  const auto start = std::chrono::steady_clock::now();
  const auto reports = install(appRef(hello, branch));
  RecordProperty("install_ms", std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  std::chrono::steady_clock::now() - start)
                                                  .count()));

  const auto app = installation.findInstalled(appRef(hello, branch));
  ASSERT_TRUE(app);
  EXPECT_EQ(app->kind, RefKind::app);
  EXPECT_EQ(app->origin, remote);
  EXPECT_EQ(app->commit, remoteCommit(app->ref));
  EXPECT_EQ(app->appdataVersion, "1.0");
  EXPECT_EQ(readFile(app->deployDir / "files/version"), "1.0\n");
  const auto runtime = installation.findInstalled(runtimeRef());
  ASSERT_TRUE(runtime);
  EXPECT_EQ(runtime->kind, RefKind::runtime);
  EXPECT_TRUE(std::filesystem::exists(runtime->deployDir / "files/bin/sh"));

  // The runtime first, then the app; each operation's reports go forward and end done at 100.
  ASSERT_FALSE(reports.empty());
  std::vector<std::string> order;
  for (std::size_t i = 0; i < reports.size(); ++i) {
    const auto& report = reports[i];
    EXPECT_EQ(report.operationCount, 2U);
    EXPECT_EQ(report.kind, OperationKind::install);
    if (order.empty() || order.back() != report.ref) order.push_back(report.ref);
    if (i == 0) continue;
    const auto& before = reports[i - 1];
    EXPECT_GE(report.transactionPercent, before.transactionPercent) << "report " << i;
    if (before.ref == report.ref) {
      EXPECT_GE(report.percent, before.percent) << "report " << i;
      EXPECT_GE(static_cast<int>(report.phase), static_cast<int>(before.phase)) << "report " << i;
    }
  }
  EXPECT_EQ(order, (std::vector<std::string>{runtimeRef(), appRef(hello, branch)}));
  for (const auto& ref : order) {
    const auto last = std::find_if(reports.rbegin(), reports.rend(),
                                   [&](const TransactionProgress& r) { return r.ref == ref; });
    EXPECT_EQ(last->phase, OperationPhase::done) << ref;
    EXPECT_EQ(last->percent, 100) << ref;
    EXPECT_GT(last->downloadSize, 0U) << ref;
  }
  EXPECT_EQ(reports.back().transactionPercent, 100);
  EXPECT_TRUE(std::any_of(reports.begin(), reports.end(), [](const TransactionProgress& r) {
    return r.phase == OperationPhase::downloading && r.bytesTransferred > 0 && r.percent > 0
           && r.transactionPercent < 100;
  })) << "no report while the runtime downloads";

  // A private installation keeps everything in its directory: nothing in HOME, nothing in the
  // user or system installation.
  EXPECT_TRUE(std::filesystem::is_empty(repository.home()));
  EXPECT_FALSE(std::filesystem::exists(repository.userDir()));
  EXPECT_FALSE(std::filesystem::exists(repository.systemDir()));
}

TEST_F(InstallationTest, ListsItsRemotesAndWhatTheyOfferAndFindsTheSystemInstallation) {
  installation.addRemote(remote, repository.url());
  const auto remotes = installation.remotes();
  ASSERT_EQ(remotes.size(), 1U);
  EXPECT_EQ(remotes[0].name, remote);
  EXPECT_EQ(remotes[0].url, repository.url());
  EXPECT_FALSE(remotes[0].gpgVerify);
  EXPECT_THROW(installation.addRemote(remote, repository.url()), FlatpakError);

  std::vector<std::string> refs;
  for (const auto& offered : installation.remoteRefs(remote)) {
    refs.push_back(offered.ref);
    EXPECT_EQ(offered.commit.size(), 64U) << offered.ref;
    EXPECT_EQ(offered.kind, offered.ref.starts_with("runtime/") ? RefKind::runtime : RefKind::app);
  }
  std::sort(refs.begin(), refs.end());
  EXPECT_EQ(refs,
            (std::vector<std::string>{
                appRef(big, branch), appRef("org.corvane.Test.Broken", branch),
                appRef(hello, branch), appRef("org.corvane.Test.Quiet", branch), runtimeRef()}));
  EXPECT_THROW((void)installation.remoteRefs("nowhere"), FlatpakError);

  // The system installation is where $FLATPAK_SYSTEM_DIR says: what keeps the tests away from
  // the machine's own.
  EXPECT_EQ(Installation::system().path(), repository.systemDir());
}

TEST_F(InstallationTest, UpdatesToTheNewCommitOfItsRemote) {
  const TemporaryDirectory own;
  TestRepository::build(own.path());
  installation.addRemote(remote, "file://" + (own.path() / "repo").native());
  install(appRef(hello, branch));
  const auto before = installation.findInstalled(appRef(hello, branch));
  ASSERT_TRUE(before);

  TestRepository::addUpdate(own.path());
  std::vector<TransactionProgress> reports;
  Transaction transaction(installation);
  transaction.addUpdate(appRef(hello, branch));
  transaction.run([&](const TransactionProgress& progress) { reports.push_back(progress); });

  const auto after = installation.findInstalled(appRef(hello, branch));
  ASSERT_TRUE(after);
  EXPECT_NE(after->commit, before->commit);
  EXPECT_EQ(after->commit, remoteCommit(after->ref));
  EXPECT_EQ(after->appdataVersion, "2.0");
  EXPECT_EQ(readFile(after->deployDir / "files/version"), "2.0\n");
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(reports.back().kind, OperationKind::update);
  EXPECT_EQ(reports.back().phase, OperationPhase::done);
}

TEST_F(InstallationTest, UninstallRemovesTheAppAndKeepsTheRuntime) {
  installation.addRemote(remote, repository.url());
  install(appRef(hello, branch));
  const auto installed = installation.findInstalled(appRef(hello, branch));
  ASSERT_TRUE(installed);

  try {
    install(appRef(hello, branch));
    ADD_FAILURE() << "installed twice";
  } catch (const FlatpakError& error) {
    EXPECT_TRUE(error.matches(FLATPAK_ERROR, FLATPAK_ERROR_ALREADY_INSTALLED)) << error.what();
  }

  installation.uninstall(appRef(hello, branch));
  EXPECT_FALSE(installation.findInstalled(appRef(hello, branch)));
  EXPECT_FALSE(std::filesystem::exists(installed->deployDir));
  EXPECT_TRUE(installation.findInstalled(runtimeRef()));
  EXPECT_THROW(installation.uninstall(appRef(hello, branch)), FlatpakError);
}

TEST_F(InstallationTest, CancelStopsADownloadAndInstallsNothing) {
  // Served at 2 MiB/s, Big takes seconds to download: time to cancel it from this thread while
  // the transaction runs on another.
  const RepositoryServer server(repository.repo(), 2 << 20);
  installation.addRemote(remote, server.url());

  std::mutex mutex;
  std::condition_variable downloading;
  std::optional<TransactionProgress> seen;   // guarded by mutex
  std::vector<TransactionProgress> reports;  // the worker's until it is joined
  std::optional<FlatpakError> failure;
  Transaction transaction(installation);
  transaction.addInstall(remote, appRef(big, branch));
  {
    const std::jthread worker([&] {
      try {
        transaction.run([&](const TransactionProgress& progress) {
          reports.push_back(progress);
          if (progress.ref != appRef(big, branch) || progress.bytesTransferred == 0) return;
          const std::scoped_lock lock(mutex);
          if (!seen) seen = progress;
          downloading.notify_one();
        });
      } catch (const FlatpakError& error) {
        failure = error;
      }
    });
    std::unique_lock lock(mutex);
    const bool started =
        downloading.wait_for(lock, std::chrono::seconds(60), [&] { return seen.has_value(); });
    lock.unlock();
    transaction.cancel();
    ASSERT_TRUE(started) << "Big's download never reported bytes";
  }
  ASSERT_TRUE(failure) << "the install finished";
  EXPECT_TRUE(failure->cancelled()) << failure->what();
  EXPECT_FALSE(installation.findInstalled(appRef(big, branch)));
  // It stopped within the download.
  const auto last =
      std::find_if(reports.rbegin(), reports.rend(),
                   [](const TransactionProgress& r) { return r.ref == appRef(big, branch); });
  ASSERT_NE(last, reports.rend());
  EXPECT_EQ(last->phase, OperationPhase::downloading);
  EXPECT_LT(last->percent, 100);
  EXPECT_FALSE(std::filesystem::exists(installation.path() / "app" / big));
}

TEST_F(InstallationTest, InstallsFromAFlatpakrefWithTheRemoteItNames) {
  Transaction transaction(installation);
  transaction.addInstallFlatpakref(
      readFile(repository.outDir() / (std::string(hello) + ".flatpakref")));
  transaction.run();

  const auto app = installation.findInstalled(appRef(hello, branch));
  ASSERT_TRUE(app);
  EXPECT_EQ(app->appdataVersion, "1.0");
  EXPECT_TRUE(installation.findInstalled(runtimeRef()));
  const auto remotes = installation.remotes();
  EXPECT_TRUE(std::any_of(remotes.begin(), remotes.end(),
                          [&](const RemoteInfo& info) { return info.url == repository.url(); }));
}

TEST_F(InstallationTest, ACallbackThatThrowsStopsTheTransactionWithItsException) {
  installation.addRemote(remote, repository.url());
  Transaction transaction(installation);
  transaction.addInstall(remote, appRef(hello, branch));
  int calls = 0;
  EXPECT_THROW(transaction.run([&](const TransactionProgress&) {
    ++calls;
    throw std::logic_error("the caller gave up");
  }),
               std::logic_error);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(installation.findInstalled(appRef(hello, branch)));
}

/// One way an install goes wrong, and what the error must say.
struct Failure {
  std::string name;
  std::function<void(Transaction&, const TestRepository&)> add;
  GQuark domain;
  int code;
  std::string says;
};

std::string flatpakref(const std::string& body) {
  return "[Flatpak Ref]\n" + body;
}

TEST_F(InstallationTest, FailuresSayWhy) {
  installation.addRemote(remote, repository.url());
  const std::vector<Failure> failures{
      {"an app whose runtime the repository lacks",
       [](Transaction& t, const TestRepository&) {
         t.addInstall(remote, appRef("org.corvane.Test.Broken", branch));
       },
       FLATPAK_ERROR, FLATPAK_ERROR_RUNTIME_NOT_FOUND, "requires the runtime org.corvane.Missing/"},
      {"an app the remote does not have",
       [](Transaction& t, const TestRepository&) {
         t.addInstall(remote, appRef("org.corvane.Test.Nothing", branch));
       },
       FLATPAK_ERROR, FLATPAK_ERROR_REF_NOT_FOUND, "org.corvane.Test.Nothing"},
      {"a remote that does not exist",
       [](Transaction& t, const TestRepository&) {
         t.addInstall("nowhere", appRef(hello, branch));
       },
       FLATPAK_ERROR, FLATPAK_ERROR_REMOTE_NOT_FOUND, "nowhere"},
      {"a flatpakref that is not a key file",
       [](Transaction& t, const TestRepository&) {
         t.addInstallFlatpakref("this is not a flatpakref\n");
       },
       FLATPAK_ERROR, FLATPAK_ERROR_INVALID_DATA,
       "Invalid .flatpakref: Key file contains line “this is not a flatpakref”"},
      {"a flatpakref without a name",
       [](Transaction& t, const TestRepository& r) {
         t.addInstallFlatpakref(flatpakref("Url=" + r.url() + "\n"));
       },
       FLATPAK_ERROR, FLATPAK_ERROR_INVALID_DATA, "Name"},
      // libflatpak looks for the ref in a repository that is not there, and says so.
      {"a flatpakref whose repository is not there",
       [](Transaction& t, const TestRepository&) {
         t.addInstallFlatpakref(flatpakref(
             "Name=org.corvane.Test.Hello\nBranch=stable\nUrl=file:///nonexistent/repo\n"));
       },
       FLATPAK_ERROR, FLATPAK_ERROR_REF_NOT_FOUND, "No such ref 'app/org.corvane.Test.Hello/"},
  };
  for (const auto& failure : failures) {
    SCOPED_TRACE(failure.name);
    try {
      Transaction transaction(installation);
      failure.add(transaction, repository);
      transaction.run();
      ADD_FAILURE() << "no error";
    } catch (const FlatpakError& error) {
      EXPECT_EQ(error.domainName(), g_quark_to_string(failure.domain)) << error.what();
      EXPECT_EQ(error.code(), failure.code) << error.what();
      EXPECT_NE(error.message().find(failure.says), std::string::npos) << error.what();
    }
  }
  EXPECT_FALSE(installation.findInstalled(appRef("org.corvane.Test.Broken", branch)));
}

TEST_F(InstallationTest, LaunchedAppRunsInItsSandbox) {
  // libflatpak looks for the app's runtime only in the user and system installations: from a
  // private installation elsewhere the launch fails, naming the runtime.
  installation.addRemote(remote, repository.url());
  install(appRef(hello, branch));
  try {
    (void)installation.launch(hello, branch);
    ADD_FAILURE() << "launched from a private installation";
  } catch (const FlatpakError& error) {
    EXPECT_TRUE(error.matches(FLATPAK_ERROR, FLATPAK_ERROR_NOT_INSTALLED)) << error.what();
    EXPECT_NE(error.message().find(runtimeRef()), std::string::npos) << error.what();
  }

  // So this one is the user installation ($FLATPAK_USER_DIR, a temporary directory).
  auto user = Installation::openAt(repository.userDir());
  user.addRemote(remote, repository.url());
  {
    Transaction transaction(user);
    transaction.addInstall(remote, appRef(hello, branch));
    transaction.run();
  }
  const auto launched = user.launch(hello, branch);
  EXPECT_FALSE(launched.instanceId.empty());
  ASSERT_GT(launched.pid, 0);

  // Not our child: its end is an event on a pidfd. Already gone is fine too.
  const testing::Fd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, launched.pid, 0)));
  if (pidfd.valid()) {
    pollfd entry{pidfd.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1) << "the app did not end";
  }
  EXPECT_EQ(readFile(repository.home() / ".var/app" / hello / "data/corvane-marker"),
            "org.corvane.Test.Hello 1.0 \n");
}

}  // namespace
}  // namespace corvane::flatpak
