#include "vantrel/support/associativearray.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tests/support/testutil.h"

namespace {

// `array[name] = value` used to compile and change nothing; it must not compile.
static_assert(!std::is_assignable_v<decltype(std::declval<CAssociativeArray&>()["$LOCALFILE"]), std::string>);

TEST(AssociativeArray, MissingNamesGiveEmptyTextOrTheKeyException) {
  CAssociativeArray a(3);
  a.AddCouple("$FILENAME", "x");
  a.AddCouple("$FILENAME", "y");  // replaces
  a.AddCouple("$FILECOPYCOMPLETIONSTATE", 4L);
  EXPECT_EQ(a["$FILENAME"], "y");
  EXPECT_EQ(a["$FILECOPYCOMPLETIONSTATE"], "4");
  EXPECT_EQ(a["$REMOTEFILE"], "");
  EXPECT_FALSE(a.HasParameter("$REMOTEFILE"));
  EXPECT_EQ(a.size(), 2u) << "a lookup must not add a couple";
  try {
    a.GetRequiredValue("$REMOTEFILE");
    FAIL() << "no exception";
  } catch (const CAssociativeArrayException& e) {
    EXPECT_STREQ(e.what(), "The key \"$REMOTEFILE\" does not exist in \"CAssociativeArray\".");
  }
}

TEST(AssociativeArray, MalformedTextsAreRejectedAndLeaveTheArrayEmpty) {
  const std::string bad[] = {
      "garbage",
      "A1;",                      // count without couples
      "A1;5:abc=0:;",             // name length past the end
      "A1;3:abc=0:",              // no separator
      "A1;3:abc=0:;x",            // trailing bytes
      "A2;1:a=0:;1:a=0:;",        // name twice
      "A99999999999;",            // count too long
      "A4294967295;1:a=0:;",      // count larger than the text
      "A1;-1:a=0:;",              // signed length
      std::string("A0;\0\0", 5),  // more than one trailing zero
  };
  vantrel::test::LogCapture log;
  for (const std::string& text : bad) {
    CAssociativeArray a;
    a.AddCouple("stale", "value");
    EXPECT_FALSE(a.FromString(text.data(), static_cast<long>(text.size()))) << text;
    EXPECT_TRUE(a.empty()) << text;
  }
  EXPECT_TRUE(log.contains("CAssociativeArray::FromString - illegal syntax"));
  CAssociativeArray a;
  EXPECT_FALSE(a.FromString(nullptr, 4));
  EXPECT_FALSE(a.FromString("A0;", -1));
  EXPECT_TRUE(a.FromString("", 0));
  EXPECT_THROW(a.Parse("A1;", 3), CIllegalAssoSyntaxException);
}

TEST(ErrorException, MessageTextsCarryTheirArguments) {
  EXPECT_STREQ(CIllegalAssoSyntaxException("A1;").what(), "Illegal associative array syntax: \"A1;\".");

  QXErrorException unknown("runcore.frm", 99, {"a", "b"});
  EXPECT_STREQ(unknown.what(), "Error 99 of message file \"runcore.frm\" (arguments: \"a\" \"b\").");
  EXPECT_EQ(QXErrorException::MessageTemplate("other.frm", 10), nullptr);
}

}  // namespace
