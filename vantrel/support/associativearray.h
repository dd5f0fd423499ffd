#pragma once
// CAssociativeArray: a name-to-value table of texts that travels as the data of
// a message (file-copy requests and their results).
//
// Text form. Every byte of a name or value is allowed (separators, quotes,
// line ends, zero bytes): each is written with its length in front, so nothing
// needs quoting.
//
//   text    = "A" count ";" couple*            count: number of couples
//   couple  = length ":" name "=" length ":" value sep
//   sep     = ";" or "\n"
//   length, count = decimal digits (at most 10, value below 2^32, no sign)
//
// Example: A2;10:$LOCALFILE=6:/tmp/a;9:$FILENAME=0:;
// Couples are written in ascending byte order of their names; each name
// appears once. A text may be followed by one zero byte (a text sent "with its
// terminating zero"); nothing else may follow. An empty text (length 0, or a
// single zero byte) is read as an empty array.
//
// Ownership and threads: a plain value. A single array is not shared between
// threads while any of them changes it (ToString also updates the stored text
// form, so it counts as a change).
#include <string>
#include <unordered_map>

#include "vantrel/base/error/error.h"
#include "vantrel/base/export.h"

// Any error of the array. Catch it by this class or by QXErrorException; what()
// gives the finished text, messageFile() and messageNumber() identify it. Plain
// values: copies are independent, and constructing one only allocates.
class VANTREL_API CAssociativeArrayException : public QXErrorException {
 public:
  // Takes file, number, arguments and text of `error`.
  explicit CAssociativeArrayException(const QXErrorException& error);
  CAssociativeArrayException(const CAssociativeArrayException&) = default;
  CAssociativeArrayException& operator=(const CAssociativeArrayException&) = default;
  ~CAssociativeArrayException() override;
};

// A text that is not in the array's text form (message 10 of "runcore.frm").
class VANTREL_API CIllegalAssoSyntaxException : public CAssociativeArrayException {
 public:
  // `text` (or an excerpt of it) is the message's one argument.
  explicit CIllegalAssoSyntaxException(const std::string& text);
  CIllegalAssoSyntaxException(const CIllegalAssoSyntaxException&) = default;
  CIllegalAssoSyntaxException& operator=(const CIllegalAssoSyntaxException&) = default;
  ~CIllegalAssoSyntaxException() override;
};

// A key that is not in the array (message 11 of "runcore.frm"): the key and a
// text naming where it was looked for.
class VANTREL_API CAssoKeyDoesNotExistException : public CAssociativeArrayException {
 public:
  CAssoKeyDoesNotExistException(const std::string& key, const std::string& where);
  CAssoKeyDoesNotExistException(const CAssoKeyDoesNotExistException&) = default;
  CAssoKeyDoesNotExistException& operator=(const CAssoKeyDoesNotExistException&) = default;
  ~CAssoKeyDoesNotExistException() override;
};

// A name-to-value table of texts with a text form that travels as message data.
//
// Applications build file-copy requests with it and read their results (the
// names are in vantrel/message/wire.h):
//   CAssociativeArray request;
//   request.AddCouple(vantrel::wire::kCopyLocalFile, "/data/run1.csv");
//   request.AddCouple(vantrel::wire::kCopyRemoteFile, "/results/run1.csv");
//   std::string text;
//   long length = 0;
//   request.ToString(text, length, false, false);
//   bus.NETCopyFileZ1(7, text.data(), static_cast<unsigned>(length), "lg02");
// No operation blocks. Every operation may throw std::bad_alloc; the others
// throw only where stated.
class VANTREL_API CAssociativeArray : public std::unordered_map<std::string, std::string> {
 public:
  // An empty array with room for `initialSize` couples before it rehashes.
  explicit CAssociativeArray(int initialSize = 11);
  // Copies the couples and the stored text form.
  CAssociativeArray(const CAssociativeArray&) = default;
  CAssociativeArray& operator=(const CAssociativeArray&) = default;
  virtual ~CAssociativeArray();

  // Adds the couple; a name already present gets the new value. A number is
  // stored as its decimal text; a null text as the empty text. The array keeps
  // copies of both texts.
  void AddCouple(const std::string& name, long value);
  void AddCouple(const std::string& name, const std::string& value);
  void AddCouple(const std::string& name, const char* value);

  // The value stored under `name`, or the empty text when there is none (use
  // HasParameter to tell the two apart). A copy; never changes the array.
  std::string GetValueOfParameter(const std::string& name) const;
  // The same value, read in place: valid until the couple is removed or the
  // array destroyed. Read-only on purpose, also on an array that is not const,
  // so that `array[name] = value` does not compile (AddCouple writes) and a
  // lookup never adds a couple.
  const std::string& operator[](const std::string& name) const;
  // True when a couple with this name is stored, even with an empty value.
  bool HasParameter(const std::string& name) const { return find(name) != end(); }
  // The value stored under `name`, valid as for operator[]; throws
  // CAssoKeyDoesNotExistException when there is none.
  const std::string& GetRequiredValue(const std::string& name) const;

  // Replaces the contents with the couples of `text` (`length` bytes, not
  // necessarily zero-terminated; the array keeps copies) and returns true. A
  // text that is not in the text form, a null text or a negative length is
  // logged and leaves the array empty; the result is then false. Never throws
  // for bad input.
  bool FromString(const char* text, long length);
  // Same, but bad input throws CIllegalAssoSyntaxException (the array is then
  // empty) instead of returning false.
  void Parse(const char* text, long length);

  // Writes the text form into `text` and its length in bytes into `length`;
  // both belong to the caller. `countTerminator`: the length includes the zero
  // byte that follows text.c_str() (for data sent "with its terminating zero").
  // `lineBreaks`: couples end in "\n" instead of ";" (easier to read in a log).
  // Also keeps the text as the array's stored text form, which is why two
  // threads may not call it on one array at once.
  void ToString(std::string& text, long& length, bool countTerminator, bool lineBreaks) const;

  // The text last read by FromString/Parse or written by ToString; valid until
  // the next of those calls.
  const std::string& Text() const { return text_; }

 private:
  mutable std::string text_;
};
