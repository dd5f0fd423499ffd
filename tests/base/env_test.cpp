#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/env/integer.h"
#include "vantrel/base/env/settings.h"
#include "vantrel/base/platform/process.h"

namespace {

using vantrel::env::ParseInteger;
using vantrel::env::tIntegerForm;
using vantrel::test::LogCapture;
using vantrel::test::ScopedEnv;
using vantrel::test::TempDir;

std::optional<std::string> Get(int table, const char* key) {
  std::optional<std::string> out = std::string("stale");
  nEnvSettings::gGetPropertyString(out, table, key);
  return out;
}

TEST(EnvContainer, GetEnvCachesUntilResetAndKeepsPointersValid) {
  ScopedEnv var("VANTREL_TEST_ENV_A", "first");
  RQEnvContainerClass env;
  EXPECT_EQ(env.RQEGetEnv("VANTREL_TEST_ENV_UNSET_XYZ"), nullptr);
  EXPECT_EQ(env.RQEGetEnv(nullptr), nullptr);
  const char* first = env.RQEGetEnv("VANTREL_TEST_ENV_A");
  ASSERT_NE(first, nullptr);

  RQPSetEnvironment("VANTREL_TEST_ENV_A", "second");
  EXPECT_STREQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), "first");
  env.reset();
  EXPECT_STREQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), "second");
  RQPUnsetEnvironment("VANTREL_TEST_ENV_A");
  env.reset();
  EXPECT_EQ(env.RQEGetEnv("VANTREL_TEST_ENV_A"), nullptr);
  EXPECT_STREQ(first, "first");  // earlier pointers outlive reset()
}

TEST(EnvContainer, ResolveExpandsSetMacrosAndLeavesTheRestAsWritten) {
  ScopedEnv bin("VANTREL_TEST_RQ_BIN", "/opt/rq/bin");
  ScopedEnv tricky("VANTREL_TEST_TRICKY", "#(VANTREL_TEST_RQ_BIN)");
  RQEnvContainerClass env;
  LogCapture log;
  EXPECT_EQ(env.RQERuntimeResolve("a#(VANTREL_TEST_RQ_BIN)b#(VANTREL_TEST_RQ_BIN)"), "a/opt/rq/binb/opt/rq/bin");
  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_TRICKY)"), "#(VANTREL_TEST_RQ_BIN)");  // not expanded twice
  EXPECT_EQ(log.lines().size(), 0u);

  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_NOT_SET_Q)/x"), "#(VANTREL_TEST_NOT_SET_Q)/x");
  EXPECT_EQ(env.RQERuntimeResolve("y#(VANTREL_TEST_NOT_SET_Q)"), "y#(VANTREL_TEST_NOT_SET_Q)");
  EXPECT_EQ(log.count("VANTREL_TEST_NOT_SET_Q"), 1u);  // said once per name
  EXPECT_EQ(env.RQERuntimeResolve("#()"), "#()");
  // Unterminated macros are copied as they stand.
  EXPECT_EQ(env.RQERuntimeResolve("#("), "#(");
  EXPECT_EQ(env.RQERuntimeResolve("#(VANTREL_TEST_RQ_BIN)/a#(VANTREL_TEST_RQ_BIN"),
            "/opt/rq/bin/a#(VANTREL_TEST_RQ_BIN");
}

TEST(SettingsTable, SyntaxKeysCommentsSectionsAndValues) {
  LogCapture log;
  const int t = nEnvSettings::gLoadTableFromText(
      "\xEF\xBB\xBF; comment\r\n# another\n[Sockets]\n  SocketCommunicationTimeout   =   2500  \r\n\n"
      "this line has no equals sign\n= 7\n[unclosed\nPath = /a b/c=d ; kept\nEmpty =\n"
      "Twice = 1\ntwice = 2\nLastLine = no newline",
      "syn.ini");
  EXPECT_EQ(Get(t, "SOCKETCOMMUNICATIONTIMEOUT"), "2500");
  EXPECT_EQ(Get(t, "Path"), "/a b/c=d ; kept");
  EXPECT_EQ(Get(t, "Empty"), "");
  EXPECT_EQ(Get(t, "Twice"), "2");
  EXPECT_EQ(Get(t, "LastLine"), "no newline");
  EXPECT_EQ(Get(t, "Sockets"), std::nullopt);
  EXPECT_EQ(Get(t, nullptr), std::nullopt);
  // Malformed lines are named by number and skipped; good lines are silent.
  for (const char* at : {"syn.ini:6:", "syn.ini:7:", "syn.ini:8:"}) EXPECT_EQ(log.count(at), 1u) << at;
  EXPECT_EQ(log.count("syn.ini:4:") + log.count("syn.ini:9:"), 0u);
}

