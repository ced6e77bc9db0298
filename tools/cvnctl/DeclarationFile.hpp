#pragma once

#include <corvane/requests/ManagedAppDeclaration.hpp>

#include <cstddef>
#include <istream>
#include <string>

namespace cvnctl {

/// The largest declaration document cvnctl reads: a declaration is a few hundred bytes, so
/// anything near this is a mistake (a wrong file, a device).
inline constexpr std::size_t maxDeclarationSize = std::size_t{1024} * 1024;

/// Reads a `ManagedAppDeclaration` in its coded JSON form from the file `path`, or from standard
/// input for "-". Throws `UsageError` for a file that cannot be read, is not a regular file or is
/// larger than `maxDeclarationSize`, a text that is not one JSON
/// document, or a document that does not decode (naming the coding path and what is wrong).
[[nodiscard]] corvane::ManagedAppDeclaration readDeclaration(const std::string& path);

/// The same, from a text already read; `origin` names it in messages.
[[nodiscard]] corvane::ManagedAppDeclaration decodeDeclaration(const std::string& text,
                                                               const std::string& origin);

}  // namespace cvnctl
