#include "vantrel/net/VantrelToolKit.h"

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "vantrel/base/log/log.h"

namespace {

// Removes a destination left incomplete by a failed copy. Only a regular file
// is removed: the destination may be a device (/dev/null, /dev/full) that
// must survive a failed write, whoever runs the service.
void DeletePartialDestination(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return;
  if (std::remove(path.c_str()) != 0) {
    const int error = errno;
    VLOG_WARN("VantrelToolKit::CopyFile - could not delete %s: %s", vantrel::log::Escaped(path),
              VantrelToolKit::GetErrorString(error));
  }
}

}  // namespace

VantrelToolKit::~VantrelToolKit() = default;

bool VantrelToolKit::CopyFileA(const std::string& source, const std::string& destination,
                               CopyFileCompletionState& state, std::string& failingPath) {
  failingPath = source;
  std::FILE* in = std::fopen(source.c_str(), "rb");
  if (in == nullptr) {
    VLOG_ERROR("VantrelToolKit::CopyFile Failed to open input for read");
    state = COPY_OPEN_FAILED;
    return false;
  }
  std::FILE* out = std::fopen(destination.c_str(), "wb");
  if (out == nullptr) {
    VLOG_ERROR("VantrelToolKit::CopyFile Failed to open output for write");
    std::fclose(in);
    state = COPY_OPEN_FAILED;
    failingPath = destination;
    return false;
  }
  // Blocks are large; writing them straight through makes a write error show
  // at the write that met it instead of at the close.
  std::setvbuf(out, nullptr, _IONBF, 0);

  std::vector<char> block(kCopyBlockSize);
  for (;;) {
    if (std::feof(in)) {
      const bool inClosed = std::fclose(in) == 0;
      const bool outClosed = std::fclose(out) == 0;
      if (!inClosed) {
        state = COPY_CLOSE_FAILED;
        return false;
      }
      if (!outClosed) {
        state = COPY_CLOSE_FAILED;
        failingPath = destination;
        return false;
      }
      state = COPY_DONE;
      return true;
    }
    const std::size_t got = std::fread(block.data(), 1, block.size(), in);
    if (got < block.size() && std::ferror(in)) {
      const int error = errno;
      VLOG_ERROR("VantrelToolKit::CopyFile - reading %s failed: %s", vantrel::log::Escaped(source),
                 GetErrorString(error));
      std::fclose(in);
      std::fclose(out);
      DeletePartialDestination(destination);
      state = COPY_READ_FAILED;
      return false;
    }
    if (got > 0 && std::fwrite(block.data(), 1, got, out) != got) {
      const int error = errno;
      VLOG_ERROR("VantrelToolKit::CopyFile - writing %s failed: %s", vantrel::log::Escaped(destination),
                 GetErrorString(error));
      std::fclose(in);
      std::fclose(out);
      DeletePartialDestination(destination);
      state = COPY_WRITE_FAILED;
      failingPath = destination;
      return false;
    }
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

bool VantrelToolKit::DeleteFileA(const std::string& path) { return std::remove(path.c_str()) == 0; }

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
