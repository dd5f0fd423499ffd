#pragma once
// One typed frame as a test reads it off a socket, shared by every test helper
// that drives a socket by hand.
#include <gtest/gtest.h>

#include <string>

#include "vantrel/base/socket/streamsocket.h"
#include "vantrel/message/packmsg.h"

namespace vantrel::test {

struct cFrame {
  bool ok = false;  // false when the read failed; the rest is then empty
  short type = 0;
  short subtype = 0;
  std::string data;
  // The packed record this frame carries (invalid when it carries none).
  cVantrelMessage record() const {
    return cVantrelMessage(data.data(), static_cast<std::uint32_t>(data.size()), type, subtype);
  }
};

// Blocks until a whole frame has arrived on `socket` or the read fails. Also
// checks that the payload handed over is terminated by a zero, as promised.
inline cFrame ReadFrame(StreamSocket& socket, StreamSocket::iLatencyConfiguration* latency = nullptr) {
  cFrame frame;
  char* data = nullptr;
  unsigned length = 0;
  frame.ok = socket.WaitTypedMessageZ1(frame.type, frame.subtype, data, length, latency);
  if (frame.ok) {
    EXPECT_EQ(data[length], '\0');
    frame.data.assign(data, length);
  }
  StreamSocket::FreeMessage(data);
  return frame;
}

}  // namespace vantrel::test
