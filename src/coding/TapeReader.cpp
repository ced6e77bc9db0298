#include <corvane/coding/detail/TapeReader.hpp>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/string.hpp>

namespace corvane::coding::detail {

boost::json::value TapeReader::toValue(std::size_t at, boost::json::storage_ptr storage) const {
  const Tape::Token& token = tape_[at];
  switch (token.kind) {
    case Tape::Kind::object: {
      boost::json::object object(storage);
      object.reserve(token.size);
      for (std::size_t i = at + 1; i < token.next; i = tape_[i + 1].next) {
        // Where a tree of values puts the last of duplicate keys is its own affair: left to it.
        if (!object.emplace(tape_[i].text, toValue(i + 1, storage)).second) throw Unread();
      }
      return object;
    }
    case Tape::Kind::array: {
      boost::json::array array(storage);
      array.reserve(token.size);
      for (std::size_t i = at + 1; i < token.next; i = tape_[i].next) {
        array.push_back(toValue(i, storage));
      }
      return array;
    }
    case Tape::Kind::key:
    case Tape::Kind::string:
      return boost::json::string(token.text, storage);
    case Tape::Kind::int64:
      return boost::json::value(token.int64(), storage);
    case Tape::Kind::uint64:
      return boost::json::value(token.uint64(), storage);
    case Tape::Kind::double_:
      return boost::json::value(token.double_(), storage);
    case Tape::Kind::bool_:
      return boost::json::value(token.bool_(), storage);
    case Tape::Kind::null:
      break;
  }
  return boost::json::value(nullptr, storage);
}

}  // namespace corvane::coding::detail
