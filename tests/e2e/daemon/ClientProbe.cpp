// A minimal client for the end-to-end tests that must run as another user: performs one request
// through the library and prints "ok" or the error's case name and what(), then exits 0 or 1.
//   e2e_client_probe keys | reset | status

#include <corvane/Corvane.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>
#include <fmt/format.h>

#include <string_view>

int main(int argc, char** argv) {
  using namespace corvane;
  const std::string_view what = argc > 1 ? argv[1] : "";
  try {
    if (what == "keys") {
      fmt::print("ok {}\n", DDMDeclarationKeysRequest{}.performSynchronously().size());
    } else if (what == "reset") {
      DDMResetManagedAppInstallHistoryRequest{}.perform(boost::asio::use_future).get();
      fmt::print("ok\n");
    } else if (what == "status") {
      fmt::print("ok {}\n", DDMDeclarationStatusRequest{}.performSynchronously().size());
    } else {
      fmt::print(stderr, "usage: e2e_client_probe keys|reset|status\n");
      return 2;
    }
  } catch (const Error& error) {
    fmt::print("{} {}\n", caseName(error.error()), error.what());
    return 1;
  }
  return 0;
}
