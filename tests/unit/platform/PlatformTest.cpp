#include <corvane/coding/CorvaneError.hpp>
#include <corvane/platform/BuildVariant.hpp>
#include <corvane/platform/DeviceInfo.hpp>
#include <corvane/platform/FeatureFlags.hpp>
#include <corvane/platform/Localization.hpp>
#include <corvane/platform/LogCategory.hpp>
#include <corvane/platform/Random.hpp>

#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace corvane::platform {
namespace {

// Sets an environment variable for one test and restores the previous value afterwards. Tests
// change the environment on the main thread only, while no other thread of theirs runs.
// NOLINTBEGIN(concurrency-mt-unsafe)
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value != nullptr) {
      ::setenv(name, value, 1);
    } else {
      ::unsetenv(name);
    }
  }
  ~ScopedEnv() {
    if (old_) {
      ::setenv(name_, old_->c_str(), 1);
    } else {
      ::unsetenv(name_);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};
// NOLINTEND(concurrency-mt-unsafe)

TEST(Log, CaptureSeesEveryLevelWithSubsystemAndCategory) {
  const ScopedLogCapture capture;
  EXPECT_TRUE(LogCategory::tether().isEnabled(LogLevel::debug));
  LogCategory::tether().debug("Registering for messages: {}", "[x]");
  LogCategory::vpp().error("Error {}: {}", 1, "two");
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].level, LogLevel::debug);
  EXPECT_EQ(records[0].message, "Registering for messages: [x]");
  EXPECT_EQ(records[0].category, "Tether");
  EXPECT_EQ(records[0].subsystem, LogCategory::subsystem);
  EXPECT_EQ(records[1].category, "VPP");
  EXPECT_EQ(capture.count(LogLevel::error, "Error 1: two"), 1U);
  EXPECT_EQ(capture.count(LogLevel::debug, "Error 1: two"), 0U);
}

TEST(Log, ThresholdAppliesWithoutCapture) {
  const LogLevel saved = Log::threshold();
  Log::setThreshold(LogLevel::error);
  EXPECT_FALSE(LogCategory::general().isEnabled(LogLevel::notice));
  EXPECT_TRUE(LogCategory::general().isEnabled(LogLevel::error));
  EXPECT_TRUE(LogCategory::general().isEnabled(LogLevel::fault));
  Log::setThreshold(saved);
}

TEST(Log, CategoriesAreOneHandleEachWithTheirNames) {
  const std::pair<const Log& (*)(), const char*> table[] = {{&LogCategory::appLaunch, "App Launch"},
                                                            {&LogCategory::daemon, "Daemon"},
                                                            {&LogCategory::ddm, "DDM"},
                                                            {&LogCategory::download, "Download"},
                                                            {&LogCategory::general, "General"},
                                                            {&LogCategory::install, "Install"},
                                                            {&LogCategory::library, "Library"},
                                                            {&LogCategory::oauth, "OAuth"},
                                                            {&LogCategory::progress, "Progress"},
                                                            {&LogCategory::scheduler, "Scheduler"},
                                                            {&LogCategory::updates, "Updates"},
                                                            {&LogCategory::vpp, "VPP"},
                                                            {&LogCategory::tether, "Tether"}};
  for (const auto& [handle, name] : table) {
    EXPECT_EQ(handle().category(), name);
    EXPECT_EQ(&handle(), &handle());
    EXPECT_TRUE(handle().subsystem().ends_with("Corvane"));
  }
}

TEST(Log, ConcurrentWritersAreAllRecordedAndWaitForWakesUp) {
  const ScopedLogCapture capture;
  std::vector<std::jthread> writers;
  writers.reserve(4);
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < 100; ++i) LogCategory::tether().info("line {} {}", t, i);
    });
  }
  EXPECT_TRUE(capture.waitFor([](const LogRecord& r) { return r.message == "line 3 99"; },
                              std::chrono::seconds(10)));
  writers.clear();
  EXPECT_EQ(capture.records().size(), 400U);
}

