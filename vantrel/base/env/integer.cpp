#include "vantrel/base/env/integer.h"

#include <cctype>
#include <charconv>

#include "vantrel/base/env/envcontainer.h"
#include "vantrel/base/log/log.h"

namespace vantrel::env {
namespace {

bool IsBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string Quoted(std::string_view text) { return fmt::sprintf("\"%s\"", vantrel::log::Escaped(text)); }

}  // namespace

std::optional<std::int64_t> ParseInteger(std::string_view text, std::int64_t min, std::int64_t max, std::string* error,
                                         tIntegerForm form) {
  const auto fail = [&](const char* why) -> std::optional<std::int64_t> {
    if (error != nullptr) *error = Quoted(text) + why;
    return std::nullopt;
  };
  std::string_view rest = text;
  if (form == tIntegerForm::eLeadingNumber)
    while (!rest.empty() && IsBlank(rest.front())) rest.remove_prefix(1);
  // A stream also takes a plus; a whole number is written without one.
  bool negative = false;
  if (!rest.empty() && (rest.front() == '-' || (rest.front() == '+' && form == tIntegerForm::eLeadingNumber))) {
    negative = rest.front() == '-';
    rest.remove_prefix(1);
  }
  if (rest.empty() || !std::isdigit(static_cast<unsigned char>(rest.front()))) return fail(" is not a number");
  std::uint64_t magnitude = 0;
  const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), magnitude);
  if (form == tIntegerForm::eWhole && end != rest.data() + rest.size()) return fail(" is not a whole number");
  // Out of range for 64 bits is out of range for every reader.
  constexpr auto kLimit = static_cast<std::uint64_t>(INT64_MAX);
  if (ec == std::errc::result_out_of_range || magnitude > kLimit + (negative ? 1 : 0)) {
    if (error != nullptr) *error = fmt::sprintf("%s is not between %d and %d", Quoted(text), min, max);
    return std::nullopt;
  }
  const std::int64_t value = negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
  if (value < min || value > max) {
    if (error != nullptr) *error = fmt::sprintf("%s is not between %d and %d", Quoted(text), min, max);
    return std::nullopt;
  }
  return value;
}

std::optional<unsigned short> ParsePort(std::string_view text, std::string* error) {
  const auto value = ParseInteger(text, 1, 65535, error);
  if (!value) return std::nullopt;
  return static_cast<unsigned short>(*value);
}

std::optional<unsigned short> ClientPortFromEnvironment(unsigned short defaultPort, std::string* error) {
  RQEnvContainerClass env;
  const char* text = env.RQEGetEnv("VANTREL_CLIENT_PORT");
  if (text == nullptr || *text == '\0') return defaultPort;
  std::string why;
  const auto port = ParseInteger(text, 0, 65535, &why);
  if (!port) {
    if (error != nullptr) *error = "VANTREL_CLIENT_PORT " + why;
    return std::nullopt;
  }
  return *port == 0 ? defaultPort : static_cast<unsigned short>(*port);
}

}  // namespace vantrel::env
