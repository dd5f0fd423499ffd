#include "vantrel/base/socket/framewriter.h"

#include <cstring>

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

// Gives back what a burst made a buffer grow to.
void Trim(std::vector<char>& buffer, std::size_t kept) {
  buffer.clear();
  if (buffer.capacity() > kept) std::vector<char>().swap(buffer);
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
  bool started = false;
  if (sink_.WriteAll(parts, count, started)) return true;
  // Still holding the turn, so that no other frame follows the broken one.
  if (started) sink_.Abandon();
  return false;
}

void cFrameWriter::TakeTurn() {
  std::unique_lock<std::mutex> lock(mutex_);
  turnFree_.wait(lock, [this] { return !writing_; });
  writing_ = true;
}

bool cFrameWriter::ReleaseTurn(bool ok, bool bounded) {
  for (int rounds = 0;; ++rounds) {
    std::size_t dropped = 0;
    bool released = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (pending_.empty()) {
        Trim(pending_, kKeptBufferBytes);
        writing_ = false;
        postsClosed_ = false;
        released = true;
      } else if (ok) {
        spare_.swap(pending_);
        // Senders that keep posting would keep this holder writing for them
        // for ever; after a few rounds they wait for the turn instead.
        if (bounded && rounds + 1 >= kMaxRoundsPerTurn) postsClosed_ = true;
      } else {
        dropped = pending_.size();
        pending_.clear();
      }
    }
    if (released) {
      // spare_ is the next holder's from here on. Every waiter looks: the
      // next sender in line takes the turn, and a Drain sees it free.
      turnFree_.notify_all();
      return ok;
    }
    if (dropped > 0) {
      // Those frames were promised to their senders: the connection ends, still
      // within the turn, so that no later frame goes out after the lost ones.
      VLOG_WARN("StreamSocket::SendTypedMessageZ2(%s) - %zu bytes of posted frames not sent; closing", name_, dropped);
      sink_.Abandon();
      continue;
    }
    platform::cSendBuffer part{spare_.data(), spare_.size()};
    ok = Write(&part, 1);
    Trim(spare_, kKeptBufferBytes);
  }
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
  TakeTurn();
  return ReleaseTurn(Write(parts, length > 0 ? 2 : 1));
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
  TakeTurn();
  return ReleaseTurn(Write(parts, 2 * count));
}

void cFrameWriter::AppendPending(short type, short subtype, const char* data, unsigned length, std::int64_t now) {
  const std::size_t at = pending_.size();
  pending_.resize(at + kFrameHeaderSize + length);
  Encode(type, subtype, length, now, reinterpret_cast<unsigned char*>(pending_.data() + at));
  if (length > 0) std::memcpy(pending_.data() + at + kFrameHeaderSize, data, length);
}

bool cFrameWriter::Post(short type, short subtype, const char* data, unsigned length) {
  const std::size_t frameBytes = kFrameHeaderSize + length;
  if (frameBytes > kPostedFrameBytes || !options_.simulatedLatency.empty()) return Send(type, subtype, data, length);
  if (!Check(data, length) || !sink_.Writable()) return false;
  const std::int64_t now = nTime::cPoint::Now().EpochMicroseconds();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (writing_ && !postsClosed_ && pending_.size() + frameBytes <= kMaxPendingBytes) {
      AppendPending(type, subtype, data, length, now);
      return true;
    }
  }
  // Nobody writes (or the pending buffer is full): this sender writes itself,
  // after whatever is pending, since the turn frees only once that is out.
  return Send(type, subtype, data, length);
}

cFrameWriter::~cFrameWriter() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  flushWanted_.notify_all();
  flusher_.Join();
}

void cFrameWriter::EnableWriteBehind(const nParallel::nImplementation_sho::cThreadAttributes& attributes) {
  behind_ = attributes;
}

bool cFrameWriter::PostBehind(short type, short subtype, const char* data, unsigned length) {
  const std::size_t frameBytes = kFrameHeaderSize + length;
  if (!behind_ || frameBytes > kPostedFrameBytes || !options_.simulatedLatency.empty())
    return Post(type, subtype, data, length);
  if (!Check(data, length) || !sink_.Writable()) return false;
  const std::int64_t now = nTime::cPoint::Now().EpochMicroseconds();
  bool writeHere = false;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (pending_.size() + frameBytes > kMaxPendingBytes || (writing_ && postsClosed_) || stopping_) {
      lock.unlock();
      // Held back: this sender writes itself once the turn is free.
      return Send(type, subtype, data, length);
    }
    AppendPending(type, subtype, data, length, now);
    if (writing_) return true;  // goes out with the write under way
    writing_ = true;
    if (!flusherStarted_ && !flusherFailed_) {
      try {
        flusher_.Start([this] { FlushLoop(); }, "VTFlush", "cFrameWriter:Flusher", *behind_);
        flusherStarted_ = true;
      } catch (const std::exception& e) {
        VLOG_WARN("StreamSocket::SendTypedMessageZ2(%s) - no flusher thread (%s); senders write themselves", name_,
                  e.what());
        flusherFailed_ = true;
      }
    }
    writeHere = flusherFailed_;
    flushHandedOver_ = !writeHere;
  }
  if (writeHere) return ReleaseTurn(true);
  flushWanted_.notify_one();
  return true;
}

void cFrameWriter::FlushLoop() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      // A hand-over made before the writer began to go is still written.
      flushWanted_.wait(lock, [this] { return flushHandedOver_ || stopping_; });
      if (!flushHandedOver_) return;
      flushHandedOver_ = false;
    }
    ReleaseTurn(true, false);
  }
}

bool cFrameWriter::Drain(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return turnFree_.wait_for(lock, timeout, [this] { return !writing_; });
}

}  // namespace nCommunication::nSocket::nImplementation_sho
