// corvane-codec run as a process: documents on stdin, output and exit status checked.

#include "support/Json.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace corvane::testing {
namespace {

struct CodecRun {
  int exitCode = -1;
  std::string out;
};

// Runs the codec with `arguments`, `input` on its standard input; standard error is dropped.
CodecRun runCodec(const std::string& arguments, const std::string& input) {
  char name[] = "/tmp/corvane-codec-input-XXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0) {
    ADD_FAILURE() << "mkstemp failed";
    return {};
  }
  close(fd);
  std::ofstream(name, std::ios::binary) << input;
  const std::string command =
      std::string(CORVANE_CODEC_PATH) + " " + arguments + " < " + name + " 2>/dev/null";
  CodecRun run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "popen failed";
    return {};
  }
  std::array<char, 4096> chunk{};
  while (const std::size_t n = fread(chunk.data(), 1, chunk.size(), pipe))
    run.out.append(chunk.data(), n);
  const int status = pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::filesystem::remove(name);
  return run;
}

TEST(CodecProcess, ReencodesValidDocuments) {
  struct Row {
    std::string type;
    std::string input;
  };
  const std::vector<Row> table = {
      {"AppState", R"({"paused": {"_0": {"downloading": {"_0": 0.25}}}})"},
      {"'ServiceResult<[String]>'", R"({"success": {"_0": ["K1", "K2"]}})"},
      {"'ServiceResult<None>'", R"({"success": {"_0": null}})"},
      {"CorvaneError", R"({"deviceNotManaged": {}})"},
      {"ManagedAppStatus.State", R"("managedButUninstalled")"},
      {"VPPInstallRequest.RequestType", "3"},
      {"Platform", "7"},
      {"'[TetherClientMessage]'", R"([{"type": {"log": {"log": "x"}}}])"},
      {"DDMDeclarationStatusRequest", "{}"},
  };
  for (const auto& row : table) {
    const CodecRun run = runCodec(row.type, row.input);
    EXPECT_EQ(run.exitCode, 0) << row.type;
    EXPECT_EQ(parseJson(run.out), parseJson(row.input)) << row.type;
  }
  const CodecRun ignored = runCodec("StoreAppIdentifier", R"({"itemID": {"_0": 5}, "other": 1})");
  EXPECT_EQ(parseJson(ignored.out), parseJson(R"({"itemID": {"_0": 5}})"));
}

TEST(CodecProcess, ReportsEachFailureKind) {
  struct Row {
    std::string type;
    std::string input;
    std::string expected;
  };
  const std::vector<Row> table = {
      {"InstallBehavior",
       R"({"installTiming": {"onDemand": {}}, "isAccountPromptAllowed": true,
           "purchaseMethod": {"volumePurchaseProgram": {"_0": {"itemID": {"_0": 1}}}}})",
       R"({"error": "keyNotFound", "path": "purchaseMethod.volumePurchaseProgram",
           "description": "No value associated with key \"license\"."})"},
      {"ManagedAppStatus.State", "null",
       R"({"error": "valueNotFound", "path": "",
           "description": "Expected a string but found null instead."})"},
      {"AppState", R"({"installed": {}, "managed": {}})",
       R"({"error": "typeMismatch", "path": "",
           "description": "Invalid number of keys found, expected one."})"},
      {"VPPInstallRequest.RequestType", "4",
       R"({"error": "dataCorrupted", "path": "",
           "description": "Cannot initialize from invalid raw value 4."})"},
      {"AppState", "{",
       R"({"error": "dataCorrupted", "path": "",
           "description": "The given data was not a valid JSON document: incomplete JSON."})"},
  };
  for (const auto& row : table) {
    const CodecRun run = runCodec(row.type, row.input);
    EXPECT_EQ(run.exitCode, 1) << row.type << " " << row.input;
    EXPECT_EQ(parseJson(run.out), parseJson(row.expected)) << run.out;
  }
}

TEST(CodecProcess, TextFormsAndUsageErrors) {
  const CodecRun state = runCodec("--text AppState", R"({"paused": {"_0": {"installed": {}}}})");
  EXPECT_EQ(state.exitCode, 0);
  EXPECT_EQ(state.out, "Paused at state Installed\n");
  const CodecRun identifier = runCodec("--text StoreAppIdentifier", R"({"bundleID": {"_0": "5"}})");
  EXPECT_EQ(identifier.out, "Bundle ID: 5\n");
  const CodecRun registrations =
      runCodec("--text '[MessageRegistration]'",
               R"([{"appCatalog": {}}, {"appStateChangeByBundleID": {"bundleID": "x"}}])");
  EXPECT_EQ(registrations.out, "[App catalog changed, App state changes: x]\n");
  EXPECT_EQ(runCodec("--text Platform", "2").out, "\n");

  EXPECT_EQ(runCodec("--text ManagedAppStatus", "{}").exitCode, 2);
  EXPECT_EQ(runCodec("NoSuchType", "{}").exitCode, 2);
  EXPECT_EQ(runCodec("", "{}").exitCode, 2);

  const CodecRun list = runCodec("--list", "");
  EXPECT_EQ(list.exitCode, 0);
  for (const char* name : {"ManagedApp\n", "ManagedAppStatus.State\n", "ServiceResult<None>\n",
                           "[TetherClientMessage]  (text)\n", "ManagedApp.Artwork\n"}) {
    EXPECT_NE(list.out.find(name), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace corvane::testing
