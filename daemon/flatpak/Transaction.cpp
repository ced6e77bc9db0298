#include "Transaction.hpp"

#include "FlatpakError.hpp"
#include "Installation.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <gio/gio.h>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace corvane::flatpak {

namespace {

/// Makes `context` the thread-default main context for the scope, so that libflatpak's sources
/// (progress updates among them) attach to it rather than to the caller's.
class ThreadDefaultContext {
 public:
  explicit ThreadDefaultContext(GMainContext* context) noexcept : context_(context) {
    g_main_context_push_thread_default(context_);
  }
  ThreadDefaultContext(const ThreadDefaultContext&) = delete;
  ThreadDefaultContext& operator=(const ThreadDefaultContext&) = delete;
  ~ThreadDefaultContext() { g_main_context_pop_thread_default(context_); }

 private:
  GMainContext* context_;
};

template <class Function>
gulong connect(gpointer instance, const char* signal, Function* handler, gpointer data) {
  // GObject signals take any handler as a GCallback and call it with the signal's signature.
  return g_signal_connect_data(instance, signal, reinterpret_cast<GCallback>(handler), data,
                               nullptr, GConnectFlags{});
}

struct OperationListFree {
  void operator()(GList* list) const noexcept { g_list_free_full(list, g_object_unref); }
};

OperationKind kindOf(FlatpakTransactionOperationType type) {
  switch (type) {
    case FLATPAK_TRANSACTION_OPERATION_INSTALL:
    case FLATPAK_TRANSACTION_OPERATION_INSTALL_BUNDLE:
      return OperationKind::install;
    case FLATPAK_TRANSACTION_OPERATION_UPDATE:
      return OperationKind::update;
    case FLATPAK_TRANSACTION_OPERATION_UNINSTALL:
      return OperationKind::uninstall;
    default:
      return OperationKind::other;
  }
}

}  // namespace

/// What one run() keeps while libflatpak calls back into it. Lives on run()'s stack; every
/// handler pointing at it is disconnected before it goes.
struct Transaction::RunState {
  Transaction* owner = nullptr;
  const ProgressCallback* callback = nullptr;
  /// The operations as `ready` announced them, in order.
  std::vector<FlatpakTransactionOperation*> operations;
  std::vector<std::uint64_t> sizes;
  std::uint64_t totalSize = 0;
  std::size_t current = 0;  // 1-based; 0 before the first operation
  /// The highest percentage reported for the current operation.
  int highest = 0;
  /// The progress objects whose `changed` points here.
  std::vector<GObjectPtr<FlatpakTransactionProgress>> progresses;
  std::optional<FlatpakError> operationError;
  /// The current operation's progress object (null for an uninstall).
  FlatpakTransactionProgress* currentProgress = nullptr;
  /// What a handler or the user's callback threw.
  std::exception_ptr failure;

  [[nodiscard]] TransactionProgress report(FlatpakTransactionOperation* operation,
                                           OperationPhase phase, int percent,
                                           std::uint64_t bytes) const {
    TransactionProgress progress{
        .ref = toString(flatpak_transaction_operation_get_ref(operation)),
        .kind = kindOf(flatpak_transaction_operation_get_operation_type(operation)),
        .phase = phase,
        .percent = std::clamp(percent, 0, 100),
        .bytesTransferred = bytes,
        .downloadSize = flatpak_transaction_operation_get_download_size(operation),
        .operation = current,
        .operationCount = operations.size(),
        .transactionPercent = 0,
    };
    const double fraction = progress.percent / 100.0;
    double done = 0;
    if (totalSize > 0) {
      std::uint64_t before = 0;
      for (std::size_t i = 0; i + 1 < current && i < sizes.size(); ++i) before += sizes[i];
      const std::uint64_t own = current >= 1 && current <= sizes.size() ? sizes[current - 1] : 0;
      done = (static_cast<double>(before) + fraction * static_cast<double>(own))
             / static_cast<double>(totalSize);
    } else if (!operations.empty() && current >= 1) {
      done = (static_cast<double>(current - 1) + fraction) / static_cast<double>(operations.size());
    }
    // 100 only once the last operation is done.
    const bool finished = phase == OperationPhase::done && current == operations.size();
    progress.transactionPercent =
        std::clamp(static_cast<int>(done * 100.0), 0, finished ? 100 : 99);
    return progress;
  }

