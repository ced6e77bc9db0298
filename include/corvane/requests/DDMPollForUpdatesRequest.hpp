#pragma once

namespace corvane {

/// Asks the daemon to poll the store for catalogue updates. No fields; not coded.
struct DDMPollForUpdatesRequest {};

}  // namespace corvane
