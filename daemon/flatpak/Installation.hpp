#pragma once

#include "GObjectPtr.hpp"

#include <cstdint>
#include <filesystem>
#include <flatpak.h>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace corvane::flatpak {

enum class RefKind { app, runtime };

/// A configured remote.
struct RemoteInfo {
  std::string name;
  std::string url;
  bool gpgVerify = false;
};

/// A ref installed in an installation.
struct InstalledRef {
  RefKind kind = RefKind::app;
  /// "app/ID/ARCH/BRANCH".
  std::string ref;
  std::string id;
  std::string arch;
  std::string branch;
  /// The remote it came from.
  std::string origin;
  /// The ostree commit deployed.
  std::string commit;
  /// The version its AppStream data names (empty when it has none).
  std::string appdataVersion;
  std::filesystem::path deployDir;
};

/// A ref a remote offers.
struct RemoteRef {
  RefKind kind = RefKind::app;
  std::string ref;
  std::string id;
  std::string arch;
  std::string branch;
  std::string commit;
  std::uint64_t downloadSize = 0;
  std::uint64_t installedSize = 0;
};

/// An app started by `Installation::launch`.
struct LaunchedApp {
  /// The sandbox instance (a directory under $XDG_RUNTIME_DIR/.flatpak).
  std::string instanceId;
  /// The sandbox's outermost process (bwrap). Not a child of the caller: GLib reaps it, so
  /// wait for it with a pidfd, not waitpid.
  pid_t pid = 0;
};

/// One Flatpak installation: a private one at a path or the system's. Every member throws
/// FlatpakError when libflatpak fails, with the GError's domain, code and message. Blocking: each
/// call does its I/O on the calling thread. Not thread-safe: one thread at a time (a Transaction
/// made from it counts as a use until it is destroyed).
class Installation {
 public:
  /// Opens the per-user style installation at `path`, creating the directory. Needs no system
  /// helper and writes nothing outside `path`.
  [[nodiscard]] static Installation openAt(const std::filesystem::path& path);
  /// The default system installation (/var/lib/flatpak, or $FLATPAK_SYSTEM_DIR).
  [[nodiscard]] static Installation system();

  [[nodiscard]] std::filesystem::path path() const;

  /// Adds a remote that is not GPG-verified (a local or test repository). Throws when a remote
  /// of that name exists.
  void addRemote(const std::string& name, const std::string& url);
  [[nodiscard]] std::vector<RemoteInfo> remotes() const;

  /// Every installed app and runtime.
  [[nodiscard]] std::vector<InstalledRef> installedRefs() const;
  /// The installed ref `ref` ("app/ID/ARCH/BRANCH"), if installed.
  [[nodiscard]] std::optional<InstalledRef> findInstalled(const std::string& ref) const;

  /// What `remote` offers now (fetches its summary).
  [[nodiscard]] std::vector<RemoteRef> remoteRefs(const std::string& remote) const;
  /// Fetches `remote`'s AppStream data for the default architecture and returns the path of its
  /// XML (appstream.xml, or appstream.xml.gz for a repository without the uncompressed branch),
  /// which AppStream.hpp reads.
  std::filesystem::path updateAppStream(const std::string& remote);

  /// Uninstalls `ref` (runtimes it needed stay). A short Transaction of its own.
  void uninstall(const std::string& ref);

  /// Starts the installed app `id` (branch `branch`) in its sandbox, in the background. Needs
  /// bwrap; the app's own data directory is ~/.var/app/ID of the caller's HOME. libflatpak 1.14
  /// looks for the app's runtime only in the user and system installations ($FLATPAK_USER_DIR,
  /// $FLATPAK_SYSTEM_DIR or their defaults), so an installation at another path cannot launch
  /// (FLATPAK_ERROR_NOT_INSTALLED naming the runtime).
  LaunchedApp launch(const std::string& id, const std::string& branch);

  /// The libflatpak object, for Transaction.
  [[nodiscard]] FlatpakInstallation* get() const noexcept { return installation_.get(); }

 private:
  explicit Installation(GObjectPtr<FlatpakInstallation> installation)
      : installation_(std::move(installation)) {}

  GObjectPtr<FlatpakInstallation> installation_;
};

/// "app/ID/ARCH/BRANCH" for the default architecture.
[[nodiscard]] std::string appRef(const std::string& id, const std::string& branch);

}  // namespace corvane::flatpak
