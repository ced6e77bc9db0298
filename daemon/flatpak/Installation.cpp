#include "Installation.hpp"

#include "FlatpakError.hpp"
#include "Transaction.hpp"

#include <fmt/format.h>

#include <gio/gio.h>
#include <optional>

namespace corvane::flatpak {

namespace {

std::filesystem::path filePath(GFile* file) {
  if (file == nullptr) return {};
  return takeString(g_file_get_path(file));
}

RefKind kindOf(FlatpakRef* ref) {
  return flatpak_ref_get_kind(ref) == FLATPAK_REF_KIND_RUNTIME ? RefKind::runtime : RefKind::app;
}

/// The elements of a GPtrArray of T*, borrowed for as long as the array lives.
template <class T>
std::vector<T*> elements(const GPtrArrayPtr& array) {
  std::vector<T*> result;
  result.reserve(array->len);
  for (guint i = 0; i < array->len; ++i)
    result.push_back(static_cast<T*>(g_ptr_array_index(array.get(), i)));
  return result;
}

InstalledRef toInstalled(FlatpakInstalledRef* installed) {
  auto* ref = FLATPAK_REF(installed);
  return InstalledRef{
      .kind = kindOf(ref),
      .ref = takeString(flatpak_ref_format_ref(ref)),
      .id = toString(flatpak_ref_get_name(ref)),
      .arch = toString(flatpak_ref_get_arch(ref)),
      .branch = toString(flatpak_ref_get_branch(ref)),
      .origin = toString(flatpak_installed_ref_get_origin(installed)),
      .commit = toString(flatpak_ref_get_commit(ref)),
      .appdataVersion = toString(flatpak_installed_ref_get_appdata_version(installed)),
      .deployDir = toString(flatpak_installed_ref_get_deploy_dir(installed)),
  };
}

}  // namespace

std::string appRef(const std::string& id, const std::string& branch) {
  return fmt::format("app/{}/{}/{}", id, flatpak_get_default_arch(), branch);
}

Installation Installation::openAt(const std::filesystem::path& path) {
  std::error_code failed;
  std::filesystem::create_directories(path, failed);
  if (failed)
    throw FlatpakError(fmt::format("create the installation {}", path.native()), G_IO_ERROR,
                       G_IO_ERROR_FAILED, failed.message());
  const GObjectPtr<GFile> file = adopt(g_file_new_for_path(path.c_str()));
  ErrorSlot error;
  auto installation =
      adopt(flatpak_installation_new_for_path(file.get(), TRUE, nullptr, error.out()));
  if (!installation) error.raise(fmt::format("open the installation {}", path.native()));
  // A daemon never asks anyone anything.
  flatpak_installation_set_no_interaction(installation.get(), TRUE);
  return Installation(std::move(installation));
}

Installation Installation::system() {
  ErrorSlot error;
  auto installation = adopt(flatpak_installation_new_system(nullptr, error.out()));
  if (!installation) error.raise("open the system installation");
  flatpak_installation_set_no_interaction(installation.get(), TRUE);
  return Installation(std::move(installation));
}

std::filesystem::path Installation::path() const {
  const GObjectPtr<GFile> file = adopt(flatpak_installation_get_path(get()));
  return filePath(file.get());
}

void Installation::addRemote(const std::string& name, const std::string& url) {
  const auto remote = adopt(flatpak_remote_new(name.c_str()));
  flatpak_remote_set_url(remote.get(), url.c_str());
  flatpak_remote_set_gpg_verify(remote.get(), FALSE);
  ErrorSlot error;
  if (!flatpak_installation_add_remote(get(), remote.get(), FALSE, nullptr, error.out()))
    error.raise(fmt::format("add the remote {} ({})", name, url));
}

std::vector<RemoteInfo> Installation::remotes() const {
  ErrorSlot error;
  const GPtrArrayPtr list(flatpak_installation_list_remotes(get(), nullptr, error.out()));
  if (!list) error.raise("list the remotes");
  std::vector<RemoteInfo> result;
  for (auto* remote : elements<FlatpakRemote>(list)) {
    result.push_back(RemoteInfo{.name = toString(flatpak_remote_get_name(remote)),
                                .url = takeString(flatpak_remote_get_url(remote)),
                                .gpgVerify = flatpak_remote_get_gpg_verify(remote) != FALSE});
  }
  return result;
}

std::vector<InstalledRef> Installation::installedRefs() const {
  ErrorSlot error;
  const GPtrArrayPtr list(flatpak_installation_list_installed_refs(get(), nullptr, error.out()));
  if (!list) error.raise("list the installed refs");
  std::vector<InstalledRef> result;
  for (auto* installed : elements<FlatpakInstalledRef>(list))
    result.push_back(toInstalled(installed));
  return result;
}

std::optional<InstalledRef> Installation::findInstalled(const std::string& ref) const {
  for (auto& installed : installedRefs())
    if (installed.ref == ref) return std::move(installed);
  return std::nullopt;
}

std::vector<RemoteRef> Installation::remoteRefs(const std::string& remote) const {
  ErrorSlot error;
  const GPtrArrayPtr list(
      flatpak_installation_list_remote_refs_sync(get(), remote.c_str(), nullptr, error.out()));
  if (!list) error.raise(fmt::format("list the refs of the remote {}", remote));
  std::vector<RemoteRef> result;
  for (auto* remoteRef : elements<FlatpakRemoteRef>(list)) {
    auto* ref = FLATPAK_REF(remoteRef);
    result.push_back(RemoteRef{
        .kind = kindOf(ref),
        .ref = takeString(flatpak_ref_format_ref(ref)),
        .id = toString(flatpak_ref_get_name(ref)),
        .arch = toString(flatpak_ref_get_arch(ref)),
        .branch = toString(flatpak_ref_get_branch(ref)),
        .commit = toString(flatpak_ref_get_commit(ref)),
        .downloadSize = flatpak_remote_ref_get_download_size(remoteRef),
        .installedSize = flatpak_remote_ref_get_installed_size(remoteRef),
    });
  }
  return result;
}

std::filesystem::path Installation::updateAppStream(const std::string& remote) {
  const char* arch = flatpak_get_default_arch();
  ErrorSlot error;
  if (!flatpak_installation_update_appstream_sync(get(), remote.c_str(), arch, nullptr, nullptr,
                                                  error.out()))
    error.raise(fmt::format("update the AppStream data of the remote {}", remote));
  const auto found =
      adopt(flatpak_installation_get_remote_by_name(get(), remote.c_str(), nullptr, error.out()));
  if (!found) error.raise(fmt::format("find the remote {}", remote));
  const GObjectPtr<GFile> dir = adopt(flatpak_remote_get_appstream_dir(found.get(), arch));
  const auto base = filePath(dir.get());
  for (const char* name : {"appstream.xml", "appstream.xml.gz"}) {
    if (std::filesystem::exists(base / name)) return base / name;
  }
  throw FlatpakError(fmt::format("update the AppStream data of the remote {}", remote),
                     FLATPAK_ERROR, FLATPAK_ERROR_INVALID_DATA,
                     fmt::format("no appstream.xml in {}", base.native()));
}

void Installation::uninstall(const std::string& ref) {
  Transaction transaction(*this);
  transaction.addUninstall(ref);
  transaction.run();
}

LaunchedApp Installation::launch(const std::string& id, const std::string& branch) {
  FlatpakInstance* instance = nullptr;
  ErrorSlot error;
  if (!flatpak_installation_launch_full(get(), FLATPAK_LAUNCH_FLAGS_NONE, id.c_str(), nullptr,
                                        branch.c_str(), nullptr, &instance, nullptr, error.out()))
    error.raise(fmt::format("launch {}", id));
  const auto owned = adopt(instance);
  return LaunchedApp{.instanceId = toString(flatpak_instance_get_id(owned.get())),
                     .pid = flatpak_instance_get_pid(owned.get())};
}

}  // namespace corvane::flatpak