class FeatureFlagsTest : public ::testing::Test {
 protected:
  std::filesystem::path file_ = std::filesystem::temp_directory_path()
                                / ("corvane-flags-" + std::to_string(::getpid()) + ".json");
  ScopedEnv fileEnv_{"CORVANE_FEATURES_FILE", file_.c_str()};
  ScopedEnv serviceEnv_{"CORVANE_FEATURE_CORVANE_SERVICE", nullptr};

  void write(const std::string& text) {
    // A new inode each time, so a rewrite within one timestamp tick is still noticed.
    const auto temp = file_.string() + ".tmp";
    std::ofstream(temp) << text;
    std::filesystem::rename(temp, file_);
  }
  void TearDown() override { std::filesystem::remove(file_); }

  // The file is looked at again within a millisecond of a change: asks until `seen` holds,
  // for at most ten seconds.
  template <class Seen>
  static bool eventually(Seen seen) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!seen()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }
  static bool serviceIs(bool enabled) {
    return eventually([&] { return FeatureFlags::isEnabled("Corvane", "Service") == enabled; });
  }
};

TEST_F(FeatureFlagsTest, DefaultIsOnWithoutFileOrEnvironment) {
  EXPECT_TRUE(serviceIs(true));
  EXPECT_TRUE(FeatureFlags::isEnabled("Corvane", "Unlisted"));
}

TEST_F(FeatureFlagsTest, FileIsReadAndReReadWhenItChanges) {
  write(R"({"Corvane": {"Service": false, "Other": true}})");
  ASSERT_TRUE(serviceIs(false));
  EXPECT_TRUE(FeatureFlags::isEnabled("Corvane", "Other"));
  EXPECT_TRUE(FeatureFlags::isEnabled("Corvane", "Unlisted"));
  write(R"({"Corvane": {"Service": true}})");
  EXPECT_TRUE(serviceIs(true));
  write(R"({"Corvane": {"Service": false}})");
  ASSERT_TRUE(serviceIs(false));
  std::filesystem::remove(file_);
  EXPECT_TRUE(serviceIs(true));
}

TEST_F(FeatureFlagsTest, EnvironmentOverridesTheFile) {
  write(R"({"Corvane": {"Service": false}})");
  ASSERT_TRUE(serviceIs(false));
  struct Case {
    const char* value;
    bool expected;
  };
  for (const Case c : {Case{"1", true}, Case{"on", true}, Case{"0", false}, Case{"off", false},
                       Case{"maybe", false /* ignored: the file decides */}}) {
    const ScopedEnv env("CORVANE_FEATURE_CORVANE_SERVICE", c.value);
    EXPECT_EQ(FeatureFlags::isEnabled("Corvane", "Service"), c.expected) << c.value;
  }
}

TEST_F(FeatureFlagsTest, MalformedFileLeavesTheDefaultAndIsReported) {
  const ScopedLogCapture capture;
  // Each malformed text follows a valid one that switches the service off, so that the switch
  // coming back on shows the malformed one has been read.
  std::size_t reports = 0;
  for (const char* text : {"{not json", R"(["Corvane"])", R"({"Corvane": {"Service": "no"}})"}) {
    write(R"({"Corvane": {"Service": false}})");
    ASSERT_TRUE(serviceIs(false));
    write(text);
    EXPECT_TRUE(serviceIs(true)) << text;
    if (std::string_view(text).starts_with("{\"Corvane")) continue;  // valid, only not a switch
    ++reports;
  }
  EXPECT_EQ(capture.records().size(), reports);
}