  /// Runs `body` for a handler: nothing may be thrown through libflatpak's C frames, so what
  /// the body (the user's callback included) throws is kept, the transaction is cancelled and
  /// run() throws it. After a failure the handlers do nothing more.
  template <class Body>
  void guarded(Body body) noexcept {
    if (failure) return;
    try {
      body();
    } catch (...) {
      failure = std::current_exception();
      owner->cancel();
    }
  }

  void deliver(const TransactionProgress& progress) const {
    if (callback != nullptr && *callback) (*callback)(progress);
  }

  static gboolean onReady(FlatpakTransaction* transaction, gpointer data) {
    auto& state = *static_cast<RunState*>(data);
    // The list and its references are ours; the transaction keeps its own for the run.
    const std::unique_ptr<GList, OperationListFree> list(
        flatpak_transaction_get_operations(transaction));
    state.guarded([&] {
      for (GList* item = list.get(); item != nullptr; item = item->next) {
        auto* operation = static_cast<FlatpakTransactionOperation*>(item->data);
        state.operations.push_back(operation);
        const auto size = flatpak_transaction_operation_get_download_size(operation);
        state.sizes.push_back(size);
        state.totalSize += size;
      }
    });
    return state.failure ? FALSE : TRUE;
  }

  static void onNewOperation(FlatpakTransaction* /*transaction*/,
                             FlatpakTransactionOperation* operation,
                             FlatpakTransactionProgress* progress, gpointer data) {
    auto& state = *static_cast<RunState*>(data);
    state.guarded([&] {
      const auto found = std::find(state.operations.begin(), state.operations.end(), operation);
      state.highest = 0;
      state.currentProgress = nullptr;
      state.current = found == state.operations.end()
                          ? state.current + 1
                          : static_cast<std::size_t>(found - state.operations.begin()) + 1;
      if (flatpak_transaction_operation_get_operation_type(operation)
          == FLATPAK_TRANSACTION_OPERATION_UNINSTALL)
        return;
      flatpak_transaction_progress_set_update_frequency(progress, 100);
      state.progresses.push_back(share(progress));
      state.currentProgress = progress;
      connect(progress, "changed", &RunState::onProgressChanged, data);
      state.deliver(state.report(operation, OperationPhase::downloading, 0, 0));
    });
  }

  static void onProgressChanged(FlatpakTransactionProgress* progress, gpointer data) {
    auto& state = *static_cast<RunState*>(data);
    state.guarded([&] {
      if (state.current == 0 || state.current > state.operations.size()) return;
      // libflatpak's estimate can dip as the pull finds more objects; reports never go back.
      const int percent =
          std::max(state.highest, flatpak_transaction_progress_get_progress(progress));
      state.highest = percent;
      state.deliver(
          state.report(state.operations[state.current - 1],
                       percent >= 100 ? OperationPhase::installing : OperationPhase::downloading,
                       percent, flatpak_transaction_progress_get_bytes_transferred(progress)));
    });
  }

  static void onOperationDone(FlatpakTransaction* /*transaction*/,
                              FlatpakTransactionOperation* operation, const char* /*commit*/,
                              FlatpakTransactionResult /*result*/, gpointer data) {
    auto& state = *static_cast<RunState*>(data);
    state.guarded([&] {
      const auto bytes =
          state.currentProgress == nullptr
              ? 0
              : flatpak_transaction_progress_get_bytes_transferred(state.currentProgress);
      state.deliver(state.report(operation, OperationPhase::done, 100, bytes));
    });
  }

  static gboolean onOperationError(FlatpakTransaction* /*transaction*/,
                                   FlatpakTransactionOperation* operation, const GError* error,
                                   FlatpakTransactionErrorDetails details, gpointer data) {
    // A non-fatal error (a related ref such as a locale extension) does not stop the rest.
    if ((details & FLATPAK_TRANSACTION_ERROR_DETAILS_NON_FATAL) != 0) return TRUE;
    auto& state = *static_cast<RunState*>(data);
    state.guarded([&] {
      if (!state.operationError && error != nullptr)
        state.operationError.emplace(
            fmt::format("{} {}", kindName(operation),
                        toString(flatpak_transaction_operation_get_ref(operation))),
            *error);
    });
    return FALSE;
  }

