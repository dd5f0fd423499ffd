#pragma once
// cVantrelMessage: the record every message on the bus travels in.
//
// A record names its addressee (to host, to client) and sender (from host, from
// client), carries a delivery discipline (QType), a kind code (type) and its
// refinement (subtype), the application's payload, and the whole record packed
// into one buffer, the form in which it is written to a socket. The packed
// layout is described in docs/protocol.md ("The packed message record").
//
// Storage. Each record that builds or decodes a packed buffer makes exactly one
// allocation: the packed buffer. The text and data accessors point into it
// (every text is followed by its terminating zero inside the buffer, and so is
// the payload, so a payload read as text never runs past the buffer). The
// allocation is shared, reference-counted, between a record and all copies
// made of it: copies are shallow (they share the same bytes, nothing is
// duplicated) yet a copy may safely outlive its source, and the bytes are
// released exactly once, with the last record that refers to them.
//
// A packed buffer received from a peer is checked in full before it is used;
// a malformed one leaves the record invalid (isValid() false): every text
// accessor then returns "", getData() null, getDatalen() 0, and the packed
// buffer is null with length 0. Unpack() reports the reason instead.
//
// Ownership and threads: a record is owned by whoever created it (or took it
// from a queue). Reading one record from several threads is safe; changing it
// (assignment, setSubtype) is not. Copies on different threads are independent.
#include <cstdint>
#include <memory>
#include <string>

#include "vantrel/base/export.h"
#include "vantrel/message/wire.h"

// One message on the bus: addresses, kind and payload, with their packed form.
//
// No operation blocks. The constructors allocate the packed buffer and throw
// std::bad_alloc when memory runs out; nothing else throws. A received buffer
// that is malformed never throws: the record is left invalid.
class VANTREL_API cVantrelMessage {
 public:
  // Builds a record from its parts and packs it; the record keeps copies of
  // every text and of the data. Null texts count as empty; null data with a
  // positive length is logged and packed as no data. Parts too large for the
  // packed layout (above 4 GiB in all) leave the record invalid.
  cVantrelMessage(std::uint32_t messageId, const char* toHost, const char* toClient, const char* fromHost,
                  const char* fromClient, QType qtype, short type, short subtype, const char* data,
                  std::uint32_t datalen);
  // Room for `length` bytes of data, for the parts constructor below.
  struct tDataSpace {
    std::uint32_t length;
  };
  // As above, but the data is `space.length` bytes left for the caller to
  // write through mutableData() before the record is copied or sent, so data
  // that comes from a read (a file chunk) is read straight into the record.
  cVantrelMessage(std::uint32_t messageId, const char* toHost, const char* toClient, const char* fromHost,
                  const char* fromClient, QType qtype, short type, short subtype, tDataSpace space);
  // Rebuilds a record from a packed buffer received on a socket. The buffer is
  // copied, so the caller may free it at once. The type and subtype are those
  // the sender packed: on host links the frame's subtype is the link's version
  // marker, not the record's own, and a frame type that differs from the
  // packed one is logged. A malformed buffer is logged and leaves the record
  // invalid.
  cVantrelMessage(const char* buffer, std::uint32_t length, short type, short subtype);
  // As above, but takes over `buffer` (allocated with new char[]) instead of
  // copying it, so that a received frame becomes a record without a copy. A
  // malformed buffer is freed at once.
  cVantrelMessage(std::unique_ptr<char[]> buffer, std::uint32_t length, short type, short subtype);

  // Shallow: the copy shares the source's buffer (see "Storage" above), costs
  // no allocation and may outlive its source.
  cVantrelMessage(const cVantrelMessage& other) = default;
  cVantrelMessage& operator=(const cVantrelMessage& other) = default;
  // Releases the packed buffer when no other copy refers to it.
  virtual ~cVantrelMessage();

  // The class name for log lines, "VantrelMessage" (a static text).
  virtual const char* nameOf() const;

  // Checks `buffer` and, when it is a well-formed packed record, sets `out` to
  // a new record rebuilt from it (owned by the caller through `out`) and
  // returns true. Otherwise leaves `out` empty, writes the reason into `error`
  // (when given) and returns false. Logs nothing; any thread.
  static bool Unpack(const char* buffer, std::uint32_t length, short type, short subtype,
                     std::unique_ptr<cVantrelMessage>& out, std::string* error);

  // False after the packed-buffer constructor met a malformed buffer, or when
  // the parts would not fit the packed layout.
  bool isValid() const { return valid_; }

  // The fields. Every pointer returned points into the packed buffer: it is
  // never null (getData aside) and stays valid as long as this record or a copy
  // of it exists. Texts are zero-terminated; an invalid record gives "".
  unsigned int getMessageId() const { return messageId_; }
  const char* getToHost() const { return toHost_; }
  // The destination list of a message sent to several destinations shares the
  // to-host field.
  const char* getToList() const { return toHost_; }
  const char* getToClient() const { return toClient_; }
  const char* getFromHost() const { return fromHost_; }
  const char* getFromClient() const { return fromClient_; }
  QType getQtype() { return qtype_; }
  // A record type or answer of vantrel/message/wire.h.
  short getType() const { return type_; }
  short getSubtype() const { return subtype_; }
  // Changes the subtype only; the packed buffer keeps the subtype it was built
  // with, so a changed record is sent with its old subtype inside. Not to be
  // called while another thread reads the record.
  void setSubtype(short subtype) { subtype_ = subtype; }
  // The payload, followed by a zero byte that getDatalen() does not count.
  // Null only for an invalid record; for an empty payload it points at a zero
  // byte.
  const char* getData() const { return data_; }
  // Only for filling a record built with tDataSpace, before it is copied,
  // shared with another thread or sent: the bytes are shared with every copy.
  char* mutableData() { return const_cast<char*>(data_); }
  unsigned int getDatalen() const { return datalen_; }
  // The whole record as it goes on the wire (getPackedBufLen() bytes); null
  // with length 0 for an invalid record.
  const char* getPackedBuf() const { return packedBuf_; }
  unsigned int getPackedBufLen() const { return packedBufLen_; }

 private:
  void makeInvalid();
  // The common part of the two received-buffer constructors: checks `buffer`
  // and logs why it is malformed (the record is then left invalid).
  bool checkReceived(const char* buffer, std::uint32_t length, short type);
  // Takes `length` bytes of checked storage_ as the record's packed buffer.
  void finishReceived(std::uint32_t length, short type);
  // Points every field into the already checked packed buffer held by storage_.
  void adoptCheckedBuffer();

  std::uint32_t messageId_ = 0;
  // Carried and copied with the record; nothing reads it. Packed as zero.
  std::uint32_t reserved_ = 0;
  const char* toHost_;
  const char* toClient_;
  const char* fromHost_;
  const char* fromClient_;
  QType qtype_ = QTYPE_CLIENT;
  short type_ = 0;
  short subtype_ = 0;
  const char* data_ = nullptr;
  std::uint32_t datalen_ = 0;
  const char* packedBuf_ = nullptr;
  std::uint32_t packedBufLen_ = 0;
  // The one allocation every field above points into; shared by copies.
  std::shared_ptr<char[]> storage_;
  bool valid_ = false;
};
