#pragma once

#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <boost/describe/class.hpp>

#include <utility>

namespace corvane {

/// Asks the daemon to add a managed app, or update it, from one declaration.
/// Coded as {"app": declaration}.
struct DDMAppOrUpdateManagedAppRequest {
  ManagedAppDeclaration app;

  explicit DDMAppOrUpdateManagedAppRequest(ManagedAppDeclaration declaration)
      : app(std::move(declaration)) {}

 private:
  friend struct coding::Access;
  DDMAppOrUpdateManagedAppRequest() : app(coding::Access::make<ManagedAppDeclaration>()) {}

 public:
  BOOST_DESCRIBE_CLASS(DDMAppOrUpdateManagedAppRequest, (), (app), (), ())
};

}  // namespace corvane
