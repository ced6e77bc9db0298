// A minimal client for the end-to-end tests that need a client process of their own: performs one
// request through the library and prints "ok" or the error's case name and what(), then exits 0
// or 1.
//   e2e_client_probe keys | reset | status
//   e2e_client_probe lifecycle: calls, prints "called", waits to see the daemon go ("lost"),
//     reads a line from stdin once it is back, calls again and exits normally.

#include <corvane/Corvane.hpp>
#include <corvane/service/RequestOperations.hpp>

#include <boost/asio/use_future.hpp>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
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
    } else if (what == "lifecycle") {
      std::promise<void> lost;
      std::once_flag once;
      const auto observation = ServiceConnection::shared().observeLoss(
          [&] { std::call_once(once, [&] { lost.set_value(); }); });
      (void)DDMDeclarationKeysRequest{}.performSynchronously();
      fmt::print("called\n");
      std::fflush(stdout);
      if (lost.get_future().wait_for(std::chrono::seconds(30)) != std::future_status::ready)
        return 3;
      fmt::print("lost\n");
      std::fflush(stdout);
      std::string line;
      std::getline(std::cin, line);
      (void)DDMDeclarationKeysRequest{}.perform(boost::asio::use_future).get();
      fmt::print("ok\n");
    } else {
      fmt::print(stderr, "usage: e2e_client_probe keys|reset|status|lifecycle\n");
      return 2;
    }
  } catch (const Error& error) {
    fmt::print("{} {}\n", caseName(error.error()), error.what());
    return 1;
  }
  return 0;
}
