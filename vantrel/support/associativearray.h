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

// Any error of the array.
class VANTREL_API CAssociativeArrayException : public QXErrorException {
 public:
  explicit CAssociativeArrayException(const QXErrorException& error);
  CAssociativeArrayException(const CAssociativeArrayException&) = default;
  CAssociativeArrayException& operator=(const CAssociativeArrayException&) = default;
  ~CAssociativeArrayException() override;
};

// A text that is not in the array's text form (message 10 of "runcore.frm").
class VANTREL_API CIllegalAssoSyntaxException : public CAssociativeArrayException {
 public:
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

class VANTREL_API CAssociativeArray : public std::unordered_map<std::string, std::string> {
 public:
  explicit CAssociativeArray(int initialSize = 11);
  CAssociativeArray(const CAssociativeArray&) = default;
  CAssociativeArray& operator=(const CAssociativeArray&) = default;
  virtual ~CAssociativeArray();

  // Adds the couple; a name already present gets the new value.
  void AddCouple(const std::string& name, long value);
  void AddCouple(const std::string& name, const std::string& value);
  void AddCouple(const std::string& name, const char* value);

  // The value stored under `name`, or the empty text when there is none (use
  // HasParameter to tell the two apart).
  std::string GetValueOfParameter(const std::string& name) const;
  std::string operator[](const std::string& name) const { return GetValueOfParameter(name); }
  bool HasParameter(const std::string& name) const { return find(name) != end(); }
  // The value stored under `name`; throws CAssoKeyDoesNotExistException when
  // there is none.
  const std::string& GetRequiredValue(const std::string& name) const;

  // Replaces the contents with the couples of `text` (`length` bytes). A text
  // that is not in the text form is logged and leaves the array empty; the
  // result is then false. Never throws for bad input.
  bool FromString(const char* text, long length);
  // Same, but a text not in the text form throws CIllegalAssoSyntaxException
  // (the array is then empty).
  void Parse(const char* text, long length);

  // Writes the text form into `text` and its length in bytes into `length`.
  // `countTerminator`: the length includes the zero byte that follows the text
  // (for data sent "with its terminating zero"). `lineBreaks`: couples end in
  // "\n" instead of ";" (easier to read in a log). Also keeps the text as the
  // array's stored text form.
  void ToString(std::string& text, long& length, bool countTerminator, bool lineBreaks) const;

  // The text last read by FromString/Parse or written by ToString.
  const std::string& Text() const { return text_; }

 private:
  mutable std::string text_;
};
