// A client of the installed library: the declaration keys by a synchronous request, the
// statuses through a completion token (use_future). Prints what it got, one line each, and
// "consumer: ok"; on a failure, "consumer: failed: KIND: WHAT" and exit status 1.

#include <corvane/Corvane.hpp>

#include <boost/asio/use_future.hpp>

#include <clocale>
#include <iostream>

int main() {
  std::setlocale(LC_ALL, "");  // NOLINT(concurrency-mt-unsafe): no other thread yet
  try {
    for (const auto& key : corvane::DDMDeclarationKeysRequest{}.performSynchronously()) {
      std::cout << "key: " << key << '\n';
    }
    auto statuses = corvane::DDMDeclarationStatusRequest{}.perform(boost::asio::use_future);
    for (const auto& status : statuses.get()) {
      std::cout << "status: " << status.declarationIdentifier << ' ' << status.bundleID << '\n';
    }
    std::cout << "consumer: ok" << std::endl;
    return 0;
  } catch (const corvane::Error& error) {
    std::cout << "consumer: failed: " << corvane::caseName(error.error()) << ": " << error.what()
              << std::endl;
    return 1;
  }
}
