#include "vantrel/base/error/error.h"

#include <cstring>
#include <utility>

namespace {

struct MessageEntry {
  const char* file;
  int number;
  const char* text;
};

// The numbered messages the system raises. Files are matched exactly.
constexpr MessageEntry kMessages[] = {
    {"runcore.frm", 10, "Illegal associative array syntax: \"%1\"."},
    {"runcore.frm", 11, "The key \"%1\" does not exist in \"%2\"."},
};

// Replaces %1..%9 by the matching argument; a reference to an argument that was
// not given becomes empty text, "%%" becomes "%".
std::string Expand(const char* text, const std::vector<std::string>& arguments) {
  std::string out;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '%' && p[1] >= '1' && p[1] <= '9') {
      const std::size_t index = static_cast<std::size_t>(p[1] - '1');
      if (index < arguments.size()) out += arguments[index];
      ++p;
    } else if (*p == '%' && p[1] == '%') {
      out += '%';
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}

}  // namespace

QXErrorException::QXErrorException(std::string messageFile, int messageNumber, std::vector<std::string> arguments)
    : messageFile_(std::move(messageFile)), messageNumber_(messageNumber), arguments_(std::move(arguments)) {
  if (const char* templ = MessageTemplate(messageFile_, messageNumber_)) {
    text_ = Expand(templ, arguments_);
    return;
  }
  text_ = "Error " + std::to_string(messageNumber_) + " of message file \"" + messageFile_ + "\"";
  if (!arguments_.empty()) {
    text_ += " (arguments:";
    for (const std::string& argument : arguments_) text_ += " \"" + argument + "\"";
    text_ += ")";
  }
  text_ += ".";
}

QXErrorException::~QXErrorException() = default;

const char* QXErrorException::MessageTemplate(const std::string& messageFile, int messageNumber) {
  for (const MessageEntry& entry : kMessages) {
    if (entry.number == messageNumber && messageFile == entry.file) return entry.text;
  }
  return nullptr;
}
