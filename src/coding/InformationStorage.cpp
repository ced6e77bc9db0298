#include <corvane/coding/InformationStorage.hpp>

namespace corvane {

double InformationStorage::bytes() const noexcept {
  switch (unit) {
    case Unit::bit:
      return value / 8.0;
    case Unit::B:
      return value;
    case Unit::kB:
      return value * 1e3;
    case Unit::MB:
      return value * 1e6;
    case Unit::GB:
      return value * 1e9;
    case Unit::TB:
      return value * 1e12;
    case Unit::KiB:
      return value * 1024.0;
    case Unit::MiB:
      return value * 1048576.0;
    case Unit::GiB:
      return value * 1073741824.0;
    case Unit::TiB:
      return value * 1099511627776.0;
  }
  return value;
}

}  // namespace corvane
