// The associative array's text form as it arrives in a copy request or result.
// Reading any bytes either fails and leaves the array empty, or gives an array
// whose text form reads back into the same couples, in both separator styles,
// with or without the terminating zero.
#include <string>

#include "fuzz/fuzzsupport.h"
#include "vantrel/support/associativearray.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  vantrel::fuzz::QuietLog();
  const char* text = reinterpret_cast<const char*>(bytes);
  CAssociativeArray array;
  array.AddCouple("left over", "from before");
  if (!array.FromString(text, static_cast<long>(size))) {
    FUZZ_CHECK(array.empty() && array.Text().empty());
    return 0;
  }
  FUZZ_CHECK(array.Text() == std::string(text, size));

  std::string written;
  long length = 0;
  for (const bool terminator : {false, true})
    for (const bool lineBreaks : {false, true}) {
      array.ToString(written, length, terminator, lineBreaks);
      FUZZ_CHECK(length == static_cast<long>(written.size()) + (terminator ? 1 : 0));
      CAssociativeArray again;
      // With its terminating zero, as it travels, or without one.
      FUZZ_CHECK(again.FromString(written.c_str(), length));
      FUZZ_CHECK(static_cast<const CAssociativeArray::unordered_map&>(again) ==
                 static_cast<const CAssociativeArray::unordered_map&>(array));
    }
  return 0;
}
