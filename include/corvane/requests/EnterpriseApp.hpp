#pragma once

#include <corvane/coding/StoredCoding.hpp>
#include <corvane/coding/WireTypes.hpp>

#include <boost/describe/class.hpp>
#include <boost/url/url.hpp>

#include <utility>

namespace corvane {

/// An enterprise app, named by the address of its manifest. Coded as {"manifestURL": "..."}.
class EnterpriseApp {
 public:
  /// Takes the manifest's address as it is; nothing is fetched or checked here.
  explicit EnterpriseApp(boost::urls::url manifestURL) : stored_{std::move(manifestURL)} {}

  [[nodiscard]] const boost::urls::url& manifestURL() const noexcept { return stored_.manifestURL; }

 private:
  friend struct coding::StoredCoding<EnterpriseApp>;

  struct Stored {
    boost::urls::url manifestURL;
    BOOST_DESCRIBE_CLASS(Stored, (), (manifestURL), (), ())
  };

  explicit EnterpriseApp(Stored stored) noexcept : stored_(std::move(stored)) {}

  Stored stored_;
};

namespace coding {
template <>
struct Coding<EnterpriseApp> : StoredCoding<EnterpriseApp> {};
}  // namespace coding

}  // namespace corvane