TEST(Localization, DescriptionsFollowTheLanguageAndFallBackToEnglishThenTheKey) {
  // Only the main thread runs while the locale changes.
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);  // NOLINT(concurrency-mt-unsafe)
  struct Case {
    const char* language;
    CorvaneError error;
    const char* expected;
  };
  const Case cases[] = {
      {"de", CorvaneError::networkError, "Das Netzwerk ist nicht erreichbar."},
      {"en", CorvaneError::deviceNotManaged, "This device is not managed."},
      // Nobody translated French, and the plain locale has no language at all: English serves.
      {"fr", CorvaneError::deviceNotManaged, "This device is not managed."},
      {nullptr, CorvaneError::networkError, "The network could not be reached."},
      {"de", CorvaneError::unsupportedPlatform, "Diese Plattform wird nicht unterstützt."},
  };
  for (const auto& c : cases) {
    const ScopedEnv language("LANGUAGE", c.language);
    Localization::languageChanged();
    SCOPED_TRACE(c.language != nullptr ? c.language : "(no LANGUAGE)");
    EXPECT_EQ(localizedDescription(c.error), c.expected);
    EXPECT_EQ(Error(c.error).localizedDescription(), c.expected);
    EXPECT_EQ(make_error_code(c.error).message(), c.expected);
  }
  // A key that no catalogue has comes back as itself, in any language.
  for (const char* language : {"de", "fr"}) {
    const ScopedEnv set("LANGUAGE", language);
    Localization::languageChanged();
    EXPECT_EQ(Localization::localizedString("error.neverTranslated"), "error.neverTranslated");
  }
  // So does every key when the bundle has no catalogue at all.
  {
    const ScopedEnv empty("CORVANE_RESOURCE_DIR", "/nonexistent/Corvane.framework");
    const ScopedEnv none("LANGUAGE", nullptr);
    Localization::languageChanged();
    EXPECT_EQ(localizedDescription(CorvaneError::deviceNotManaged), "error.deviceNotManaged");
  }
  Localization::languageChanged();
  std::setlocale(LC_ALL, "C");  // NOLINT(concurrency-mt-unsafe)
}

TEST(DeviceInfo, ScreenScaleFromOverrideOrEnvironment) {
  DeviceInfo::clearScreenScaleOverride();
  struct Case {
    const char* corvane;
    const char* gdk;
    std::optional<double> expected;
  };
  const Case cases[] = {{nullptr, nullptr, std::nullopt},
                        {"2", "3", 2.0},
                        {nullptr, "3", 3.0},
                        {"1.5", nullptr, 1.5},
                        {"abc", "3", std::nullopt},
                        {"nan", nullptr, std::nullopt},
                        {"-2", nullptr, std::nullopt},
                        {"2x", nullptr, std::nullopt}};
  for (const auto& c : cases) {
    const ScopedEnv corvane("CORVANE_SCREEN_SCALE", c.corvane);
    const ScopedEnv gdk("GDK_SCALE", c.gdk);
    EXPECT_EQ(DeviceInfo::screenScale(), c.expected)
        << (c.corvane ? c.corvane : "-") << " " << (c.gdk ? c.gdk : "-");
  }
  const ScopedEnv corvane("CORVANE_SCREEN_SCALE", "2");
  DeviceInfo::overrideScreenScale(3.0);
  EXPECT_EQ(DeviceInfo::screenScale(), 3.0);
  DeviceInfo::overrideScreenScale(std::nullopt);
  EXPECT_EQ(DeviceInfo::screenScale(), std::nullopt);
  DeviceInfo::clearScreenScaleOverride();
  EXPECT_EQ(DeviceInfo::screenScale(), 2.0);
}

TEST(BuildVariant, InternalOnlyWhenSetToOne) {
  for (const auto& [value, expected] :
       {std::pair<const char*, bool>{nullptr, false}, {"1", true}, {"0", false}, {"yes", false}}) {
    const ScopedEnv env("CORVANE_INTERNAL_BUILD", value);
    EXPECT_EQ(BuildVariant::isInternal(), expected);
  }
}

TEST(Random, UuidsAreVersion4AndDistinctAcrossThreads) {
  std::set<boost::uuids::uuid> seen;
  std::mutex mutex;
  std::vector<std::jthread> threads;
  threads.reserve(4);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        const auto id = Random::uuid();
        EXPECT_EQ(id.version(), boost::uuids::uuid::version_random_number_based);
        const std::lock_guard seenLock(mutex);
        seen.insert(id);
      }
    });
  }
  threads.clear();
  EXPECT_EQ(seen.size(), 1000U);
  std::set<std::uint64_t> bits;
  for (int i = 0; i < 100; ++i) bits.insert(Random::bits64());
  EXPECT_EQ(bits.size(), 100U);
}

}  // namespace
}  // namespace corvane::platform
