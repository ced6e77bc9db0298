#pragma once

// The push hub's state, out of the public header: only the hub and the tests that inspect it
// need its layout.

#include <corvane/push/TetherClient.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace corvane::push::detail {

/// The hub's state, all of it behind the hub's mutex.
struct HubStorage {
  std::unordered_set<MessageRegistration> activeRegistrations;
  std::map<std::string, std::vector<TetherClient::IdentifiableAppStateChangeBlock>>
      stateChangeBlocks;
  std::vector<std::shared_ptr<TetherClient::ProgressListener>> progressListeners;
  std::map<std::string, std::vector<std::shared_ptr<TetherClient::StateListener>>> stateListeners;
  std::vector<std::shared_ptr<TetherClient::CatalogListener>> catalogListeners;
  std::optional<CatalogResult> cachedCatalog;
  std::map<std::string, std::int64_t> subscriberCounts;
  std::map<std::string, AppState> cachedStates;
};

/// A copy of the hub's state, taken under its mutex (tests, diagnostics).
[[nodiscard]] HubStorage snapshot(const TetherClient& hub);

}  // namespace corvane::push::detail
