#pragma once

// What the end-to-end tests do through the library against a real daemon: declare, read the
// status, install or cancel a declared app, and read streams with a bound.

#include <corvane/Corvane.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

namespace corvane::testing {

/// How long a test waits for anything the daemon does.
inline constexpr std::chrono::seconds bound{30};

/// Item identifier of Notes in the daemon's built-in sample catalogue.
inline constexpr std::int64_t notesItem = 1000000001;

/// How many times `part` occurs in `text` (log lines counted in a daemon's output).
inline std::size_t occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

inline ManagedAppDeclaration declaration(
    const std::string& identifier, StoreAppIdentifier app,
    InstallTimingEnum timing = InstallTimingEnum::immediately) {
  return ManagedAppDeclaration(
      "key-" + identifier, identifier, std::nullopt,
      InstallBehavior{timing, false, PurchaseMethodEnum::volumePurchaseProgram(std::move(app))},
      BackupBehavior{}, UpdateBehaviorEnum::automaticallyUpdate(), Platform::phone);
}

inline void declare(const std::string& identifier, StoreAppIdentifier app,
                    InstallTimingEnum timing = InstallTimingEnum::immediately) {
  DDMAppOrUpdateManagedAppRequest(declaration(identifier, std::move(app), timing))
      .performSynchronously();
}

inline std::optional<ManagedAppStatus> statusOf(std::string_view declarationIdentifier) {
  for (auto& status : DDMDeclarationStatusRequest{}.performSynchronously())
    if (status.declarationIdentifier == declarationIdentifier) return status;
  return std::nullopt;
}

/// Sends "installManagedApp:reply:" naming a declaration (none: every optional app), as
/// ManagedAppLibrary does for a catalogue entry.
inline void installDeclared(const std::optional<std::string>& identifier) {
  ServiceConnection::withAsyncService<None>(
      std::tuple(ManagedAppInstallRequest(identifier, std::nullopt)),
      [](const ServiceProtocol& proxy, Bytes argument, ipc::Completion reply) {
        proxy.installManagedApp(std::move(argument), std::move(reply));
      },
      boost::asio::use_future)
      .get();
}

/// Sends "cancelManagedApp:reply:" naming a declaration (none: every install under way).
inline void cancelDeclared(const std::optional<std::string>& identifier) {
  ServiceConnection::withAsyncService<None>(
      std::tuple(ManagedAppCancelRequest{identifier}),
      [](const ServiceProtocol& proxy, Bytes argument, ipc::Completion reply) {
        proxy.cancelManagedApp(std::move(argument), std::move(reply));
      },
      boost::asio::use_future)
      .get();
}

/// The error `call` failed with; empty when it succeeded.
inline std::optional<Error> failureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

/// The next value of a stream, or nothing when none came within the bound.
template <class Stream>
auto nextWithin(Stream& stream, std::chrono::seconds within = bound) {
  auto future = stream.next(boost::asio::use_future);
  using Result = decltype(future.get());
  if (future.wait_for(within) != std::future_status::ready) return Result();
  return future.get();
}

/// Reads `stream` until `done(value)` holds; false when the stream ended or went quiet.
template <class Stream, class Done>
bool readUntil(Stream& stream, Done&& done) {
  while (true) {
    auto value = nextWithin(stream);
    if (!value) return false;
    if (done(*value)) return true;
  }
}

/// Reads the progress stream until `app` shows `state`.
template <class Stream>
bool reaches(Stream& progress, std::string_view app, const AppState& state) {
  return readUntil(progress, [&](const AppProgress& value) {
    return value.bundleID == app && value.state == state;
  });
}

/// The first entry of the first non-empty catalogue `catalog` delivers; empty when none came
/// within the bound.
template <class Stream>
std::optional<ManagedApp> firstCatalogEntry(Stream& catalog) {
  std::optional<ManagedApp> entry;
  (void)readUntil(catalog, [&](const auto& result) {
    const auto* apps = std::get_if<std::vector<ManagedApp>>(&result);
    if (apps == nullptr || apps->empty()) return false;
    entry = apps->front();
    return true;
  });
  return entry;
}

}  // namespace corvane::testing
