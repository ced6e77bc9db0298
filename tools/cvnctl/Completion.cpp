#include "Completion.hpp"

#include <corvane/Corvane.hpp>

#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <set>

namespace cvnctl {
namespace {

/// Long enough for a daemon on the same machine, short enough not to be noticed at a <Tab>.
constexpr std::chrono::milliseconds completionBound{500};

std::set<std::string> names(CompletionList list) {
  std::set<std::string> found;
  if (list == CompletionList::keys) {
    for (auto& key : corvane::DDMDeclarationKeysRequest{}.performSynchronously(completionBound))
      found.insert(std::move(key));
  } else {
    for (auto& status :
         corvane::DDMDeclarationStatusRequest{}.performSynchronously(completionBound)) {
      found.insert(std::move(list == CompletionList::declarations ? status.declarationIdentifier
                                                                  : status.bundleID));
    }
  }
  found.erase(std::string());
  return found;
}

}  // namespace

void printCompletions(CompletionList list) noexcept {
  try {
    for (const auto& name : names(list)) fmt::print("{}\n", name);
    std::fflush(stdout);
  } catch (...) {
    // Nothing to offer; the shell then falls back to offering nothing.
  }
}

}  // namespace cvnctl
