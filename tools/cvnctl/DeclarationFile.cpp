#include "DeclarationFile.hpp"

#include "UsageError.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/TetherDecoder.hpp>

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace cvnctl {

corvane::ManagedAppDeclaration decodeDeclaration(const std::string& text,
                                                 const std::string& origin) {
  boost::json::value document;
  try {
    document = corvane::coding::parseDocument(text);
  } catch (const corvane::CodingError& error) {
    throw UsageError(fmt::format("{} is not a JSON document: {}", origin, error.description()));
  }
  try {
    return corvane::coding::decode<corvane::ManagedAppDeclaration>(document);
  } catch (const corvane::CodingError& error) {
    const std::string where = error.codingPath().empty() ? "the top level" : error.codingPath();
    throw UsageError(fmt::format("{} is not a managed-app declaration: {} at {}: {}", origin,
                                 corvane::toString(error.kind()), where, error.description()),
                     error.codingPath().empty() ? "." : error.codingPath());
  }
}

namespace {

/// Reads `in` up to one byte past the limit, so that a larger document is refused without
/// reading it all (standard input may have no end).
std::string readLimited(std::istream& in, const std::string& origin) {
  std::string text(maxDeclarationSize + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (in.bad()) throw UsageError(fmt::format("cannot read {}", origin));
  if (text.size() > maxDeclarationSize) {
    throw UsageError(fmt::format("{} is larger than {} KiB, more than a declaration can be", origin,
                                 maxDeclarationSize / 1024));
  }
  return text;
}

}  // namespace

corvane::ManagedAppDeclaration readDeclaration(const std::string& path) {
  if (path == "-")
    return decodeDeclaration(readLimited(std::cin, "standard input"), "standard input");
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (status.type() == std::filesystem::file_type::not_found) {
    throw UsageError(fmt::format("cannot read {}: {}", path,
                                 std::error_code(ENOENT, std::system_category()).message()));
  }
  if (error) throw UsageError(fmt::format("cannot read {}: {}", path, error.message()));
  if (std::filesystem::is_directory(status))
    throw UsageError(fmt::format("cannot read {}: it is a directory", path));
  // A device or a pipe may never end: only a regular file is read.
  if (!std::filesystem::is_regular_file(status))
    throw UsageError(fmt::format("cannot read {}: it is not a regular file", path));
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    const int failure = errno;
    throw UsageError(fmt::format("cannot read {}: {}", path,
                                 std::error_code(failure, std::system_category()).message()));
  }
  return decodeDeclaration(readLimited(file, path), path);
}

}  // namespace cvnctl
