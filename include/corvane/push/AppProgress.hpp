#pragma once

#include <corvane/coding/WireTypes.hpp>
#include <corvane/model/AppState.hpp>

#include <boost/describe/class.hpp>
#include <boost/uuid/uuid.hpp>

#include <string>

namespace corvane {

/// The state of one app as the daemon reports it. `uuid` travels with the record and is not
/// interpreted here. Coded as {"state", "bundleID", "uuid"}, all required.
struct AppProgress {
  AppState state = AppState::waiting();
  std::string bundleID;  ///< the app the state belongs to
  boost::uuids::uuid uuid{};

  friend bool operator==(const AppProgress&, const AppProgress&) = default;
};
BOOST_DESCRIBE_STRUCT(AppProgress, (), (state, bundleID, uuid))

}  // namespace corvane
