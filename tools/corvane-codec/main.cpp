// corvane-codec: reads one JSON document, a value of TYPE (not wrapped in the envelope), decodes
// it and writes it re-encoded, or with --text its text form.
// Exit status: 0 success; 1 the document does not decode (a JSON object {"error", "path",
// "description"} is written to stdout); 2 usage errors (unknown type, no text form).

#include "CodecTypes.hpp"

#include <corvane/coding/CodingError.hpp>
#include <corvane/coding/TetherDecoder.hpp>

#include <CLI/CLI.hpp>
#include <boost/json/serialize.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

namespace {

using corvane::CodingError;
using corvane::codec::Mode;

int reportFailure(const CodingError& error) {
  boost::json::object out;
  out["error"] = corvane::toString(error.kind());
  out["path"] = error.codingPath();
  out["description"] = error.description();
  std::cout << boost::json::serialize(out) << '\n';
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "Decode one JSON document of TYPE from standard input and write it re-encoded.\n"
      "On a decoding failure writes {\"error\", \"path\", \"description\"} and exits 1."};
  std::string typeName;
  bool text = false;
  bool list = false;
  app.add_option("TYPE", typeName, "Type name as in the code, e.g. ManagedAppStatus.State");
  app.add_flag("--text", text, "Print the value's text form instead of the document");
  app.add_flag("--list", list, "Print every known TYPE and exit");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }

  if (list) {
    for (const auto& type : corvane::codec::codecTypes()) {
      std::cout << type.name << (type.hasText ? "  (text)" : "") << '\n';
    }
    return 0;
  }
  if (typeName.empty()) {
    std::cerr << "corvane-codec: TYPE is required (see --list)\n";
    return 2;
  }
  const auto* type = corvane::codec::findCodecType(typeName);
  if (type == nullptr) {
    std::cerr << "corvane-codec: unknown type \"" << typeName << "\" (see --list)\n";
    return 2;
  }
  if (text && !type->hasText) {
    std::cerr << "corvane-codec: " << typeName << " has no text form\n";
    return 2;
  }

  const std::string input{std::istreambuf_iterator<char>(std::cin),
                          std::istreambuf_iterator<char>()};
  try {
    std::cout << type->handle(corvane::coding::parseDocument(input),
                              text ? Mode::text : Mode::reencode);
  } catch (const CodingError& error) {
    return reportFailure(error);
  }
  return 0;
}
