#pragma once

#include "GObjectPtr.hpp"

#include <cstddef>
#include <cstdint>
#include <flatpak.h>
#include <functional>
#include <string>
#include <string_view>

namespace corvane::flatpak {

class Installation;

enum class OperationKind { install, update, uninstall, other };

/// Where one operation of a transaction stands.
enum class OperationPhase {
  /// Fetching its objects; `percent` and `bytesTransferred` move.
  downloading,
  /// Everything is fetched (the download reached 100 %); it is being deployed.
  installing,
  /// Deployed (or removed, for an uninstall).
  done,
};

/// One progress report. Downloads report about every 100 ms while objects arrive; every
/// operation ends with `done`. Uninstalls report only `done`.
struct TransactionProgress {
  /// The ref the operation is about, "app/ID/ARCH/BRANCH".
  std::string ref;
  OperationKind kind = OperationKind::other;
  OperationPhase phase = OperationPhase::downloading;
  /// The operation's progress, 0 to 100, as libflatpak estimates it, but never lower than in
  /// an earlier report of the operation (libflatpak's own estimate can dip).
  int percent = 0;
  /// Bytes fetched so far for this operation.
  std::uint64_t bytesTransferred = 0;
  /// The operation's download size as the remote announced it (0 when unknown).
  std::uint64_t downloadSize = 0;
  /// 1-based position of the operation, and how many the transaction has.
  std::size_t operation = 0;
  std::size_t operationCount = 0;
  /// The whole transaction's progress, 0 to 100: operations weighted by their download sizes
  /// (equally when no size is known).
  int transactionPercent = 0;
};

using ProgressCallback = std::function<void(const TransactionProgress&)>;

/// One Flatpak transaction: installs, updates and uninstalls, with the runtimes installs need
/// (from the installation's remotes). Non-interactive. Add operations, then `run()` once.
///
/// Threads: everything but `cancel()` on one thread at a time; the transaction owns a
/// GMainContext that it makes the thread-default one while it works, so it neither needs nor
/// disturbs a main loop of the caller's. `cancel()` may be called from any thread at any time.
/// Uses its Installation (which must outlive it) for as long as it lives.
class Transaction {
 public:
  /// Throws FlatpakError when libflatpak cannot make a transaction.
  explicit Transaction(Installation& installation);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();

  /// Installs `ref` ("app/ID/ARCH/BRANCH" or "runtime/...") from `remote`, with its runtime.
  /// Throws FlatpakError (already installed: FLATPAK_ERROR_ALREADY_INSTALLED).
  void addInstall(const std::string& remote, const std::string& ref);
  /// Installs what a .flatpakref file describes (its text), adding the remote it names (and, for
  /// a runtime it does not find, the RuntimeRepo it names). A text that does not parse throws
  /// FlatpakError here or from run().
  void addInstallFlatpakref(std::string_view contents);
  /// Updates the installed `ref` to the newest commit of its remote.
  void addUpdate(const std::string& ref);
  void addUninstall(const std::string& ref);

  /// Runs the operations on the calling thread; `progress` (if any) is called on this thread.
  /// Throws FlatpakError: the first operation's error when one fails (its own domain, code and
  /// message), `cancelled()` when `cancel()` stopped it, or whatever `progress` threw (which
  /// cancels the transaction). Operations that finished before stay done.
  void run(const ProgressCallback& progress = {});

  /// Stops `run()` as soon as libflatpak looks (between and within downloads); before `run()`,
  /// makes it fail at once. Thread-safe, never throws.
  void cancel() noexcept;

 private:
  struct RunState;

  GMainContextPtr context_;
  GObjectPtr<GCancellable> cancellable_;
  GObjectPtr<FlatpakTransaction> transaction_;
};

}  // namespace corvane::flatpak
