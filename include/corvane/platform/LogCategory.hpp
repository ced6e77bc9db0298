#pragma once

#include <corvane/platform/Log.hpp>

#include <string_view>

namespace corvane {

/// The library's log categories: one handle each, made on first use and kept for the life of the
/// process, all under the subsystem `LogCategory::subsystem`. The library itself writes only to
/// `tether()`; components that link it use the others.
struct LogCategory {
  /// The library's log subsystem identifier.
  static constexpr std::string_view subsystem = "dev.corvane.Corvane";

  static const platform::Log& appLaunch();  ///< "App Launch"
  static const platform::Log& daemon();     ///< "Daemon"
  static const platform::Log& ddm();        ///< "DDM"
  static const platform::Log& download();   ///< "Download"
  static const platform::Log& general();    ///< "General"
  static const platform::Log& install();    ///< "Install"
  static const platform::Log& library();    ///< "Library"
  static const platform::Log& oauth();      ///< "OAuth"
  static const platform::Log& progress();   ///< "Progress"
  static const platform::Log& scheduler();  ///< "Scheduler"
  static const platform::Log& updates();    ///< "Updates"
  static const platform::Log& vpp();        ///< "VPP"
  static const platform::Log& tether();     ///< "Tether": connection, service calls, message hub
};

}  // namespace corvane