TEST(SettingsTable, StreamReadOfMissingKeyIsEmptyAndLoggedOncePerKey) {
  const int t = nEnvSettings::gLoadTableFromText("Present = 5\n", "stream");
  LogCapture log;
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "Present"), "5");
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "MissingKey"), "");
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(t, "missingkey"), "");
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(nEnvSettings::gGetPropertyStream(1 << 30, "Present"), "");  // unknown table
  EXPECT_EQ(Get(-1, "Present"), std::nullopt);
}

TEST(SettingsFile, LoadRefusesMissingDirectoryAndOversizedFiles) {
  TempDir dir;
  int table = -42;
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(dir.file("absent.ini"), table));
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(dir.path(), table));
  EXPECT_FALSE(nEnvSettings::gLoadTableFromFile(
      dir.write("big.ini", std::string(nEnvSettings::kMaxSettingsFileBytes + 1, 'x')), table));
  EXPECT_EQ(table, -42);
}

TEST(SettingsFile, SearchOrderIsNamedFileCurrentFolderProgramFolderInstalledFolder) {
  ScopedEnv ini("VANTREL_INI", "/somewhere/custom.ini");
  RQEnvContainerClass env;
  const auto candidates = nEnvSettings::gSearchPath(env, "Vantrel.ini");
  ASSERT_EQ(candidates.size(), 4u);
  EXPECT_EQ(candidates[0], "/somewhere/custom.ini");
  EXPECT_EQ(candidates[1], (std::filesystem::current_path() / "Vantrel.ini").string());
  // The test program's own folder, however the system spells it.
  EXPECT_EQ(std::filesystem::path(candidates[2]).filename(), "Vantrel.ini");
  EXPECT_TRUE(std::filesystem::equivalent(std::filesystem::path(candidates[2]).parent_path(),
                                          std::filesystem::path(VANTREL_BINARY_DIR) / "tests"))
      << candidates[2];
  EXPECT_EQ(std::filesystem::path(candidates[3]).filename(), "Vantrel.ini");
  EXPECT_TRUE(std::filesystem::path(candidates[3]).is_absolute());
}

TEST(SettingsFile, NamedFileWinsAndAWrongNameFallsBackToTheCurrentFolder) {
  TempDir dir;
  dir.write("Vantrel.ini", "Origin = cwd\n");
  const std::string named = dir.write("named.ini", "Origin = named\n");
  const auto oldCwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
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
    EXPECT_TRUE(log.contains("missing.ini"));
  }
  std::filesystem::current_path(oldCwd);
}

TEST(SettingsFile, NoFileFoundGivesTheShippedDefaultsSaidOnce) {
  TempDir dir;
  LogCapture log;
  int table = 0;
  EXPECT_FALSE(nEnvSettings::gFileInitTableFrom({dir.file("a.ini"), dir.file("b.ini")}, table));
  EXPECT_EQ(table, nEnvSettings::gBuiltInDefaultsTable());
  EXPECT_EQ(log.count("built-in defaults"), 1u);
  // The built-in text is the shipped file, byte for byte, and the table holds its keys.
  EXPECT_EQ(nEnvSettings::gBuiltInDefaults(),
            vantrel::test::ReadFile(std::string(VANTREL_SOURCE_DIR) + "/dist/Vantrel.ini"));
  EXPECT_NE(Get(table, "SocketCommunicationTimeout"), std::nullopt);
}

TEST(SettingsTable, ConcurrentLoadsAndLookUpsSeeTheirOwnTables) {
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i, &mismatches] {
      for (int r = 0; r < 200; ++r) {
        const std::string value = std::to_string(i * 1000 + r);
        const int t = nEnvSettings::gLoadTableFromText("Key = " + value + "\n", "concurrent");
        if (Get(t, "KEY") != value || nEnvSettings::gGetPropertyStream(t, "Key") != value) ++mismatches[i];
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

TEST(ParseInteger, WholeOrLeadingNumberWithinItsRangeElseAnErrorQuotingTheText) {
  const struct {
    std::string text;
    tIntegerForm form;
    std::optional<std::int64_t> value;  // within -100 to 65535
    const char* error;                  // part of the error text when there is no value
  } cases[] = {
      {"-99", tIntegerForm::eWhole, -99, ""},
      {"9011x", tIntegerForm::eWhole, std::nullopt, "\"9011x\" is not a whole number"},
      {"+9011", tIntegerForm::eWhole, std::nullopt, "\"+9011\" is not a number"},
      {"99999999999999999999", tIntegerForm::eWhole, std::nullopt, "is not between -100 and 65535"},
      {"1\n2", tIntegerForm::eWhole, std::nullopt, "\"1\\n2\" is not"},
      {" +250ms", tIntegerForm::eLeadingNumber, 250, ""},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_EQ(ParseInteger(c.text, -100, 65535, &error, c.form), c.value) << c.text;
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

}  // namespace
