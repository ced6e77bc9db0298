#pragma once

#include <corvane/coding/Coding.hpp>

namespace corvane::coding {

/// The coding of a class whose fields are fixed once constructed and reachable only through
/// getters: it keeps them in a private described record `T::Stored` (member `stored_`) and is
/// coded exactly as that record. A class opts in with
///   `template <> struct Coding<X> : StoredCoding<X> {};`
/// and befriends `StoredCoding<X>`, which also uses its private constructor from `Stored`.
template <class T>
struct StoredCoding {
  static void encode(const T& value, boost::json::value& out) {
    coding::encode(value.stored_, out);
  }
  static T decode(const boost::json::value& in, const CodingPath& path) {
    return T(coding::decode<typename T::Stored>(in, path));
  }
};

}  // namespace corvane::coding
