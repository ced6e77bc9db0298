#pragma once

namespace corvane {

/// Asks the daemon to forget its managed-app install history. No fields; not coded.
struct DDMResetManagedAppInstallHistoryRequest {};

}  // namespace corvane
