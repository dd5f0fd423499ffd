#include "vantrel/message/packmsg.h"

#include <cstring>
#include <limits>

#include "vantrel/base/log/log.h"

namespace {

// Layout of the packed record (all integers big-endian):
//   0  u32 layout marker (vantrel::wire::kRecordMarker)
//   4  u32 message id
//   8  u32 reserved second word
//  12  i32 QType
//  16  i16 type
//  18  i16 subtype
//  20  u32 length of to host      (bytes, without the terminating zero)
//  24  u32 length of to client
//  28  u32 length of from host
//  32  u32 length of from client
//  36  u32 length of data
//  40  to host, 0, to client, 0, from host, 0, from client, 0, data, 0
constexpr std::size_t kHeaderSize = 40;
constexpr std::size_t kFieldCount = 5;  // four texts and the data
constexpr std::size_t kLengthsOffset = 20;

// Points at a zero byte: what the text accessors of an invalid record return.
const char kEmpty[1] = {'\0'};

std::uint32_t UsableDataLength(const char* data, std::uint32_t datalen) {
  if (data != nullptr || datalen == 0) return datalen;
  VLOG_ERROR("cVantrelMessage::cVantrelMessage - null data with length %u, packed without data", datalen);
  return 0;
}

void PutU32(char* at, std::uint32_t value) {
  at[0] = static_cast<char>(value >> 24);
  at[1] = static_cast<char>(value >> 16);
  at[2] = static_cast<char>(value >> 8);
  at[3] = static_cast<char>(value);
}

void PutU16(char* at, std::uint16_t value) {
  at[0] = static_cast<char>(value >> 8);
  at[1] = static_cast<char>(value);
}

std::uint32_t GetU32(const char* at) {
  const auto* u = reinterpret_cast<const unsigned char*>(at);
  return (std::uint32_t{u[0]} << 24) | (std::uint32_t{u[1]} << 16) | (std::uint32_t{u[2]} << 8) | std::uint32_t{u[3]};
}

std::uint16_t GetU16(const char* at) {
  const auto* u = reinterpret_cast<const unsigned char*>(at);
  return static_cast<std::uint16_t>((u[0] << 8) | u[1]);
}

// Checks a packed buffer completely; true when every length, terminator and
// the total agree with `length`. Reads only inside [buffer, buffer + length).
bool CheckPacked(const char* buffer, std::uint32_t length, std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error) *error = why;
    return false;
  };
  if (buffer == nullptr) return fail("no buffer");
  if (length < kHeaderSize)
    return fail("buffer of " + std::to_string(length) + " bytes is shorter than the " + std::to_string(kHeaderSize) +
                "-byte header");
  if (GetU32(buffer) != vantrel::wire::kRecordMarker) return fail("wrong layout marker");

  std::uint64_t expected = kHeaderSize;
  std::uint32_t fieldLengths[kFieldCount];
  for (std::size_t i = 0; i < kFieldCount; ++i) {
    fieldLengths[i] = GetU32(buffer + kLengthsOffset + 4 * i);
    expected += std::uint64_t{fieldLengths[i]} + 1;  // 64-bit: five u32 cannot overflow it
  }
  if (expected != length)
    return fail("field lengths add up to " + std::to_string(expected) + " bytes, buffer holds " +
                std::to_string(length));

  static const char* const kNames[kFieldCount] = {"to host", "to client", "from host", "from client", "data"};
  std::size_t offset = kHeaderSize;
  for (std::size_t i = 0; i < kFieldCount; ++i) {
    const std::uint32_t n = fieldLengths[i];
    // Texts are handed out as zero-terminated strings: a zero inside one would
    // silently cut it short, so the sender cannot have packed it.
    if (i < kFieldCount - 1 && std::memchr(buffer + offset, '\0', n) != nullptr)
      return fail(std::string(kNames[i]) + " holds a zero byte");
    if (buffer[offset + n] != '\0') return fail(std::string(kNames[i]) + " is not terminated");
    offset += std::size_t{n} + 1;
  }
  return true;
}

}  // namespace

cVantrelMessage::cVantrelMessage(std::uint32_t messageId, const char* toHost, const char* toClient,
                                 const char* fromHost, const char* fromClient, QType qtype, short type, short subtype,
                                 const char* data, std::uint32_t datalen)
    : cVantrelMessage(messageId, toHost, toClient, fromHost, fromClient, qtype, type, subtype,
                      tDataSpace{UsableDataLength(data, datalen)}) {
  if (valid_ && datalen_ > 0) std::memcpy(mutableData(), data, datalen_);
}

