#include "push/detail/HubStorage.hpp"

#include <corvane/coding/TetherDecoder.hpp>
#include <corvane/platform/BuildVariant.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/platform/Random.hpp>
#include <corvane/push/TetherClient.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <algorithm>
#include <cstdio>
#include <tuple>

namespace corvane {

namespace {

/// The active registrations among `registrations` (or those not active, with `active` false),
/// in their order.
std::vector<MessageRegistration> filter(const std::vector<MessageRegistration>& registrations,
                                        const std::unordered_set<MessageRegistration>& set,
                                        bool active) {
  std::vector<MessageRegistration> result;
  for (const auto& registration : registrations) {
    if (set.contains(registration) == active) result.push_back(registration);
  }
  return result;
}

template <class Listener>
std::size_t eraseListener(std::vector<std::shared_ptr<Listener>>& list,
                          const std::shared_ptr<Listener>& listener) {
  return std::erase(list, listener);
}

std::string errorText(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown error";
  }
}

}  // namespace

std::shared_ptr<TetherClient> TetherClient::sharedPointer() {
  static const std::shared_ptr<TetherClient> instance = std::make_shared<TetherClient>();
  return instance;
}

TetherClient& TetherClient::shared() {
  static TetherClient& instance = *sharedPointer();
  return instance;
}

TetherClient::TetherClient()
    : clientID_(platform::Random::uuid()), storage_(std::make_unique<push::detail::HubStorage>()) {}

TetherClient::~TetherClient() = default;

push::detail::HubStorage push::detail::snapshot(const TetherClient& hub) {
  const std::lock_guard lock(hub.mutex_);
  return *hub.storage_;
}

// ---- registrations (mutex held) --------------------------------------------------------------

void TetherClient::registerLocked(const std::vector<MessageRegistration>& registrations) {
  auto pending = filter(registrations, storage_->activeRegistrations, false);
  if (pending.empty()) return;
  LogCategory::tether().info("Registering for messages: {}", description(pending));
  storage_->activeRegistrations.insert(pending.begin(), pending.end());
  // Nobody waits for it; a failure makes the registrations inactive again, so that a later
  // listener asks again.
  ServiceConnection::withAsyncService<None>(
      std::tuple(pending, clientID_),
      service::detail::Call<ServiceProtocol::Selectors::addMessageRegistrations>{},
      [this, pending](const std::exception_ptr& failure) {
        if (!failure) return;
        LogCategory::tether().error("Error registering for message: {}: {}", description(pending),
                                    errorText(failure));
        const std::lock_guard hub(mutex_);
        for (const auto& registration : pending) storage_->activeRegistrations.erase(registration);
      });
}

void TetherClient::unregisterLocked(const std::vector<MessageRegistration>& registrations) {
  auto withdrawn = filter(registrations, storage_->activeRegistrations, true);
  if (withdrawn.empty()) return;
  try {
    ServiceConnection::withSyncService<None>(
        std::tuple(withdrawn, clientID_),
        service::detail::Call<ServiceProtocol::Selectors::removeMessageRegistrations>{},
        std::chrono::steady_clock::now() + withdrawalTimeout);
  } catch (...) {
    LogCategory::tether().error("Error removing registration for message: {}: {}",
                                description(withdrawn), errorText(std::current_exception()));
    return;
  }
  for (const auto& registration : withdrawn) storage_->activeRegistrations.erase(registration);
}

// ---- listeners -------------------------------------------------------------------------------

void TetherClient::addCatalogListener(const std::shared_ptr<CatalogListener>& listener) {
  const std::lock_guard hub(mutex_);
  storage_->catalogListeners.push_back(listener);
  if (storage_->cachedCatalog) {
    LogCategory::tether().info("Sending cached app catalog results to listener");
    listener->yield(*storage_->cachedCatalog);
  }
  registerLocked({MessageRegistration::appCatalog()});
}

void TetherClient::removeCatalogListener(const std::shared_ptr<CatalogListener>& listener) {
  const std::lock_guard hub(mutex_);
  eraseListener(storage_->catalogListeners, listener);
  if (storage_->catalogListeners.empty()) unregisterLocked({MessageRegistration::appCatalog()});
}

void TetherClient::addProgressListener(const std::shared_ptr<ProgressListener>& listener) {
  const std::lock_guard hub(mutex_);
  // Every listener is stored; the kind is asked for once, when the first one comes.
  storage_->progressListeners.push_back(listener);
  registerLocked({MessageRegistration::globalAppProgress()});
}

void TetherClient::removeProgressListener(const std::shared_ptr<ProgressListener>& listener) {
  const std::lock_guard hub(mutex_);
  eraseListener(storage_->progressListeners, listener);
  if (storage_->progressListeners.empty())
    unregisterLocked({MessageRegistration::globalAppProgress()});
}

void TetherClient::addStateListener(const std::shared_ptr<StateListener>& listener,
                                    const ManagedApp& app) {
  const std::string& bundleID = app.bundleID();
  const std::lock_guard hub(mutex_);
  storage_->stateListeners[bundleID].push_back(listener);
  ++storage_->subscriberCounts[bundleID];
  if (auto cached = storage_->cachedStates.find(bundleID); cached != storage_->cachedStates.end()) {
    LogCategory::tether().info("Sending cached app state results to listener for {}", bundleID);
    listener->yield(cached->second);
  }
  registerLocked({MessageRegistration::appStateChangeByBundleID(bundleID)});
}

