#pragma once

#include <string>

namespace corvane {

/// Names the managed app to remove by its declaration identifier. Not coded: the remove
/// operation sends the identifier alone.
struct DDMRemoveManagedAppRequest {
  std::string declarationIdentifier;
};

}  // namespace corvane