cVantrelMessage::cVantrelMessage(std::uint32_t messageId, const char* toHost, const char* toClient,
                                 const char* fromHost, const char* fromClient, QType qtype, short type, short subtype,
                                 tDataSpace space)
    : toHost_(kEmpty), toClient_(kEmpty), fromHost_(kEmpty), fromClient_(kEmpty) {
  const char* texts[4] = {toHost ? toHost : kEmpty, toClient ? toClient : kEmpty, fromHost ? fromHost : kEmpty,
                          fromClient ? fromClient : kEmpty};
  std::size_t lengths[kFieldCount];
  std::uint64_t total = kHeaderSize;
  for (std::size_t i = 0; i < 4; ++i) {
    lengths[i] = std::strlen(texts[i]);
    total += std::uint64_t{lengths[i]} + 1;
  }
  lengths[4] = space.length;
  total += std::uint64_t{space.length} + 1;
  if (total > std::numeric_limits<std::uint32_t>::max()) {
    VLOG_ERROR("cVantrelMessage::cVantrelMessage - record of %llu bytes does not fit the packed layout",
               static_cast<unsigned long long>(total));
    makeInvalid();
    return;
  }

  storage_ = std::make_shared_for_overwrite<char[]>(static_cast<std::size_t>(total));
  char* out = storage_.get();
  PutU32(out, vantrel::wire::kRecordMarker);
  PutU32(out + 4, messageId);
  PutU32(out + 8, 0);
  PutU32(out + 12, static_cast<std::uint32_t>(qtype));
  PutU16(out + 16, static_cast<std::uint16_t>(type));
  PutU16(out + 18, static_cast<std::uint16_t>(subtype));
  for (std::size_t i = 0; i < kFieldCount; ++i)
    PutU32(out + kLengthsOffset + 4 * i, static_cast<std::uint32_t>(lengths[i]));
  std::size_t offset = kHeaderSize;
  for (std::size_t i = 0; i < 4; ++i) {
    if (lengths[i] > 0) std::memcpy(out + offset, texts[i], lengths[i]);
    out[offset + lengths[i]] = '\0';
    offset += lengths[i] + 1;
  }
  // The data comes last; only its terminating zero is written here.
  out[offset + lengths[4]] = '\0';
  packedBufLen_ = static_cast<std::uint32_t>(total);
  adoptCheckedBuffer();
}

cVantrelMessage::cVantrelMessage(const char* buffer, std::uint32_t length, short type, short subtype)
    : toHost_(kEmpty), toClient_(kEmpty), fromHost_(kEmpty), fromClient_(kEmpty) {
  if (!checkReceived(buffer, length, type)) return;
  storage_ = std::make_shared_for_overwrite<char[]>(length);
  std::memcpy(storage_.get(), buffer, length);
  finishReceived(length, type);
}

cVantrelMessage::cVantrelMessage(std::unique_ptr<char[]> buffer, std::uint32_t length, short type, short subtype)
    : toHost_(kEmpty), toClient_(kEmpty), fromHost_(kEmpty), fromClient_(kEmpty) {
  if (!checkReceived(buffer.get(), length, type)) return;
  storage_ = std::shared_ptr<char[]>(std::move(buffer));
  finishReceived(length, type);
}

bool cVantrelMessage::checkReceived(const char* buffer, std::uint32_t length, short type) {
  std::string error;
  if (CheckPacked(buffer, length, &error)) return true;
  VLOG_ERROR("cVantrelMessage::cVantrelMessage - malformed packed record (frame type %d, %u bytes): %s", type, length,
             error);
  makeInvalid();
  return false;
}

void cVantrelMessage::finishReceived(std::uint32_t length, short type) {
  packedBufLen_ = length;
  adoptCheckedBuffer();
  if (type_ != type)
    VLOG_WARN("cVantrelMessage::cVantrelMessage - frame type %d carries a record of type %d", type, type_);
}

cVantrelMessage::~cVantrelMessage() = default;

const char* cVantrelMessage::nameOf() const { return "VantrelMessage"; }

bool cVantrelMessage::Unpack(const char* buffer, std::uint32_t length, short type, short subtype,
                             std::unique_ptr<cVantrelMessage>& out, std::string* error) {
  out.reset();
  if (!CheckPacked(buffer, length, error)) return false;
  out = std::make_unique<cVantrelMessage>(buffer, length, type, subtype);
  return true;
}

void cVantrelMessage::makeInvalid() {
  messageId_ = 0;
  reserved_ = 0;
  toHost_ = toClient_ = fromHost_ = fromClient_ = kEmpty;
  qtype_ = QTYPE_CLIENT;
  type_ = 0;
  subtype_ = 0;
  data_ = nullptr;
  datalen_ = 0;
  packedBuf_ = nullptr;
  packedBufLen_ = 0;
  storage_.reset();
  valid_ = false;
}

void cVantrelMessage::adoptCheckedBuffer() {
  const char* p = storage_.get();
  packedBuf_ = p;
  messageId_ = GetU32(p + 4);
  reserved_ = GetU32(p + 8);
  qtype_ = static_cast<QType>(static_cast<std::int32_t>(GetU32(p + 12)));
  type_ = static_cast<short>(GetU16(p + 16));
  subtype_ = static_cast<short>(GetU16(p + 18));
  const char** texts[4] = {&toHost_, &toClient_, &fromHost_, &fromClient_};
  std::size_t offset = kHeaderSize;
  for (std::size_t i = 0; i < 4; ++i) {
    *texts[i] = p + offset;
    offset += std::size_t{GetU32(p + kLengthsOffset + 4 * i)} + 1;
  }
  data_ = p + offset;
  datalen_ = GetU32(p + kLengthsOffset + 16);
  valid_ = true;
}