void TetherClient::removeStateListener(const std::shared_ptr<StateListener>& listener,
                                       const ManagedApp& app) {
  const std::string& bundleID = app.bundleID();
  const std::lock_guard hub(mutex_);
  auto& remaining = storage_->stateListeners[bundleID];
  const auto removed = static_cast<std::int64_t>(eraseListener(remaining, listener));
  if (remaining.empty()) storage_->cachedStates.erase(bundleID);
  auto& count = storage_->subscriberCounts[bundleID];
  count -= removed;
  if (count < 1) unregisterLocked({MessageRegistration::appStateChangeByBundleID(bundleID)});
}

void TetherClient::addStateChangeBlock(const std::string& bundleID, std::string id,
                                       std::function<void(const AppState&)> block) {
  const std::lock_guard hub(mutex_);
  storage_->stateChangeBlocks[bundleID].push_back({std::move(id), std::move(block)});
  ++storage_->subscriberCounts[bundleID];
  registerLocked({MessageRegistration::appStateChangeByBundleID(bundleID)});
}

void TetherClient::removeStateChangeBlock(const std::string& bundleID, const std::string& id) {
  const std::lock_guard hub(mutex_);
  auto& remaining = storage_->stateChangeBlocks[bundleID];
  const auto removed = static_cast<std::int64_t>(
      std::erase_if(remaining, [&](const auto& block) { return block.id == id; }));
  auto& count = storage_->subscriberCounts[bundleID];
  count -= removed;
  if (count < 1) unregisterLocked({MessageRegistration::appStateChangeByBundleID(bundleID)});
}

// ---- pushed messages -------------------------------------------------------------------------

void TetherClient::handle(std::string_view operation, std::optional<Bytes> argument,
                          ipc::Reply /*reply*/) {
  if (operation == "handleMessages:" && argument) handleMessages(std::move(*argument));
}

void TetherClient::handleMessages(Bytes messages) {
  std::vector<TetherClientMessage> batch;
  try {
    std::tie(batch) = TetherDecoder<std::vector<TetherClientMessage>>::decode(messages);
  } catch (const CodingError& error) {
    LogCategory::tether().error("Error decoding Tether client message: {} at {}: {}",
                                toString(error.kind()), error.codingPath(), error.description());
    return;
  } catch (const std::exception& error) {
    LogCategory::tether().error("Error decoding Tether client message: {}", error.what());
    return;
  }
  LogCategory::tether().debug("Received a batch of {} pushed messages ({} bytes)", batch.size(),
                              messages.size());
  for (const auto& message : batch) handle(message);
}

void TetherClient::handle(const TetherClientMessage& message) {
  using Type = TetherClientMessage::MessageType;
  std::visit(
      [&](const auto& value) {
        using Case = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<Case, Type::AppProgressCase>) {
          const AppProgress& progress = value.progress;
          std::vector<std::shared_ptr<ProgressListener>> progressListeners;
          {
            const std::lock_guard hub(mutex_);
            progressListeners = storage_->progressListeners;
          }
          for (const auto& listener : progressListeners) listener->yield(progress);
          std::vector<std::shared_ptr<StateListener>> stateListeners;
          {
            const std::lock_guard hub(mutex_);
            storage_->cachedStates.insert_or_assign(progress.bundleID, progress.state);
            if (auto found = storage_->stateListeners.find(progress.bundleID);
                found != storage_->stateListeners.end()) {
              stateListeners = found->second;
            }
          }
          for (const auto& listener : stateListeners) listener->yield(progress.state);
          std::vector<IdentifiableAppStateChangeBlock> blocks;
          {
            const std::lock_guard hub(mutex_);
            if (auto found = storage_->stateChangeBlocks.find(progress.bundleID);
                found != storage_->stateChangeBlocks.end()) {
              blocks = found->second;
            }
          }
          for (const auto& block : blocks) {
            if (block.block) block.block(progress.state);
          }
        } else if constexpr (std::is_same_v<Case, Type::Log>) {
          if (platform::BuildVariant::isInternal()) std::printf("%s\n", value.log.c_str());
        } else if constexpr (std::is_same_v<Case, Type::ManagedAppCatalog>) {
          CatalogResult result = CorvaneError::unrecoverableError;
          if (value._1) {
            result = *value._1;
          } else if (value._0) {
            result = *value._0;
          }
          std::vector<std::shared_ptr<CatalogListener>> listeners;
          {
            const std::lock_guard hub(mutex_);
            storage_->cachedCatalog = result;
            listeners = storage_->catalogListeners;
          }
          for (const auto& listener : listeners) listener->yield(result);
        } else {  // connectionEstablished
          if (platform::BuildVariant::isInternal()) {
            const std::lock_guard hub(mutex_);
            registerLocked({MessageRegistration::logging()});
          }
        }
      },
      message.type.cases());
}

}  // namespace corvane
