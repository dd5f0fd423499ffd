#pragma once
// VantrelToolKit: static helpers shared by the service's connections, file
// transfer and client instances: answer and forwarding events built from a
// received message, a local file copy, small file and error utilities.
//
// No state; every operation may be called from any thread. Events returned by
// the builders are new and belong to the caller.
#include <cstdio>
#include <memory>
#include <string>

#include "vantrel/message/packmsg.h"
#include "vantrel/message/vantrelevents.h"
#include "vantrel/message/wire.h"
#include "vantrel/net/filecopy.h"

class VantrelToolKit {
 public:
  // Outcome of a file copy; the same numbers are used for copies between hosts.
  enum CopyFileCompletionState : int {
    COPY_DONE = vantrel::wire::kCopyDone,
    // The source could not be opened for reading, or the destination for writing.
    COPY_OPEN_FAILED = vantrel::wire::kCopyOpenFailed,
    // Closing the source or the destination failed.
    COPY_CLOSE_FAILED = vantrel::wire::kCopyCloseFailed,
    // Reading the source failed; the destination was deleted.
    COPY_READ_FAILED = vantrel::wire::kCopyReadFailed,
    // Writing the destination failed (or, between hosts, the receiver gave up
    // waiting); the destination was deleted.
    COPY_WRITE_FAILED = vantrel::wire::kCopyWriteFailed,
    // Between hosts: the transfer was stopped, or the peer reported a failure.
    COPY_STOPPED = vantrel::wire::kCopyStopped,
    // Source and destination are one file; nothing was done.
    COPY_SAME_FILE = vantrel::wire::kCopySameFile,
    // The requester may not read the source or write the destination.
    COPY_DENIED = vantrel::wire::kCopyDenied,
  };
  // Bytes read from the source at a time.
  static constexpr std::size_t kCopyBlockSize = 204800;

  VantrelToolKit() = default;
  VantrelToolKit(const VantrelToolKit&) = default;
  VantrelToolKit& operator=(const VantrelToolKit&) = default;
  virtual ~VantrelToolKit();

  // Copies `source` to `destination`. `state` tells the outcome and
  // `failingPath` the path it concerns (the source unless the destination
  // failed). True only for COPY_DONE. Only regular files are opened. The copy
  // is written beside the destination and renamed over it when complete, so a
  // failed copy leaves the destination as it was; a destination that is the
  // source itself is refused (COPY_SAME_FILE). Files are opened with
  // `requester`'s rights (by default the service's own).
  static bool CopyFileA(const std::string& source, const std::string& destination, CopyFileCompletionState& state,
                        std::string& failingPath);
  static bool CopyFileA(const std::string& source, const std::string& destination, CopyFileCompletionState& state,
                        std::string& failingPath, const cCopyRequester& requester);

  // The answer to a copy request: a kDelivered record of QType 2 that returns
  // to the requester with `echoed` (the request's own parameter text, may be
  // empty) followed by the state and the failing path. Never larger than
  // `maxMessageSize`: when it would be, the echo is left out, and a failing
  // path too long for what is left is cut.
  static VantrelClientEvent* CreateCopyResultEvent(const cVantrelMessage& request, const std::string& echoed, int state,
                                                   const std::string& failingPath, std::uint32_t maxMessageSize);

  // An answer to `received`, travelling back to its sender: to host/client are
  // its from host/client and the other way round; its message id; the given
  // data, type and QType. The subtype is the messages channel unless given: an
  // answer that must reach a client's acknowledgement queue is built with its
  // subtype rather than changed afterwards.
  static VantrelClientEvent* CreateReturnClientEvent(const cVantrelMessage& received, const char* data,
                                                     unsigned int length, int type, QType qtype,
                                                     short subtype = vantrel::wire::kChannelMessages);
  static VantrelHostEvent* CreateReturnHostEvent(const cVantrelMessage& received, const char* data, unsigned int length,
                                                 int type, QType qtype,
                                                 short subtype = vantrel::wire::kChannelMessages);
  // A message travelling on in `received`'s own direction (same addressee and
  // sender) with the given data and type. The QType is always QTYPE_SYNC; the
  // argument is ignored.
  static VantrelHostEvent* CreateSendHostEvent(const cVantrelMessage& received, const char* data, unsigned int length,
                                               int type, QType qtype, short subtype = 0);
  // As above, with `space` bytes of data left for the caller to write.
  static VantrelHostEvent* CreateSendHostEvent(const cVantrelMessage& received, cVantrelMessage::tDataSpace space,
                                               int type, short subtype = 0);

  // True when the file was removed.
  static bool DeleteFileA(const std::string& path);
  // The system's text for an error number (as errno holds).
  static std::string GetErrorString(int code);
  // The name of the local operating system as the single-instance check
  // understands it; always empty here (no Windows version record).
  static std::string GetLocalHostOS();
  // Reads from the stream's position to its end into a new buffer of that many
  // bytes plus one zero byte (so that text can be read from it); `size` is the
  // number of bytes read. False (buffer and size cleared) when the stream's
  // length cannot be found or the read fails or falls short.
  static bool ReadFileToBuffer(std::FILE* stream, std::unique_ptr<char[]>& buffer, long& size);
  // Writes `size` bytes; false when the stream reports an error.
  static bool SaveBufferToFile(std::FILE* stream, const char* buffer, unsigned int size);
  // The calling thread's last system error number (errno).
  static int hgGetLastError();
};
