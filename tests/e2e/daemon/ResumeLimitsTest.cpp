// The daemon's store of resumable clients against clients that do not play by the rules: many
// tokens, many registrations, tokens too long or malformed; and a client that sends no token,
// which is served as always and whose registrations end with its connection.

#include "support/DaemonProcess.hpp"
#include "support/ServiceClient.hpp"

#include <corvane/Corvane.hpp>
#include <corvane/ipc/FrameDecoder.hpp>
#include <corvane/push/ListenerStreams.hpp>
#include <corvane/service/ManagedAppLibrary.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <poll.h>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace corvane::testing {
namespace {

using namespace std::chrono_literals;

/// A client that writes the protocol's frames itself, whatever its HELLO says.
class RawClient {
 public:
  RawClient(const std::filesystem::path& socket, std::string_view hello)
      : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.native().copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    if (::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT: C API
                  sizeof address)
        != 0)
      throw std::system_error(errno, std::generic_category(), "connect");
    write(ipc::Frame{ipc::FrameKind::hello, 0, {}, Bytes(std::string(hello))});
  }

  /// Registers for `registrations` (their coded JSON list), the hub named `uuid`.
  void registerFor(std::string_view registrations, std::string_view uuid) {
    write(ipc::Frame{ipc::FrameKind::call, ++serial_,
                     std::string(ServiceProtocol::Selectors::addMessageRegistrations.name),
                     Bytes(fmt::format(R"([{}, "{}"])", registrations, uuid))});
  }

  /// Asks for the declaration keys; the daemon answers after whatever it sent before.
  void askForKeys() {
    write(ipc::Frame{ipc::FrameKind::call, ++serial_,
                     std::string(ServiceProtocol::Selectors::currentDeclarationKeys.name),
                     std::nullopt});
  }

  /// The payloads of the MESSAGEs the daemon sends until `done` holds for one of them or, with
  /// `untilReply`, until a REPLY comes; gives up after 30 s or at the end of the connection.
  std::vector<std::string> read(bool untilReply,
                                const std::function<bool(const std::string&)>& done = {}) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    std::vector<std::string> messages;
    ipc::Frame frame;
    while (true) {
      const auto status = decoder_.next(frame);
      if (status == ipc::FrameDecoder::Status::violation) return messages;
      if (status == ipc::FrameDecoder::Status::frame) {
        if (frame.kind == ipc::FrameKind::reply && untilReply) return messages;
        if (frame.kind == ipc::FrameKind::message && frame.payload) {
          messages.emplace_back(frame.payload->view());
          if (done && done(messages.back())) return messages;
        }
        continue;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd readable{fd_.get(), POLLIN, 0};
      if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0)
        return messages;
      auto room = decoder_.prepare(65536);
      const auto n = ::read(fd_.get(), room.data(), room.size());
      if (n <= 0) return messages;
      decoder_.commit(static_cast<std::size_t>(n));
    }
  }

 private:
  void write(const ipc::Frame& frame) {
    const auto bytes = ipc::encodeFrame(frame);
    ASSERT_EQ(::write(fd_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  Fd fd_;
  ipc::FrameDecoder decoder_;
  std::uint64_t serial_ = 0;
};

/// A hub identifier of its own for raw client `n`, to find its lines in the daemon's log.
std::string hubOf(int n) {
  return fmt::format("00000000-0000-4000-8000-{:012}", n);
}

/// `count` registrations for the state of apps no one has, `first` onwards.
std::string stateRegistrations(int first, int count) {
  std::string list = "[";
  for (int i = first; i < first + count; ++i)
    list += fmt::format(R"({}{{"appStateChangeByBundleID": {{"bundleID": "b.{}"}}}})",
                        i == first ? "" : ",", i);
  return list + "]";
}

/// The rows of `table` (and a condition) in the daemon's state file (read while it runs: the store
/// is in WAL mode).
std::int64_t rowsOf(const std::filesystem::path& database, std::string_view table) {
  sqlite3* db = nullptr;
  std::int64_t rows = -1;
  if (sqlite3_open_v2(database.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 30'000);
    sqlite3_stmt* query = nullptr;
    const auto sql = fmt::format("SELECT count(*) FROM {}", table);
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr) == SQLITE_OK
        && sqlite3_step(query) == SQLITE_ROW)
      rows = sqlite3_column_int64(query, 0);
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return rows;
}

class ResumeLimits : public ::testing::Test {
 protected:
  void SetUp() override {
    // Before the library's first use, so that its shared connection goes to this daemon.
    ::setenv("CORVANE_RUNTIME_DIR", runtime_.path().c_str(), 1);  // NOLINT: no threads yet
  }

  /// Connects raw client `n` with `hello`, registers it for `registrations` and waits until the
  /// daemon has dealt with them (it logs the registration once the store has it).
  void registerRaw(int n, std::string_view hello, std::string_view registrations) {
    RawClient client(daemon_.socketPath(), hello);
    client.registerFor(registrations, hubOf(n));
    ASSERT_TRUE(daemon_.process().waitForError(hubOf(n) + ") registered "))
        << daemon_.process().err();
  }

  TemporaryDirectory runtime_;
  std::filesystem::path database_ = runtime_.path() / "state.db";
  DaemonProcess daemon_{runtime_.path(), {"--verbose", "--state", database_.native()}};
};

TEST_F(ResumeLimits, ManyTokensAndRegistrationsCannotGrowTheStorePastItsBounds) {
  // A well-behaved client follows the catalogue (the library presents its resume token).
  auto catalog = ManagedAppLibrary::shared().managedApps();
  ASSERT_TRUE(nextWithin(catalog).has_value());
  ASSERT_TRUE(daemon_.process().waitForError(") registered ")) << daemon_.process().err();
  ASSERT_EQ(rowsOf(database_, "resumable_clients"), 1);

  // A token of the longest size is remembered; one byte longer, or not hex digit pairs, or not a
  // string, is ignored: that client is served but not remembered.
  const std::string longest(2 * ipc::maxResumeTokenSize, 'a');
  registerRaw(1, fmt::format(R"({{"protocol":1,"resume":"{}"}})", longest),
              "[{\"appCatalog\": {}}]");
  EXPECT_EQ(rowsOf(database_, "resumable_clients"), 2);
  int n = 2;
  for (const auto& token :
       {longest + "aa", std::string("zz"), std::string("abc"), std::string("0g"), std::string()}) {
    SCOPED_TRACE(token);
    registerRaw(n++, fmt::format(R"({{"protocol":1,"resume":"{}"}})", token),
                "[{\"appCatalog\": {}}]");
  }
  registerRaw(n++, R"({"protocol":1,"resume":42})", "[{\"appCatalog\": {}}]");
  EXPECT_EQ(rowsOf(database_, "resumable_clients"), 2);
  EXPECT_EQ(rowsOf(database_, "resumable_registrations"), 2);

  // One client registers far more than one client may have remembered, in two calls.
  {
    RawClient greedy(daemon_.socketPath(), ipc::helloPayloadWith("greedy"));
    greedy.registerFor(stateRegistrations(0, 300), hubOf(100));
    greedy.registerFor(stateRegistrations(300, 50), hubOf(101));
    ASSERT_TRUE(daemon_.process().waitForError(hubOf(101) + ") registered "))
        << daemon_.process().err();
  }
  EXPECT_TRUE(daemon_.process().err().contains("has 256 registrations remembered already"));
  EXPECT_EQ(rowsOf(database_, "resumable_registrations"), 2 + 256);

  // Forty clients of one uid, each under a token of its own: 32 are remembered at most, the
  // least recently seen making room.
  for (int i = 0; i < 40; ++i)
    registerRaw(200 + i, ipc::helloPayloadWith(fmt::format("token-{}", i)),
                "[{\"appCatalog\": {}}]");
  EXPECT_EQ(rowsOf(database_, "resumable_clients"), 32);
  // The newest is among them: room is made for a new client, never by forgetting it.
  EXPECT_EQ(rowsOf(database_, "resumable_clients WHERE token = 'token-39'"), 1);
  EXPECT_LE(rowsOf(database_, "resumable_registrations"), 32 * 256);

  // The well-behaved client is still served, live.
  declare("D-notes", StoreAppIdentifier::itemID(notesItem), InstallTimingEnum::onDemand);
  EXPECT_TRUE(readUntil(catalog, [](const CatalogResult& result) {
    const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
    return apps != nullptr && apps->size() == 1;
  }));
  EXPECT_TRUE(daemon_.process().running());
}

TEST_F(ResumeLimits, AClientWithoutATokenIsServedAndNotRememberedAcrossARestart) {
  {
    RawClient old(daemon_.socketPath(), ipc::helloPayload);
    old.registerFor("[{\"appCatalog\": {}}]", hubOf(1));
    // Served as always: the current catalogue comes at once.
    const auto pushed = old.read(
        false, [](const std::string& message) { return message.contains("managedAppCatalog"); });
    ASSERT_FALSE(pushed.empty()) << daemon_.process().err();
    EXPECT_TRUE(pushed.back().contains("managedAppCatalog")) << pushed.back();
  }
  ASSERT_TRUE(daemon_.process().waitForError(hubOf(1) + ") registered "))
      << daemon_.process().err();
  EXPECT_EQ(rowsOf(database_, "resumable_clients"), 0);
  EXPECT_EQ(rowsOf(database_, "resumable_registrations"), 0);

  daemon_.kill();
  daemon_.restart();
  // It comes back, greeting the same way: a restored registration would be pushed its catalogue
  // right after the greeting, before the answer to a later call; none is.
  RawClient again(daemon_.socketPath(), ipc::helloPayload);
  again.askForKeys();
  for (const auto& message : again.read(true))
    EXPECT_FALSE(message.contains("managedAppCatalog")) << message;
  EXPECT_FALSE(daemon_.process().err().contains(" resumed with ")) << daemon_.process().err();
}

}  // namespace
}  // namespace corvane::testing
