// A settings file's text. Whatever it holds, the keys and values read from it
// are written back as "key = value" lines that read into the same table.
#include <string>
#include <string_view>

#include "fuzz/fuzzsupport.h"
#include "vantrel/base/env/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  vantrel::fuzz::QuietLog();
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const auto values = nEnvSettings::gParseSettings(text, "fuzz input");

  // The leading line end keeps a first key from being taken for a byte order mark.
  std::string written = "\n";
  for (const auto& [key, value] : values) {
    FUZZ_CHECK(!key.empty() && key.find_first_of("=\nABCDEFGHIJKLMNOPQRSTUVWXYZ") == std::string::npos);
    FUZZ_CHECK(value.find('\n') == std::string::npos);
    written += key + " = " + value + "\n";
  }
  FUZZ_CHECK(nEnvSettings::gParseSettings(written, "fuzz output") == values);
  return 0;
}
