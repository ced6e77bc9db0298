#pragma once

#include <corvane/base/Bytes.hpp>
#include <corvane/coding/CorvaneError.hpp>
#include <corvane/ipc/ExportedObject.hpp>
#include <corvane/ipc/InterfaceDescription.hpp>
#include <corvane/model/AppState.hpp>
#include <corvane/model/ManagedApp.hpp>
#include <corvane/push/AppProgress.hpp>
#include <corvane/push/AsyncStream.hpp>
#include <corvane/push/MessageRegistration.hpp>
#include <corvane/push/TetherClientMessage.hpp>
#include <corvane/push/TetherClientProtocol.hpp>

#include <boost/uuid/uuid.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace corvane {

/// A catalogue as pushed by the daemon: the list of apps, or the error that kept it from being
/// made.
using CatalogResult = std::variant<std::vector<ManagedApp>, CorvaneError>;

/// The bridge between the hub and one stream: it holds the stream's producing end, and yielding
/// to it is yielding to the stream (whether the buffer kept the value is not looked at).
/// Dropping the last reference releases the producing end and does not finish the stream. The
/// hub holds listeners in its tables and tells them apart by identity.
template <class Element>
class AsyncStreamListener {
 public:
  explicit AsyncStreamListener(typename AsyncStream<Element>::Continuation producer) noexcept
      : continuation(std::move(producer)) {}
  /// Hands `value` to the stream; never runs the consumer's code here.
  void yield(Element value) const { (void)continuation.yield(std::move(value)); }

  typename AsyncStream<Element>::Continuation continuation;
};

class TetherClient;

namespace push::detail {
struct HubStorage;  // the hub's state, in src/push/detail/HubStorage.hpp
[[nodiscard]] HubStorage snapshot(const TetherClient& hub);
}  // namespace push::detail

/// The process's one receiver of pushed messages. The shared service connection exports it to
/// the daemon (`handleMessages:`); it asks the daemon for the kinds of message its listeners want
/// and withdraws a kind when the last listener of it goes, keeps the last catalogue and the last
/// state of each app, hands a new listener the cached value at once, and fans every pushed value
/// out to the listeners that want it.
///
/// Locking: one mutex guards the hub's whole state. Every listener operation holds it for its
/// whole run, including the synchronous "removeMessageRegistrations:reply:" call that withdrawing
/// a kind makes (so ending a stream blocks other hub users until the daemon answers). Values
/// from the daemon are yielded and callbacks called without it, on the connection's delivery
/// executor; a cached value is yielded to a new listener under it, from the adding thread.
/// Yielding never runs consumer code, so holding the lock while yielding is safe.
class TetherClient final : public ipc::ExportedObject, public TetherClientProtocol {
 public:
  using CatalogListener = AsyncStreamListener<CatalogResult>;
  using ProgressListener = AsyncStreamListener<AppProgress>;
  using StateListener = AsyncStreamListener<AppState>;

  /// One plain callback for the state of one app, removed by its `id`.
  struct IdentifiableAppStateChangeBlock {
    std::string id;
    std::function<void(const AppState&)> block;
  };

  /// How long a withdrawal waits for the daemon's answer, with the hub's mutex held. Past it the
  /// withdrawal counts as failed: its error line is written and the registration stays active, so
  /// a later withdrawal tries again. It bounds how long ending a stream can block.
  static constexpr std::chrono::seconds withdrawalTimeout{3};

  /// The process's instance, made on first use (thread-safe) and never destroyed.
  [[nodiscard]] static TetherClient& shared();
  /// The same instance, as the connection exports it.
  [[nodiscard]] static std::shared_ptr<TetherClient> sharedPointer();

  TetherClient();
  ~TetherClient() override;
  TetherClient(const TetherClient&) = delete;
  TetherClient& operator=(const TetherClient&) = delete;

  /// A random identifier made with the instance; sent with every registration request.
  [[nodiscard]] const boost::uuids::uuid& clientID() const noexcept { return clientID_; }

  // Listener operations: each holds the hub's mutex for its whole run (see the class comment).
  void addCatalogListener(const std::shared_ptr<CatalogListener>& listener);
  void removeCatalogListener(const std::shared_ptr<CatalogListener>& listener);
  void addProgressListener(const std::shared_ptr<ProgressListener>& listener);
  void removeProgressListener(const std::shared_ptr<ProgressListener>& listener);
  void addStateListener(const std::shared_ptr<StateListener>& listener, const ManagedApp& app);
  void removeStateListener(const std::shared_ptr<StateListener>& listener, const ManagedApp& app);
  void addStateChangeBlock(const std::string& bundleID, std::string id,
                           std::function<void(const AppState&)> block);
  void removeStateChangeBlock(const std::string& bundleID, const std::string& id);

  /// Handles one pushed batch, in order (see the class comment for threads and locking).
  void handleMessages(Bytes messages) override;
  /// The exported object's entry point: "handleMessages:" goes to `handleMessages`.
  void handle(std::string_view operation, std::optional<Bytes> argument, ipc::Reply reply) override;

 private:
  /// Asks the daemon for the registrations not active yet (mutex held); the request is sent
  /// from a task nobody awaits, which makes them inactive again if it fails.
  void registerLocked(const std::vector<MessageRegistration>& registrations);
  /// Withdraws the active ones with a synchronous call, the mutex held.
  void unregisterLocked(const std::vector<MessageRegistration>& registrations);
  void handle(const TetherClientMessage& message);

  friend push::detail::HubStorage push::detail::snapshot(const TetherClient& hub);

  const boost::uuids::uuid clientID_;
  mutable std::mutex mutex_;
  const std::unique_ptr<push::detail::HubStorage> storage_;  // behind `mutex_`
};

}  // namespace corvane
