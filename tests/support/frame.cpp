#include "tests/support/frame.h"

#include <gtest/gtest.h>

namespace vantrel::test {

cFrame ReadFrame(StreamSocket& socket, StreamSocket::iLatencyConfiguration* latency) {
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
