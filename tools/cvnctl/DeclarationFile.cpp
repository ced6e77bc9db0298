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

corvane::ManagedAppDeclaration readDeclaration(const std::string& path) {
  if (path == "-") {
    std::ostringstream text;
    text << std::cin.rdbuf();
    return decodeDeclaration(text.str(), "standard input");
  }
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw UsageError(fmt::format("cannot read {}: it is a directory", path));
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    const int error = errno;
    throw UsageError(fmt::format("cannot read {}: {}", path,
                                 std::error_code(error, std::system_category()).message()));
  }
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (file.bad()) throw UsageError(fmt::format("cannot read {}", path));
  return decodeDeclaration(text, path);
}

}  // namespace cvnctl
