#pragma once

#include <string>

namespace corvane {

/// Names the app to launch by its bundle identifier. Not coded: the launch operation sends the
/// identifier alone.
struct AppLaunchRequest {
  std::string bundleID;
};

}  // namespace corvane
