#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/env/settings.h"

namespace {

using vantrel::test::LogCapture;
using vantrel::test::TempDir;

// Sets an environment variable for the life of the object and restores the old state.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      ::setenv(name, value, 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (old_)
      ::setenv(name_.c_str(), old_->c_str(), 1);
    else
      ::unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// Changes the current folder for the life of the object.
class ScopedCwd {
 public:
  explicit ScopedCwd(const std::string& dir) : old_(std::filesystem::current_path()) {
    std::filesystem::current_path(dir);
  }
  ~ScopedCwd() { std::filesystem::current_path(old_); }

 private:
  std::filesystem::path old_;
};

std::optional<std::string> Get(int table, const char* key) {
  std::optional<std::string> out = std::string("stale");
  nEnvSettings::gGetPropertyString(out, table, key);
  return out;
}

// ---- environment container ----

TEST(EnvContainer, GetEnvCachesUntilResetAndKeepsPointersValid) {
  ScopedEnv var("VANTREL_TEST_ENV_A", "first");
  RQEnvContainerClass env;
  EXPECT_EQ(env.RQEGetEnv("VANTREL_TEST_ENV_UNSET_XYZ"), nullptr);
  EXPECT_EQ(env.RQEGetEnv(nullptr), nullptr);
  EXPECT_EQ(env.RQEGetEnv(""), nullptr);

  const char* first = env.RQEGetEnv("VANTREL_TEST_ENV_A");
  ASSERT_NE(first, nullptr);
  EXPECT_STREQ(first, "first");

  ::setenv("VANTREL_TEST_ENV_A", "second", 1);
  EXPECT_STREQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), "first");  // cached
  env.reset();
  EXPECT_STREQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), "second");
  EXPECT_STREQ(first, "first");  // the earlier pointer still holds its text

  ::unsetenv("VANTREL_TEST_ENV_A");
  env.reset();
  EXPECT_EQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), nullptr);
  EXPECT_STREQ(first, "first");
}

TEST(EnvContainer, ResolveExpandsMacrosAndLeavesUnsetOnesInPlace) {
  ScopedEnv bin("VANTREL_TEST_RQ_BIN", "/opt/rq/bin");
  ScopedEnv tricky("VANTREL_TEST_TRICKY", "#(VANTREL_TEST_RQ_BIN)");
  RQEnvContainerClass env;

  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_RQ_BIN)/vantrel"), "/opt/rq/bin/vantrel");
  EXPECT_EQ(env.RQERuntimeResolve("a#(VANTREL_TEST_RQ_BIN)b#(VANTREL_TEST_RQ_BIN)c"), "a/opt/rq/binb/opt/rq/binc");
  EXPECT_EQ(env.RQERuntimeResolve("no macro here"), "no macro here");
  EXPECT_EQ(env.RQERuntimeResolve(""), "");
  // A value is not expanded a second time.
  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_TRICKY)"), "#(VANTREL_TEST_RQ_BIN)");

  LogCapture log;
  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_NOT_SET_Q)/x"), "#(VANTREL_TEST_NOT_SET_Q)/x");
  EXPECT_EQ(env.RQERuntimeResolve("y#(VANTREL_TEST_NOT_SET_Q)"), "y#(VANTREL_TEST_NOT_SET_Q)");
  EXPECT_EQ(log.count("VANTREL_TEST_NOT_SET_Q"), 1u);  // once per name
  EXPECT_EQ(env.RQERuntimeResolve("#()"), "#()");
}

TEST(EnvContainer, ResolveCopiesUnterminatedMacroLiterally) {
  ScopedEnv bin("VANTREL_TEST_RQ_BIN", "/bin");
  RQEnvContainerClass env;
  EXPECT_EQ(env.RQERuntimeResolve("#("), "#(");
  EXPECT_EQ(env.RQERuntimeResolve("x#(VANTREL_TEST_RQ_BIN"), "x#(VANTREL_TEST_RQ_BIN");
  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_RQ_BIN)/a#(b"), "/bin/a#(b");
  EXPECT_EQ(env.RQERuntimeResolve("#"), "#");
}

