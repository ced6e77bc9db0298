#include <corvane/service/ManagedAppLibrary.hpp>

namespace corvane {

ManagedAppLibrary& ManagedAppLibrary::shared() noexcept {
  static ManagedAppLibrary instance;
  return instance;
}

}  // namespace corvane
