#include "vantrel/message/packmsg.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/testutil.h"
#include "vantrel/message/typedmsg.h"
#include "vantrel/message/wire.h"

namespace {

using namespace vantrel::wire;

void ExpectSameFields(const cVantrelMessage& a, cVantrelMessage b) {
  EXPECT_EQ(a.getMessageId(), b.getMessageId());
  EXPECT_STREQ(a.getToHost(), b.getToHost());
  EXPECT_STREQ(a.getToClient(), b.getToClient());
  EXPECT_STREQ(a.getFromHost(), b.getFromHost());
  EXPECT_STREQ(a.getFromClient(), b.getFromClient());
  EXPECT_EQ(const_cast<cVantrelMessage&>(a).getQtype(), b.getQtype());
  EXPECT_EQ(a.getType(), b.getType());
  EXPECT_EQ(a.getSubtype(), b.getSubtype());
  ASSERT_EQ(a.getDatalen(), b.getDatalen());
  EXPECT_EQ(0, std::memcmp(a.getData(), b.getData(), a.getDatalen()));
}

cVantrelMessage Rebuilt(const cVantrelMessage& m) {
  return cVantrelMessage(m.getPackedBuf(), m.getPackedBufLen(), m.getType(), m.getSubtype());
}

TEST(PackedRecord, RoundTripKeepsEveryField) {
  const std::string payload("bin\0ary\xff", 8);
  cVantrelMessage filled(3, "lg01", "recorder", "lg02", "driver", QTYPE_SYNC, 7, 0, cVantrelMessage::tDataSpace{5});
  ASSERT_EQ(filled.getDatalen(), 5u);
  std::memcpy(filled.mutableData(), "12345", 5);
  const std::pair<const char*, cVantrelMessage> records[] = {
      {"every field set", cVantrelMessage(0xDEADBEEF, "lg01~9011", "recorder", "lg02", "driver", QTYPE_ASYNC, -2, 1036,
                                          payload.data(), static_cast<std::uint32_t>(payload.size()))},
      {"empty texts and no data", cVantrelMessage(0, nullptr, "", nullptr, "", QTYPE_CLIENT, 3, 0, nullptr, 0)},
      {"data space filled in place", filled},
  };
  for (const auto& [name, m] : records) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(m.isValid());
    cVantrelMessage back = Rebuilt(m);
    ASSERT_TRUE(back.isValid());
    ExpectSameFields(m, back);
    ASSERT_NE(back.getData(), nullptr);
    // The payload is followed by a zero inside the buffer, so it reads as text safely.
    EXPECT_EQ(back.getData()[back.getDatalen()], '\0');
  }
  // The round trip alone would not notice fields that the parts constructor lost.
  cVantrelMessage full = Rebuilt(records[0].second);
  EXPECT_EQ(full.getQtype(), QTYPE_ASYNC);
  EXPECT_EQ(full.getType(), -2);
  EXPECT_EQ(full.getSubtype(), 1036);
  EXPECT_STREQ(Rebuilt(records[1].second).getToHost(), "") << "null texts count as empty";
}

TEST(PackedRecord, SubtypeTravelsInsideTheBufferNotInTheFrame) {
  cVantrelMessage m(7, "h", "c", "fh", "fc", QTYPE_SYNC, kSend, 0, "x", 1);
  // A host link carries every frame with its version marker as subtype.
  cVantrelMessage back(m.getPackedBuf(), m.getPackedBufLen(), kSend, kVersionMarker);
  EXPECT_EQ(back.getSubtype(), 0);

  m.setSubtype(1);
  EXPECT_EQ(Rebuilt(m).getSubtype(), 0) << "setSubtype must not rewrite the packed buffer";
}

