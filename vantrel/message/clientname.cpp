#include "vantrel/message/clientname.h"

#include <algorithm>
#include <cstring>

#include "vantrel/base/log/log.h"
#include "vantrel/message/wire.h"

namespace vantrel {

std::string ClientNameProblem(std::string_view name) {
  if (name.size() > wire::kMaxClientNameSize)
    return fmt::sprintf("it is %d bytes long, more than %d", name.size(), wire::kMaxClientNameSize);
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto byte = static_cast<unsigned char>(name[i]);
    if (byte < 0x20 || byte == 0x7f) return fmt::sprintf("byte %d is the control character 0x%02x", i, byte);
  }
  return std::string();
}

std::string MakeGreeting(std::string_view name) {
  std::string greeting(wire::kGreetingSize, '\0');
  const std::size_t inField = std::min<std::size_t>(name.size(), wire::kGreetingFieldSize - 1);
  std::memcpy(greeting.data() + wire::kGreetingNameOffset, name.data(), inField);
  if (inField < name.size()) greeting.append(name);
  return greeting;
}

std::string GreetingClientName(const char* greeting, std::size_t length) {
  if (length > wire::kGreetingLongNameOffset)
    return std::string(greeting + wire::kGreetingLongNameOffset, length - wire::kGreetingLongNameOffset);
  const char* field = greeting + wire::kGreetingNameOffset;
  return std::string(field, strnlen(field, wire::kGreetingFieldSize));
}

}  // namespace vantrel
