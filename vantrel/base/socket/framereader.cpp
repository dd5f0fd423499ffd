#include "vantrel/base/socket/framereader.h"

#include <algorithm>
#include <cstring>

namespace nCommunication::nSocket::nImplementation_sho {

bool cFrameReader::Fill(std::size_t need, bool inFrame) {
  if (end_ - start_ >= need) return true;
  // Not zeroed: only the pages that reads reach become resident.
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(kBufferSize);
  if (start_ == end_) {
    start_ = end_ = 0;
  } else if (kBufferSize - start_ < need) {
    std::memmove(buffer_.get(), buffer_.get() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
  }
  while (end_ - start_ < need) {
    const std::size_t room = kBufferSize - end_;
    const std::size_t want = largePayloads_ ? std::min(room, need - (end_ - start_)) : room;
    const std::size_t got = source_.Read(buffer_.get() + end_, want, inFrame, deadline_);
    if (got == 0) return false;
    end_ += got;
    inFrame = true;
  }
  return true;
}

bool cFrameReader::ReadDirect(char* buffer, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t got = source_.Read(buffer + done, size - done, true, deadline_);
    if (got == 0) return false;
    done += got;
  }
  return true;
}

cFrameReader::tHeader cFrameReader::ReadHeader(std::uint32_t maxMessageSize, cFrameHeader& header) {
  deadline_ = {};
  // Bytes left over from the previous read are part of this frame already.
  if (!Fill(kFrameHeaderSize, end_ > start_)) return tHeader::eFailed;
  header = gDecodeFrameHeader(reinterpret_cast<const unsigned char*>(buffer_.get() + start_));
  switch (gCheckFrameHeader(header, maxMessageSize)) {
    case tFrameCheck::eOk:
      break;
    case tFrameCheck::eBadMarker:
      return tHeader::eBadMarker;
    case tFrameCheck::eTooLong:
      return tHeader::eTooLong;
  }
  start_ += kFrameHeaderSize;
  return tHeader::eOk;
}

std::unique_ptr<char[]> cFrameReader::ReadPayload(std::uint32_t length) {
  const std::size_t size = length;
  // A small payload is gathered in the read buffer, so that whatever follows it
  // in the stream comes in the same read.
  largePayloads_ = size >= kDirectPayloadSize;
  if (!largePayloads_ && !Fill(size, true)) return nullptr;
  auto payload = std::make_unique_for_overwrite<char[]>(size + 1);
  const std::size_t buffered = std::min(size, end_ - start_);
  if (buffered > 0) std::memcpy(payload.get(), buffer_.get() + start_, buffered);
  start_ += buffered;
  if (buffered < size && !ReadDirect(payload.get() + buffered, size - buffered)) return nullptr;
  payload[size] = '\0';
  return payload;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
