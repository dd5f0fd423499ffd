#include "vantrel/net/VantrelToolKit.h"

#include <cerrno>
#include <system_error>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/support/associativearray.h"

VantrelToolKit::~VantrelToolKit() = default;

bool VantrelToolKit::CopyFileA(const std::string& source, const std::string& destination,
                               CopyFileCompletionState& state, std::string& failingPath) {
  return CopyFileA(source, destination, state, failingPath, cCopyRequester());
}

bool VantrelToolKit::CopyFileA(const std::string& source, const std::string& destination,
                               CopyFileCompletionState& state, std::string& failingPath,
                               const cCopyRequester& requester) {
  failingPath = source;
  cCopySource in;
  state = static_cast<CopyFileCompletionState>(in.Open(requester, source));
  if (state != COPY_DONE) {
    VLOG_ERROR("VantrelToolKit::CopyFile Failed to open input for read");
    return false;
  }
  cCopyTarget out;
  state = static_cast<CopyFileCompletionState>(out.Open(requester, destination, &in));
  if (state != COPY_DONE) {
    if (state != COPY_SAME_FILE) VLOG_ERROR("VantrelToolKit::CopyFile Failed to open output for write");
    failingPath = destination;
    return false;
  }

  std::vector<char> block(kCopyBlockSize);
  std::uint64_t total = 0;
  for (;;) {
    const auto got = in.File().ReadFull(block.data(), block.size());
    if (!got) {
      const int error = errno;
      VLOG_ERROR("VantrelToolKit::CopyFile - reading %s failed: %s", source, GetErrorString(error));
      state = COPY_READ_FAILED;
      return false;
    }
    total += *got;
    if (*got > 0 && !out.Write(block.data(), *got)) {
      const int error = errno;
      VLOG_ERROR("VantrelToolKit::CopyFile - writing %s failed: %s", destination, GetErrorString(error));
      state = COPY_WRITE_FAILED;
      failingPath = destination;
      return false;
    }
    if (*got < block.size()) break;
  }
  // A source that changed meanwhile would land as a mixture of two versions.
  if (total != in.Status().size || in.Changed()) {
    VLOG_ERROR("VantrelToolKit::CopyFile - %s changed during the copy", source);
    state = COPY_READ_FAILED;
    return false;
  }
  if (!in.File().Close()) {
    state = COPY_CLOSE_FAILED;
    return false;
  }
  state = static_cast<CopyFileCompletionState>(out.Commit());
  if (state != COPY_DONE) {
    failingPath = destination;
    return false;
  }
  return true;
}

VantrelClientEvent* VantrelToolKit::CreateCopyResultEvent(const cVantrelMessage& request, const std::string& echoed,
                                                          int state, const std::string& failingPath,
                                                          std::uint32_t maxMessageSize) {
  const auto build = [&](const std::string& echo, const std::string& path) {
    CAssociativeArray result(11);
    if (!echo.empty()) result.FromString(echo.data(), static_cast<long>(echo.size()));
    result.AddCouple(vantrel::wire::kCopyState, static_cast<long>(state));
    result.AddCouple(vantrel::wire::kCopyFileName, path);
    std::string text;
    long length = 0;
    result.ToString(text, length, false, false);
    return std::unique_ptr<VantrelClientEvent>(CreateReturnClientEvent(
        request, text.data(), static_cast<unsigned>(length), vantrel::wire::kDelivered, QTYPE_ASYNC));
  };
  auto answer = build(echoed, failingPath);
  if (static_cast<std::uint64_t>(answer->getPackedBufLen()) <= maxMessageSize) return answer.release();
  VLOG_WARN("VantrelToolKit::CreateCopyResultEvent - result of copy %u for %s too large, the request is not echoed",
            request.getMessageId(), request.getFromClient());
  std::string path = failingPath;
  for (;;) {
    answer = build(std::string(), path);
    const auto size = static_cast<std::uint64_t>(answer->getPackedBufLen());
    if (size <= maxMessageSize || path.empty()) return answer.release();
    // The text may quote some characters, so a cut is checked by building again.
    const std::uint64_t excess = size - maxMessageSize + 16;
    path = excess < path.size() ? path.substr(0, path.size() - excess) : std::string();
  }
}

namespace {

// `data` is what the event's constructor takes as its data: a pointer and a
// length, or a tDataSpace.
template <class Event, class... Data>
Event* BuildEvent(const cVantrelMessage& m, bool backwards, int type, QType qtype, short subtype, Data... data) {
  const char* toHost = backwards ? m.getFromHost() : m.getToHost();
  const char* toClient = backwards ? m.getFromClient() : m.getToClient();
  const char* fromHost = backwards ? m.getToHost() : m.getFromHost();
  const char* fromClient = backwards ? m.getToClient() : m.getFromClient();
  return new Event(static_cast<long>(m.getMessageId()), toHost, toClient, fromHost, fromClient, qtype,
                   static_cast<short>(type), subtype, data...);
}

}  // namespace

VantrelClientEvent* VantrelToolKit::CreateReturnClientEvent(const cVantrelMessage& received, const char* data,
                                                            unsigned int length, int type, QType qtype, short subtype) {
  return BuildEvent<VantrelClientEvent>(received, true, type, qtype, subtype, data, static_cast<long>(length));
}

VantrelHostEvent* VantrelToolKit::CreateReturnHostEvent(const cVantrelMessage& received, const char* data,
                                                        unsigned int length, int type, QType qtype, short subtype) {
  return BuildEvent<VantrelHostEvent>(received, true, type, qtype, subtype, data, static_cast<long>(length));
}

VantrelHostEvent* VantrelToolKit::CreateSendHostEvent(const cVantrelMessage& received, const char* data,
                                                      unsigned int length, int type, QType /*qtype*/, short subtype) {
  return BuildEvent<VantrelHostEvent>(received, false, type, QTYPE_SYNC, subtype, data, static_cast<long>(length));
}

VantrelHostEvent* VantrelToolKit::CreateSendHostEvent(const cVantrelMessage& received,
                                                      cVantrelMessage::tDataSpace space, int type, short subtype) {
  return BuildEvent<VantrelHostEvent>(received, false, type, QTYPE_SYNC, subtype, space);
}

bool VantrelToolKit::DeleteFileA(const std::string& path) { return vantrel::platform::gRemoveFile(path); }

std::string VantrelToolKit::GetErrorString(int code) { return std::system_category().message(code); }

std::string VantrelToolKit::GetLocalHostOS() { return std::string(); }

bool VantrelToolKit::ReadFileToBuffer(std::FILE* stream, std::unique_ptr<char[]>& buffer, long& size) {
  buffer.reset();
  size = 0;
  if (stream == nullptr) return false;
  const long start = std::ftell(stream);
  if (start < 0 || std::fseek(stream, 0, SEEK_END) != 0) return false;
  const long end = std::ftell(stream);
  if (end < start || std::fseek(stream, start, SEEK_SET) != 0) return false;
  const auto length = static_cast<std::size_t>(end - start);
  auto data = std::make_unique<char[]>(length + 1);  // zeroed: the extra byte ends a text
  if (std::fread(data.get(), 1, length, stream) != length) return false;
  buffer = std::move(data);
  size = static_cast<long>(length);
  return true;
}

bool VantrelToolKit::SaveBufferToFile(std::FILE* stream, const char* buffer, unsigned int size) {
  if (stream == nullptr || (buffer == nullptr && size > 0)) return false;
  if (size > 0 && std::fwrite(buffer, 1, size, stream) != size) return false;
  return std::ferror(stream) == 0;
}

int VantrelToolKit::hgGetLastError() { return errno; }
