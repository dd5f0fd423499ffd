#include "vantrel/base/socket/framewriter.h"

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/time.h"

namespace nCommunication::nSocket::nImplementation_sho {

namespace platform = vantrel::platform;

namespace {

void Encode(short type, short subtype, unsigned length, std::int64_t sendTimeUs, unsigned char* out) {
  cFrameHeader header;
  header.words.marker = kFrameMarker;
  header.words.length = length;
  header.type = type;
  header.subtype = subtype;
  header.sendTimeMicroseconds = sendTimeUs;
  gEncodeFrameHeader(header, out);
}

}  // namespace

bool cFrameWriter::Check(const char* data, unsigned length) const {
  if (length > 0 && !data) {
    VLOG_ERROR("StreamSocket::SendTypedMessageZ2(%s) - %u bytes announced without data", name_, length);
    return false;
  }
  if (length > options_.maxMessageSize) {
    VLOG_ERROR("StreamSocket::SendTypedMessageZ2(%s) - frame of %u bytes exceeds the maximum of %u", name_, length,
               options_.maxMessageSize);
    return false;
  }
  return true;
}

bool cFrameWriter::Write(platform::cSendBuffer* parts, std::size_t count) {
  std::lock_guard<std::mutex> lock(sendMutex_);
  bool started = false;
  if (sink_.WriteAll(parts, count, started)) return true;
  // Still under the lock, so that no other frame follows the broken one.
  if (started) sink_.Abandon();
  return false;
}

bool cFrameWriter::Send(short type, short subtype, const char* data, unsigned length) {
  if (!Check(data, length) || !sink_.Writable()) return false;
  unsigned char header[kFrameHeaderSize];
  Encode(type, subtype, length, nTime::cPoint::Now().EpochMicroseconds(), header);

  if (!options_.simulatedLatency.empty()) {
    // Diagnostic delay, stamped before it so that the receiver measures it.
    const auto turn = latencyTurn_.fetch_add(1, std::memory_order_relaxed);
    const nTime::cDiff delay = options_.simulatedLatency[turn % options_.simulatedLatency.size()];
    if (delay.Microseconds() > 0 && !sink_.Pause(delay.Microseconds())) return false;
  }

  platform::cSendBuffer parts[2] = {{header, sizeof header}, {data, length}};
  return Write(parts, length > 0 ? 2 : 1);
}

bool cFrameWriter::Send(const cOutgoingFrame* frames, std::size_t count) {
  // Delays work on single frames; so does a sink that cannot gather.
  if (count <= 1 || count > kMaxFramesPerBatch || !sink_.Gathers() || !options_.simulatedLatency.empty()) {
    for (std::size_t i = 0; i < count; ++i)
      if (!Send(frames[i].type, frames[i].subtype, frames[i].data, frames[i].length)) return false;
    return true;
  }
  for (std::size_t i = 0; i < count; ++i)
    if (!Check(frames[i].data, frames[i].length)) return false;
  if (!sink_.Writable()) return false;

  // One clock reading stamps the whole batch: it leaves in one write.
  const std::int64_t now = nTime::cPoint::Now().EpochMicroseconds();
  unsigned char headers[kMaxFramesPerBatch][kFrameHeaderSize];
  platform::cSendBuffer parts[2 * kMaxFramesPerBatch];
  for (std::size_t i = 0; i < count; ++i) {
    Encode(frames[i].type, frames[i].subtype, frames[i].length, now, headers[i]);
    parts[2 * i] = {headers[i], kFrameHeaderSize};
    parts[2 * i + 1] = {frames[i].data, frames[i].length};
  }
  return Write(parts, 2 * count);
}

}  // namespace nCommunication::nSocket::nImplementation_sho
