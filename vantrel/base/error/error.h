#pragma once
// QXErrorException: an error raised by the base libraries, identified by a
// message file, a message number within it and the message's text arguments.
// what() gives the finished text: the message's template with %1, %2, ...
// replaced by the arguments. Numbers without a known template give a generic
// text that still names the file, the number and every argument, so nothing
// is lost in a log line.
//
// Ownership: a plain value; copies are independent. Any thread may create,
// copy and read one; a single object is not shared between threads while it
// is being assigned.
#include <exception>
#include <string>
#include <vector>

#include "vantrel/base/export.h"

class VANTREL_API QXErrorException : public std::exception {
 public:
  QXErrorException(std::string messageFile, int messageNumber, std::vector<std::string> arguments = {});
  QXErrorException(const QXErrorException&) = default;
  QXErrorException& operator=(const QXErrorException&) = default;
  ~QXErrorException() override;

  const char* what() const noexcept override { return text_.c_str(); }

  const std::string& messageFile() const { return messageFile_; }
  int messageNumber() const { return messageNumber_; }
  const std::vector<std::string>& arguments() const { return arguments_; }

  // The template of a message, or null when the file and number are unknown.
  static const char* MessageTemplate(const std::string& messageFile, int messageNumber);

 private:
  std::string messageFile_;
  int messageNumber_;
  std::vector<std::string> arguments_;
  std::string text_;
};