  /// A .flatpakref may name a repository for its runtime: taking it is part of what the file asks.
  static gboolean onAddNewRemote(FlatpakTransaction* /*transaction*/,
                                 FlatpakTransactionRemoteReason /*reason*/, const char* /*fromId*/,
                                 const char* /*name*/, const char* /*url*/, gpointer /*data*/) {
    return TRUE;
  }

  static std::string_view kindName(FlatpakTransactionOperation* operation) {
    switch (kindOf(flatpak_transaction_operation_get_operation_type(operation))) {
      case OperationKind::install:
        return "install";
      case OperationKind::update:
        return "update";
      case OperationKind::uninstall:
        return "uninstall";
      case OperationKind::other:
        break;
    }
    return "run";
  }
};

Transaction::Transaction(Installation& installation)
    : context_(g_main_context_new()), cancellable_(adopt(g_cancellable_new())) {
  const ThreadDefaultContext scope(context_.get());
  ErrorSlot error;
  transaction_ =
      adopt(flatpak_transaction_new_for_installation(installation.get(), nullptr, error.out()));
  if (!transaction_) error.raise("create a transaction");
  flatpak_transaction_set_no_interaction(transaction_.get(), TRUE);
}

Transaction::~Transaction() {
  const ThreadDefaultContext scope(context_.get());
  transaction_.reset();
}

void Transaction::addInstall(const std::string& remote, const std::string& ref) {
  ErrorSlot error;
  if (!flatpak_transaction_add_install(transaction_.get(), remote.c_str(), ref.c_str(), nullptr,
                                       error.out()))
    error.raise(fmt::format("install {} from {}", ref, remote));
}

void Transaction::addInstallFlatpakref(std::string_view contents) {
  const GBytesPtr bytes(g_bytes_new(contents.data(), contents.size()));
  ErrorSlot error;
  if (!flatpak_transaction_add_install_flatpakref(transaction_.get(), bytes.get(), error.out()))
    error.raise("install from a flatpakref");
}

void Transaction::addUpdate(const std::string& ref) {
  ErrorSlot error;
  if (!flatpak_transaction_add_update(transaction_.get(), ref.c_str(), nullptr, nullptr,
                                      error.out()))
    error.raise(fmt::format("update {}", ref));
}

void Transaction::addUninstall(const std::string& ref) {
  ErrorSlot error;
  if (!flatpak_transaction_add_uninstall(transaction_.get(), ref.c_str(), error.out()))
    error.raise(fmt::format("uninstall {}", ref));
}

void Transaction::run(const ProgressCallback& progress) {
  const ThreadDefaultContext scope(context_.get());
  RunState state;
  state.owner = this;
  state.callback = &progress;
  auto* transaction = transaction_.get();
  connect(transaction, "ready", &RunState::onReady, &state);
  connect(transaction, "new-operation", &RunState::onNewOperation, &state);
  connect(transaction, "operation-done", &RunState::onOperationDone, &state);
  connect(transaction, "operation-error", &RunState::onOperationError, &state);
  connect(transaction, "add-new-remote", &RunState::onAddNewRemote, &state);

  ErrorSlot error;
  const bool ok = flatpak_transaction_run(transaction, cancellable_.get(), error.out()) != FALSE;

  // Nothing may call into `state` once run() returns.
  g_signal_handlers_disconnect_by_data(transaction, &state);
  for (const auto& item : state.progresses)
    g_signal_handlers_disconnect_by_data(item.get(), &state);

  if (state.failure) std::rethrow_exception(state.failure);
  if (ok) return;
  if (g_cancellable_is_cancelled(cancellable_.get()) != FALSE)
    throw FlatpakError("run the transaction", G_IO_ERROR, G_IO_ERROR_CANCELLED,
                       "the transaction was cancelled");
  if (state.operationError) throw *state.operationError;
  error.raise("run the transaction");
}

void Transaction::cancel() noexcept {
  g_cancellable_cancel(cancellable_.get());
}

}  // namespace corvane::flatpak
