#include "vantrel/support/associativearray.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "vantrel/base/log/log.h"

namespace {

constexpr const char* kMessageFile = "runcore.frm";
constexpr int kIllegalSyntax = 10;
constexpr int kKeyDoesNotExist = 11;
constexpr std::size_t kMaxDigits = 10;
// How much of a rejected text goes into an error message.
constexpr std::size_t kExcerpt = 80;

// A printable excerpt of arbitrary bytes for messages and log lines.
std::string Excerpt(const char* text, std::size_t length) {
  std::string out;
  const std::size_t n = std::min(length, kExcerpt);
  for (std::size_t i = 0; i < n; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  if (length > n) out += "...";
  return out;
}

// Reads the text form; on failure sets `why` and returns false. Reads only
// inside [text, text + length).
class Reader {
 public:
  Reader(const char* text, std::size_t length) : p_(text), end_(text + length) {}

  bool number(std::uint64_t& value, std::string& why) {
    std::size_t digits = 0;
    value = 0;
    while (p_ < end_ && *p_ >= '0' && *p_ <= '9') {
      if (++digits > kMaxDigits) return fail(why, "number too long");
      value = value * 10 + static_cast<std::uint64_t>(*p_ - '0');
      ++p_;
    }
    if (digits == 0) return fail(why, "number expected");
    if (value > UINT32_MAX) return fail(why, "number too large");
    return true;
  }

  bool expect(char c, std::string& why) {
    if (p_ >= end_ || *p_ != c)
      return fail(why, std::string("'") + (c == '\n' ? "\\n" : std::string(1, c)) + "' expected");
    ++p_;
    return true;
  }

  bool separator(std::string& why) {
    if (p_ < end_ && (*p_ == ';' || *p_ == '\n')) {
      ++p_;
      return true;
    }
    return fail(why, "';' or line end expected");
  }

  bool bytes(std::uint64_t count, std::string& out, std::string& why) {
    if (count > static_cast<std::uint64_t>(end_ - p_)) return fail(why, "length runs past the end of the text");
    out.assign(p_, static_cast<std::size_t>(count));
    p_ += count;
    return true;
  }

  // Only an optional terminating zero may follow the last couple.
  bool finished() const { return p_ == end_ || (p_ + 1 == end_ && *p_ == '\0'); }
  std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }

 private:
  static bool fail(std::string& why, std::string text) {
    why = std::move(text);
    return false;
  }
  const char* p_;
  const char* end_;
};

bool ReadArray(const char* text, std::size_t length, CAssociativeArray& out, std::string& why, std::size_t& offset) {
  Reader reader(text, length);
  auto done = [&](bool ok) {
    offset = length - reader.remaining();
    return ok;
  };
  if (length == 0 || (length == 1 && text[0] == '\0')) return done(true);
  std::uint64_t count = 0;
  if (!reader.expect('A', why) || !reader.number(count, why) || !reader.expect(';', why)) return done(false);
  // Each couple takes at least 6 bytes ("0:=0:;"); a count that
  // cannot fit is rejected before anything is reserved for it.
  if (count > reader.remaining() / 6) {
    why = "count larger than the text can hold";
    return done(false);
  }
  for (std::uint64_t i = 0; i < count; ++i) {
    std::uint64_t n = 0;
    std::string name, value;
    if (!reader.number(n, why) || !reader.expect(':', why) || !reader.bytes(n, name, why) || !reader.expect('=', why) ||
        !reader.number(n, why) || !reader.expect(':', why) || !reader.bytes(n, value, why) || !reader.separator(why))
      return done(false);
    if (!out.emplace(std::move(name), std::move(value)).second) {
      why = "name given twice";
      return done(false);
    }
  }
  if (!reader.finished()) {
    why = "text continues after the last couple";
    return done(false);
  }
  return done(true);
}

}  // namespace

// ---- exceptions ---------------------------------------------------------------------

CAssociativeArrayException::CAssociativeArrayException(const QXErrorException& error) : QXErrorException(error) {}
CAssociativeArrayException::~CAssociativeArrayException() = default;

CIllegalAssoSyntaxException::CIllegalAssoSyntaxException(const std::string& text)
    : CAssociativeArrayException(QXErrorException(kMessageFile, kIllegalSyntax, {text})) {}
CIllegalAssoSyntaxException::~CIllegalAssoSyntaxException() = default;

CAssoKeyDoesNotExistException::CAssoKeyDoesNotExistException(const std::string& key, const std::string& where)
    : CAssociativeArrayException(QXErrorException(kMessageFile, kKeyDoesNotExist, {key, where})) {}
CAssoKeyDoesNotExistException::~CAssoKeyDoesNotExistException() = default;

// ---- CAssociativeArray ---------------------------------------------------------------

CAssociativeArray::CAssociativeArray(int initialSize) {
  if (initialSize > 0) reserve(static_cast<std::size_t>(initialSize));
}

CAssociativeArray::~CAssociativeArray() = default;

void CAssociativeArray::AddCouple(const std::string& name, long value) {
  insert_or_assign(name, std::to_string(value));
}

void CAssociativeArray::AddCouple(const std::string& name, const std::string& value) { insert_or_assign(name, value); }

void CAssociativeArray::AddCouple(const std::string& name, const char* value) {
  insert_or_assign(name, value ? std::string(value) : std::string());
}

std::string CAssociativeArray::GetValueOfParameter(const std::string& name) const {
  auto it = find(name);
  return it != end() ? it->second : std::string();
}

const std::string& CAssociativeArray::operator[](const std::string& name) const {
  static const std::string kNone;
  auto it = find(name);
  return it != end() ? it->second : kNone;
}

const std::string& CAssociativeArray::GetRequiredValue(const std::string& name) const {
  auto it = find(name);
  if (it == end()) throw CAssoKeyDoesNotExistException(name, "CAssociativeArray");
  return it->second;
}

void CAssociativeArray::Parse(const char* text, long length) {
  clear();
  text_.clear();
  if (length < 0 || (text == nullptr && length > 0)) {
    VLOG_ERROR("CAssociativeArray::FromString - no text (length %ld)", length);
    throw CIllegalAssoSyntaxException("");
  }
  const auto n = static_cast<std::size_t>(length);
  std::string why;
  std::size_t offset = 0;
  if (!ReadArray(text, n, *this, why, offset)) {
    clear();
    VLOG_ERROR("CAssociativeArray::FromString - illegal syntax at byte %zu of %zu: %s", offset, n, why);
    throw CIllegalAssoSyntaxException(Excerpt(text, n));
  }
  if (n > 0) text_.assign(text, n);
}

bool CAssociativeArray::FromString(const char* text, long length) {
  try {
    Parse(text, length);
    return true;
  } catch (const CIllegalAssoSyntaxException&) {
    return false;
  }
}

void CAssociativeArray::ToString(std::string& text, long& length, bool countTerminator, bool lineBreaks) const {
  std::vector<const value_type*> couples;
  couples.reserve(size());
  for (const value_type& couple : *this) couples.push_back(&couple);
  std::sort(couples.begin(), couples.end(),
            [](const value_type* a, const value_type* b) { return a->first < b->first; });

  std::string out = "A" + std::to_string(couples.size()) + ";";
  const char sep = lineBreaks ? '\n' : ';';
  for (const value_type* couple : couples) {
    out += std::to_string(couple->first.size());
    out += ':';
    out += couple->first;
    out += '=';
    out += std::to_string(couple->second.size());
    out += ':';
    out += couple->second;
    out += sep;
  }
  text_ = out;
  length = static_cast<long>(out.size()) + (countTerminator ? 1 : 0);
  text = std::move(out);
}