// ---- settings tables ----

TEST(SettingsTable, SyntaxKeysCommentsSectionsAndValues) {
  const int t = nEnvSettings::gLoadTableFromText(
      "\xEF\xBB\xBF; leading comment\r\n"
      "# another comment\n"
      "[Sockets]\n"
      "  SocketCommunicationTimeout   =   2500  \r\n"
      "\n"
      "[ Other Section ]\n"
      "Path = /a b/c=d ; not a comment\n"
      "Macro = #(RQ_BIN)/x\n"
      "Empty =\n"
      "Twice = 1\n"
      "twice = 2\n"
      "LastLine = no newline",
      "syntax");

  EXPECT_EQ(Get(t, "socketcommunicationtimeout"), "2500");
  EXPECT_EQ(Get(t, "SOCKETCOMMUNICATIONTIMEOUT"), "2500");
  EXPECT_EQ(Get(t, "Path"), "/a b/c=d ; not a comment");
  EXPECT_EQ(Get(t, "Macro"), "#(RQ_BIN)/x");
  EXPECT_EQ(Get(t, "Empty"), "");
  EXPECT_TRUE(nEnvSettings::gHasProperty(t, "Empty"));
  EXPECT_EQ(Get(t, "Twice"), "2");
  EXPECT_EQ(Get(t, "LastLine"), "no newline");
  // Neither comments nor section names become keys.
  EXPECT_EQ(Get(t, "; leading comment"), std::nullopt);
  EXPECT_EQ(Get(t, "Sockets"), std::nullopt);
  EXPECT_EQ(Get(t, "Absent"), std::nullopt);
  EXPECT_EQ(Get(t, nullptr), std::nullopt);
}

TEST(SettingsTable, MalformedLinesAreLoggedWithLineNumberAndSkipped) {
  LogCapture log;
  const int t = nEnvSettings::gLoadTableFromText(
      "A = 1\n"
      "this line has no equals sign\n"
      "= 7\n"
      "[unclosed\n"
      "B = 2\n",
      "bad.ini");
  EXPECT_TRUE(log.contains("bad.ini:2:"));
  EXPECT_TRUE(log.contains("bad.ini:3:"));
  EXPECT_TRUE(log.contains("bad.ini:4:"));
  EXPECT_FALSE(log.contains("bad.ini:1:"));
  EXPECT_FALSE(log.contains("bad.ini:5:"));
  EXPECT_EQ(Get(t, "A"), "1");
  EXPECT_EQ(Get(t, "B"), "2");
  EXPECT_EQ(Get(t, ""), std::nullopt);
}

TEST(SettingsTable, StreamReadOfMissingKeyIsEmptyAndLoggedOncePerKey) {
  const int t = nEnvSettings::gLoadTableFromText("Present = 5\n", "stream");
  LogCapture log;
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "Present"), "5");
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "MissingKey"), "");
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "missingkey"), "");
  EXPECT_EQ(log.count("MissingKey"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);

  // An unknown handle is an error result, not a crash.
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(-3, "Present"), "");
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(1 << 30, "Present"), "");
  EXPECT_EQ(Get(0, "Present"), std::nullopt);
}

TEST(SettingsTable, LoadFromFileRefusesMissingDirectoryAndOversizedFiles) {
  TempDir dir;
  int table = -42;
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(dir.file("absent.ini"), table));
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(dir.path(), table));
  const std::string big = dir.write("big.ini", std::string(nEnvSettings::kMaxSettingsFileBytes + 1, 'x'));
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(big, table));
  EXPECT_EQ(table, -42);

  const std::string good = dir.write("good.ini", "Key = value\n");
  ASSERT_TRUE(nEnvSettings::gLoadTableFromFile(good, table));
  EXPECT_EQ(Get(table, "key"), "value");
}

