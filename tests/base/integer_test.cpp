// Reading integers that people write, and quoting peer texts in the log.
#include "vantrel/base/env/integer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "vantrel/base/log/log.h"

namespace {

using vantrel::env::ParseInteger;
using vantrel::env::tIntegerForm;

TEST(ParseInteger, WholeOrLeadingNumberWithinItsRangeElseAnErrorQuotingTheText) {
  constexpr auto kWhole = tIntegerForm::eWhole;
  constexpr auto kLeading = tIntegerForm::eLeadingNumber;
  struct {
    std::string text;
    tIntegerForm form;
    std::int64_t min, max;
    std::optional<std::int64_t> value;
    const char* error;  // part of the error text when there is no value
  } cases[] = {
      {"9011", kWhole, 1, 65535, 9011, ""},
      {"-7", kWhole, -10, 10, -7, ""},
      {"9011x", kWhole, 1, 65535, std::nullopt, "\"9011x\" is not a whole number"},
      {"+9011", kWhole, 1, 65535, std::nullopt, "is not a number"},
      {" 9011", kWhole, 1, 65535, std::nullopt, "is not a number"},
      {"", kWhole, 1, 65535, std::nullopt, "\"\" is not a number"},
      {"-", kWhole, -5, 5, std::nullopt, "is not a number"},
      {"65536", kWhole, 1, 65535, std::nullopt, "\"65536\" is not between 1 and 65535"},
      {"0", kWhole, 1, 65535, std::nullopt, "not between 1 and 65535"},
      {"99999999999999999999", kWhole, 0, 10, std::nullopt, "not between 0 and 10"},
      {"-9223372036854775808", kWhole, INT64_MIN, 0, INT64_MIN, ""},
      {"1\n2", kWhole, 0, 10, std::nullopt, "\"1\\n2\" is not a whole number"},
      // The settings file's documented form.
      {"  250ms", kLeading, INT32_MIN, INT32_MAX, 250, ""},
      {"+12 -1", kLeading, INT32_MIN, INT32_MAX, 12, ""},
      {"2147483648", kLeading, INT32_MIN, INT32_MAX, std::nullopt, "not between"},
      {"soon", kLeading, INT32_MIN, INT32_MAX, std::nullopt, "is not a number"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    std::string error = "untouched";
    EXPECT_EQ(ParseInteger(c.text, c.min, c.max, &error, c.form), c.value);
    if (c.value)
      EXPECT_EQ(error, "untouched");
    else
      EXPECT_NE(error.find(c.error), std::string::npos) << error;
  }
}

TEST(LogEscaped, ControlCharactersBecomeEscapesAndEverythingElseStays) {
  const struct {
    std::string text;
    std::string logged;
  } cases[] = {
      {"recorder@lg01~9011", "recorder@lg01~9011"},
      {"a\nb\r\tc", "a\\nb\\r\\tc"},
      {std::string("\x1b[2J\x7f\0z", 7), "\\x1b[2J\\x7f\\x00z"},
      {"caf\xc3\xa9 C:\\dir", "caf\xc3\xa9 C:\\dir"},
  };
  for (const auto& c : cases) EXPECT_EQ(fmt::sprintf("<%s>", vantrel::log::Escaped(c.text)), "<" + c.logged + ">");
  EXPECT_EQ(fmt::sprintf("%s", vantrel::log::Escaped(static_cast<const char*>(nullptr))), "");
}

}  // namespace
