#pragma once
// The numbers of the Vantrel wire protocol, each named once.
//
// Every peer reads these same values: client libraries, services on other hosts
// and tools built against older releases. They therefore never change; a name
// may be added, a value never altered. docs/protocol.md shows the frames they
// appear in. The header needs only <cstdint>, so any layer from the message
// records up, and any application, may include it.
#include <cstdint>

// The delivery discipline carried in every record (cVantrelMessage::getQtype).
enum QType : std::int32_t {
  // Set by the client library on every message it creates.
  QTYPE_CLIENT = 0,
  // Set by the service on messages it forwards between hosts and on answers to
  // a sender that waits for them (acknowledged sends, file traffic).
  QTYPE_SYNC = 1,
  // Set by the service on answers the sender does not wait for (no-wait sends,
  // file-copy results).
  QTYPE_ASYNC = 2,
};

namespace vantrel::wire {

// ---- Message records -------------------------------------------------------------
// First word of every packed record ("VRM1"): names the record's layout.
inline constexpr std::uint32_t kRecordMarker = 0x56524D31u;

// ---- Record types -------------------------------------------------------------
// The type a client gives each record it sends. A destination on the sender's
// own host (its host text equals, byte for byte, the host name the service
// returned in the greeting) takes the local form: the remote type plus
// kLocalOffset. A file copy is always kFileCopy, local or not.
inline constexpr short kSend = 2;            // acknowledged send
inline constexpr short kSendNoResponse = 3;  // nothing comes back
inline constexpr short kSendNoWait = 4;      // answered later, by message id
inline constexpr short kFileCopy = 5;        // a file-copy request
inline constexpr short kLocalOffset = 1032;
inline constexpr short kLocalSend = 1034;
inline constexpr short kLocalSendNoResponse = 1035;
inline constexpr short kLocalSendNoWait = 1036;
inline constexpr short kLocalFileCopy = 1037;

// The local form of a remote record type.
constexpr short LocalForm(short remoteType) { return static_cast<short>(remoteType + kLocalOffset); }

static_assert(LocalForm(kSend) == kLocalSend && LocalForm(kSendNoResponse) == kLocalSendNoResponse &&
              LocalForm(kSendNoWait) == kLocalSendNoWait && LocalForm(kFileCopy) == kLocalFileCopy);

// Answers of a service: the message reached its client, or it did not (also
// made locally when a link breaks). Any other type where an acknowledgement is
// awaited counts as a refusal.
inline constexpr short kDelivered = 102;
inline constexpr short kNotDelivered = 103;

// ---- Frames between a client and its service ------------------------------------
inline constexpr short kGreeting = 1029;  // first frame of a client; echoed as the reply
inline constexpr short kFarewell = 1033;  // the client leaves
inline constexpr short kIgnored = 1044;   // accepted by the service and ignored

// The greeting block: network port (host byte order), client name and host name,
// each name zero-padded in its field (a name that fills its field has no zero).
inline constexpr std::uint32_t kGreetingSize = 258;
inline constexpr std::uint32_t kGreetingPortOffset = 0;
inline constexpr std::uint32_t kGreetingNameOffset = 2;
inline constexpr std::uint32_t kGreetingHostOffset = 130;
inline constexpr std::uint32_t kGreetingFieldSize = 128;

// The subtype of a frame to a client names the channel it is received on.
inline constexpr short kChannelMessages = 0;       // messages, and answers nobody waits on
inline constexpr short kChannelAnswers = 1;        // the greeting reply and acknowledgements
inline constexpr short kChannelNoWaitAnswers = 2;  // the second channel: answers to no-wait sends
inline constexpr short kChannelCount = 3;

// ---- Host links -----------------------------------------------------------------
// The subtype of every frame on a host link; a peer that sends another is obsolete.
inline constexpr short kVersionMarker = 0x7F04;
inline constexpr short kHostName = 203;     // first frame of the connecting side
inline constexpr short kPing = 104;         // keep-alive
inline constexpr short kFileRequest = 6;    // asks the peer to receive a file
inline constexpr short kFileTraffic = 7;    // the rest of a copy, marked by its last byte:
inline constexpr char kFileAccepted = 'A';  //   receiver: the destination is open
inline constexpr char kFileChunk = 'B';     //   sender: a chunk, more follow
inline constexpr char kFileLastChunk = 'C';
inline constexpr char kFileChunkWritten = 'D';  // receiver: one chunk written
inline constexpr char kFileAbort = 'E';         // sender: gives up
inline constexpr char kFileFinal = 'F';         // receiver: its final state, in decimal, then '0', before the marker
// File bytes in one chunk (the marker comes on top).
inline constexpr std::uint32_t kFileChunkSize = 51200;

// ---- File copies ----------------------------------------------------------------
// A copy request (the data of NETCopyFileZ1) and its result (the data of the
// kDelivered answer that carries the request's message id) are
// CAssociativeArray texts with these names.
inline constexpr const char* kCopyLocalFile = "$LOCALFILE";            // request: the file to send
inline constexpr const char* kCopyRemoteFile = "$REMOTEFILE";          // request: where it goes on the host
inline constexpr const char* kCopyState = "$FILECOPYCOMPLETIONSTATE";  // result: one of the states below
inline constexpr const char* kCopyFileName = "$FILENAME";              // result: the failing path, if any

inline constexpr int kCopyDone = 0;
inline constexpr int kCopyOpenFailed = 1;   // the source or the destination could not be opened
inline constexpr int kCopyCloseFailed = 2;  // closing the source or the destination failed
inline constexpr int kCopyReadFailed = 3;   // reading the source failed; the destination was deleted
inline constexpr int kCopyWriteFailed = 4;  // writing failed, or the receiver gave up; destination deleted
inline constexpr int kCopyStopped = 5;      // between hosts: stopped, or the peer reported a failure
inline constexpr int kCopySameFile = 6;     // source and destination are one file: refused, the file untouched
inline constexpr int kCopyDenied = 7;       // the requester may not read the source or write the destination

// ---- Client statuses (cVantrelClientObject::NETGetLastStatus) --------------------
inline constexpr int kStatusOk = 0;
inline constexpr int kStatusNotInitialised = 15005;  // also: a wait that returned no message
inline constexpr int kStatusSendFailed = 15007;      // the frame could not be sent to the service
inline constexpr int kStatusAckError = 15008;        // the acknowledgement was not kDelivered

}  // namespace vantrel::wire