TEST(SettingsFile, SearchOrderIsNamedFileCurrentFolderProgramFolderInstalledFolder) {
  ScopedEnv ini("VANTREL_INI", "/somewhere/custom.ini");
  RQEnvContainerClass env;
  const auto candidates = nEnvSettings::gSearchPath(env, "Vantrel.ini");
  ASSERT_EQ(candidates.size(), 4u);
  EXPECT_EQ(candidates[0], "/somewhere/custom.ini");
  EXPECT_EQ(candidates[1], (std::filesystem::current_path() / "Vantrel.ini").string());
  EXPECT_EQ(candidates[2],
            (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "Vantrel.ini").string());
  EXPECT_EQ(std::filesystem::path(candidates[3]).filename(), "Vantrel.ini");
  EXPECT_NE(candidates[3], candidates[1]);

  ScopedEnv noIni("VANTREL_INI", nullptr);
  RQEnvContainerClass env2;
  const auto without = nEnvSettings::gSearchPath(env2, "Vantrel.ini");
  ASSERT_EQ(without.size(), 3u);
  EXPECT_EQ(without[0], candidates[1]);
}

TEST(SettingsFile, NamedFileWinsOverCurrentFolder) {
  TempDir dir;
  dir.write("Vantrel.ini", "Origin = cwd\n");
  const std::string named = dir.write("named.ini", "Origin = named\n");
  ScopedCwd cwd(dir.path());
  int table = 0;
  {
    ScopedEnv ini("VANTREL_INI", named.c_str());
    RQEnvContainerClass env;
    EXPECT_TRUE(nEnvSettings::gFileInitTable(env, "Vantrel.ini", table));
    EXPECT_EQ(Get(table, "origin"), "named");
  }
  {
    ScopedEnv ini("VANTREL_INI", dir.file("missing.ini").c_str());
    LogCapture log;
    RQEnvContainerClass env;
    EXPECT_TRUE(nEnvSettings::gFileInitTable(env, "Vantrel.ini", table));
    EXPECT_EQ(Get(table, "origin"), "cwd");
    EXPECT_TRUE(log.contains("missing.ini"));  // a wrong VANTREL_INI is said
  }
}

TEST(SettingsFile, NoFileFoundGivesBuiltInDefaultsSaidOnce) {
  TempDir dir;
  LogCapture log;
  int table = 0;
  EXPECT_FALSE(nEnvSettings::gFileInitTableFrom({dir.file("a.ini"), dir.file("b.ini")}, table));
  EXPECT_EQ(table, nEnvSettings::gBuiltInDefaultsTable());
  EXPECT_EQ(log.count("built-in defaults"), 1u);
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(table, "SocketCommunicationTimeout"), "10000");
}

TEST(SettingsFile, BuiltInDefaultsAreTheShippedFile) {
  const std::string shipped = vantrel::test::ReadFile(std::string(VANTREL_SOURCE_DIR) + "/dist/Vantrel.ini");
  ASSERT_FALSE(shipped.empty());
  EXPECT_EQ(nEnvSettings::gBuiltInDefaults(), shipped);
}

TEST(SettingsTable, ConcurrentLoadsAndLookUpsSeeTheirOwnTables) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  std::vector<int> mismatches(kThreads, 0);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &mismatches] {
      for (int r = 0; r < kRounds; ++r) {
        const std::string value = std::to_string(i * 1000 + r);
        const int t = nEnvSettings::gLoadTableFromText("Key = " + value + "\n", "concurrent");
        std::optional<std::string> out;
        nEnvSettings::gGetPropertyString(out, t, "KEY");
        if (out != value) ++mismatches[i];
        if (nEnvSettings::gGetPropertyStream(t, "Key") != value) ++mismatches[i];
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(mismatches[i], 0) << "thread " << i;
}

}  // namespace