TEST(PackedRecord, AdoptedBufferIsUsedInPlaceOrFreedWhenMalformed) {
  cVantrelMessage m(5, "lg01", "recorder", "lg02", "driver", QTYPE_SYNC, kFileTraffic, 0, "chunkB", 6);
  auto received = std::make_unique<char[]>(m.getPackedBufLen());
  std::memcpy(received.get(), m.getPackedBuf(), m.getPackedBufLen());
  const char* raw = received.get();
  cVantrelMessage adopted(std::move(received), m.getPackedBufLen(), kFileTraffic, kVersionMarker);
  ASSERT_TRUE(adopted.isValid());
  ExpectSameFields(m, adopted);
  EXPECT_EQ(adopted.getPackedBuf(), raw) << "the received buffer must not be copied";

  // A malformed buffer leaves the record invalid; the sanitizers see that the
  // buffer taken over is released.
  vantrel::test::LogCapture log;
  auto cut = std::make_unique<char[]>(m.getPackedBufLen());
  std::memcpy(cut.get(), m.getPackedBuf(), m.getPackedBufLen());
  cVantrelMessage broken(std::move(cut), m.getPackedBufLen() - 1, kFileTraffic, kVersionMarker);
  EXPECT_FALSE(broken.isValid());
  EXPECT_EQ(broken.getPackedBuf(), nullptr);
  EXPECT_TRUE(log.contains("malformed packed record"));
  EXPECT_FALSE(cVantrelMessage(nullptr, 100, kSend, 0).isValid());
}

TEST(PackedRecord, CopiesOnOtherThreadsOutliveTheSource) {
  auto source = std::make_unique<cVantrelMessage>(1, "h", "c", "fh", "fc", QTYPE_CLIENT, 2, 0, "shared", 7);
  std::vector<cVantrelMessage> copies(4, *source);
  std::vector<std::thread> readers;
  std::atomic<int> intact{0};
  for (cVantrelMessage& copy : copies)
    readers.emplace_back([&intact, c = std::move(copy)] {
      for (int i = 0; i < 1000; ++i) {
        cVantrelMessage again(c);
        if (std::strcmp(again.getData(), "shared") == 0) ++intact;
      }
    });
  source.reset();  // while the threads still read their copies
  copies.clear();
  for (std::thread& t : readers) t.join();
  EXPECT_EQ(intact.load(), 4000);
}

TEST(TypedMessage, PayloadIsCopiedOrAdoptedAndEmptyMeansNull) {
  char frame[] = "abc";
  cTypedMessageObject copied(frame, 3, 2, 1);
  frame[0] = 'z';
  ASSERT_NE(copied.getData(), nullptr);
  EXPECT_EQ(std::string(copied.getData(), 3), "abc");

  cTypedMessageObject empty("ignored", 0, 2, 0);
  EXPECT_EQ(empty.getData(), nullptr);

  char* buffer = new char[4]{'w', 'x', 'y', 'z'};
  cTypedMessageObject adopted(cTypedMessageObject::AdoptBuffer{}, buffer, 4, 5, 0);
  EXPECT_EQ(adopted.getData(), buffer);

  vantrel::test::LogCapture log;
  cTypedMessageObject broken(nullptr, 16, 2, 0);
  EXPECT_EQ(broken.getData(), nullptr);
  EXPECT_EQ(broken.getLength(), 0);
  EXPECT_TRUE(log.contains("null data with length 16"));
}

TEST(TypedMessage, FrameToRecordConversion) {
  cVantrelMessage m(42, "lg01", "recorder", "lg02", "driver", QTYPE_CLIENT, kLocalSend, 0, "hi", 3);
  cTypedMessageObject frame(m.getPackedBuf(), static_cast<std::int32_t>(m.getPackedBufLen()), kLocalSend, 0);
  cVantrelMessage* r = NVSTmo2Ttm(&frame);
  ASSERT_NE(r, nullptr);
  EXPECT_TRUE(r->isValid());
  ExpectSameFields(m, *r);
  NVSDeleteMsg(r);

  // A greeting-sized block of zeros is not a record.
  std::vector<char> block(kGreetingSize, '\0');
  cTypedMessageObject greeting(block.data(), kGreetingSize, kGreeting, kChannelAnswers);
  cVantrelMessage* bad = NVSTmo2Ttm(&greeting);
  ASSERT_NE(bad, nullptr);
  EXPECT_FALSE(bad->isValid());
  NVSDeleteMsg(bad);
  EXPECT_EQ(NVSTmo2Ttm(nullptr), nullptr);
}

}  // namespace
