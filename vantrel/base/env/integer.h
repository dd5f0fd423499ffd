#pragma once
// The one way the library reads an integer from a text a person wrote: a port
// on a command line or in the environment, a time in the environment, a value
// in the settings file. Every reader checks the range it needs and gets a text
// that says what was wrong, so that "9011x" is either 9011 everywhere or an
// error everywhere, never one here and another there.
//
// Pure functions: any thread.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantrel::env {

enum class tIntegerForm {
  // The whole text is the number: decimal digits, a minus before them when
  // negative, nothing else (no blanks, no plus). For ports and environment
  // variables.
  eWhole,
  // A number at the start of the text, as a stream reads one: blanks before it
  // are skipped and reading stops at the first character that is not part of it
  // ("250ms" is 250). Only for the settings file, which documents this.
  eLeadingNumber,
};

// The decimal integer in `text` when it has the given form and lies within
// [`min`, `max`]; otherwise nothing, and `error` (when given) says why, quoting
// the text: "\"9011x\" is not a whole number", "\"70000\" is not between 1 and
// 65535". Never throws.
std::optional<std::int64_t> ParseInteger(std::string_view text, std::int64_t min, std::int64_t max,
                                         std::string* error = nullptr, tIntegerForm form = tIntegerForm::eWhole);

// A TCP port: the whole text, 1 to 65535.
std::optional<unsigned short> ParsePort(std::string_view text, std::string* error = nullptr);

// The clients port that the environment variable VANTREL_CLIENT_PORT names:
// `defaultPort` when it is unset, empty or 0; nothing, with `error` saying why,
// when it is not a port. Client library and service both read it here, so a bad
// value is an error for both.
std::optional<unsigned short> ClientPortFromEnvironment(unsigned short defaultPort, std::string* error);

}  // namespace vantrel::env
