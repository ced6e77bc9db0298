#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/CodingPath.hpp>

#include <fmt/format.h>

#include <vector>

namespace corvane {

CodingError::CodingError(Kind kind, std::string codingPath, std::string description)
    : std::runtime_error(fmt::format("{} at \"{}\": {}", toString(kind), codingPath, description)),
      kind_(kind),
      path_(std::move(codingPath)),
      description_(std::move(description)) {}

std::string_view toString(CodingError::Kind kind) noexcept {
  switch (kind) {
    case CodingError::Kind::keyNotFound:
      return "keyNotFound";
    case CodingError::Kind::valueNotFound:
      return "valueNotFound";
    case CodingError::Kind::typeMismatch:
      return "typeMismatch";
    case CodingError::Kind::dataCorrupted:
      return "dataCorrupted";
    case CodingError::Kind::invalidValue:
      return "invalidValue";
  }
  return "unknown";
}

namespace coding {

std::string CodingPath::toString() const {
  std::vector<const CodingPath*> chain;
  for (const CodingPath* node = this; node != nullptr && node->kind_ != Kind::root;
       node = node->parent_) {
    chain.push_back(node);
  }
  std::string out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if ((*it)->kind_ == Kind::index) {
      out += fmt::format("[{}]", (*it)->index_);
    } else {
      if (!out.empty()) out += '.';
      out += (*it)->key_;
    }
  }
  return out;
}

}  // namespace coding
}  // namespace corvane
