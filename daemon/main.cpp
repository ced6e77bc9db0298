// corvaned (and corvaned-sim, the same program): parses its options, loads the catalogue, opens
// its state and its install engine, serves until SIGTERM (or, under socket activation, until it
// has been idle long enough).

#include "Catalog.hpp"
#include "Daemon.hpp"
#include "FlatpakBackend.hpp"
#include "Options.hpp"

#include <corvane/platform/Log.hpp>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <malloc.h>
#include <string>
#include <string_view>
#include <system_error>
#include <variant>

int main(int argc, char** argv) {
  using namespace corvane::sim;
  // glibc gives each contending thread an arena of its own, reserving 64 MiB of address space
  // apiece: under load the daemon's few threads would take hundreds of MiB that an address-space
  // limit (ulimit -v) then refuses. Two arenas serve its threads; memory goes back to the system
  // through the listener's trim.
  ::mallopt(M_ARENA_MAX, 2);
  // The daemon runs itself this way to launch a Flatpak app as its caller.
  if (argc > 1 && std::string_view(argv[1]) == "--launch-flatpak-app")
    return FlatpakBackend::runLauncher(argc, argv);
  const auto parsed = parseOptions(argc, argv);
  if (const int* status = std::get_if<int>(&parsed)) return *status;
  const Options& options = std::get<Options>(parsed);
  if (options.engine == EngineKind::flatpak && !options.installation.empty()) {
    // libflatpak finds an app's runtime only in the user and system installations: the private
    // one is the user installation, for the daemon and the launchers it starts. Set before any
    // libflatpak call and before any thread starts.
    std::error_code failed;
    const auto absolute = std::filesystem::absolute(options.installation, failed);
    ::setenv("FLATPAK_USER_DIR", (failed ? options.installation : absolute).c_str(),  // NOLINT
             1);
  }
  const std::string program = std::filesystem::path(argv[0]).filename().string();
  if (options.verbose) corvane::platform::Log::setThreshold(corvane::platform::LogLevel::info);

  std::optional<Catalog> catalog;
  try {
    catalog = options.catalogFile.empty() ? Catalog::sample() : Catalog::load(options.catalogFile);
  } catch (const CatalogError& error) {
    fmt::print(stderr, "{}: {}\n", program, error.what());
    return 2;
  }

  try {
    boost::asio::io_context io(1);
    Daemon daemon(io, options, std::move(*catalog));
    boost::asio::signal_set signals(io, SIGTERM, SIGINT);
    signals.async_wait([&](const boost::system::error_code& error, int) {
      if (error) return;
      sd_notify(0, "STOPPING=1");
      daemon.stop();
    });
    daemon.whenStopped([&] { signals.cancel(); });
    daemon.start();
    fmt::print("{}: listening on {}\n", program, daemon.socketPath().native());
    std::fflush(stdout);
    sd_notify(0, "READY=1");
    io.run();
    return 0;
  } catch (const StoreError& error) {
    fmt::print(stderr, "{}: the state cannot be used: {}\n", program, error.what());
  } catch (const std::system_error& error) {
    fmt::print(stderr, "{}: cannot serve: {}\n", program, error.what());
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}: {}\n", program, error.what());
  }
  return 1;
}
