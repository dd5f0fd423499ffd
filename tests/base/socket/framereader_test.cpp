// Frames cut out of a byte stream, over the fuzz targets' in-memory source,
// which hands the bytes out in chosen pieces.
#include "vantrel/base/socket/framereader.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "fuzz/fuzzsupport.h"
#include "tests/base/socket/socketpair.h"

using namespace nCommunication::nSocket::nImplementation_sho;
using namespace vantrel::test;

using Source = vantrel::fuzz::cMemorySource;

TEST(FrameReaderTest, FramesComeOutWholeHoweverTheReadsCutThem) {
  // Empty, small, just below and at the direct-read size, larger than the read
  // buffer, and small frames right after large ones.
  const std::size_t sizes[] = {0, 1, 300, 16 * 1024 - 1, 16 * 1024, 5, 70'000, 0, 100'001, 12};
  std::vector<std::string> payloads;
  std::string bytes;
  std::set<std::size_t> boundaries{0};
  for (std::size_t i = 0; i < std::size(sizes); ++i) {
    payloads.push_back(Payload(sizes[i], static_cast<int>(i)));
    bytes += Wire(static_cast<short>(i - 3), payloads.back());
    boundaries.insert(bytes.size());
  }
  for (const std::vector<std::size_t>& cuts :
       std::vector<std::vector<std::size_t>>{{1}, {7, 25}, {19, 1, 4000}, {bytes.size()}}) {
    Source source(bytes, cuts);
    cFrameReader reader(source);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      cFrameHeader header;
      ASSERT_EQ(reader.ReadHeader(1u << 20, header), cFrameReader::tHeader::eOk) << i << " cut " << cuts[0];
      EXPECT_EQ(header.type, static_cast<short>(i - 3));
      ASSERT_EQ(header.words.length, payloads[i].size());
      const auto payload = reader.ReadPayload(header.words.length);
      ASSERT_TRUE(payload) << i;
      EXPECT_EQ(std::string(payload.get(), header.words.length), payloads[i]) << i << " cut " << cuts[0];
      EXPECT_EQ(payload[header.words.length], '\0');
    }
    cFrameHeader after;
    EXPECT_EQ(reader.ReadHeader(1u << 20, after), cFrameReader::tHeader::eFailed);  // the stream ended
    // Only a read at a frame boundary may wait as long as the connection stays
    // idle; a read for the rest of a frame is bounded by the time-out.
    for (const auto& [at, inFrame] : source.reads) EXPECT_EQ(inFrame, boundaries.count(at) == 0) << "read at " << at;
  }
}

// Whatever follows good frames in the same read, they come out whole first and
// the bad frame fails alone.
TEST(FrameReaderTest, BadHeadersAndStreamsThatEndInsideAFrameFailAfterTheFramesBeforeThem) {
  using tHeader = cFrameReader::tHeader;
  const std::string cut = Wire(1, Payload(100, 1)), large = Wire(2, Payload(40'000, 2));
  const struct {
    const char* name;
    std::string bytes;
    tHeader header;
    bool payload;  // whether the payload comes out whole
  } rows[] = {
      {"plain text instead of a frame", WireHeader(0x47455420u /* "GET " */, 4) + "abcd", tHeader::eBadMarker, false},
      {"length above the maximum", WireHeader(kFrameMarker, 50'001), tHeader::eTooLong, false},
      {"length at the maximum", Wire(3, Payload(50'000, 3)), tHeader::eOk, true},
      {"end inside a header", cut.substr(0, 11), tHeader::eFailed, false},
      {"end inside a direct payload", large.substr(0, 30'000), tHeader::eOk, false},
  };
  const std::string good = Wire(4, Payload(30, 4)) + Wire(5, "");
  for (const auto& row : rows) {
    const std::string bytes = good + row.bytes;
    // In small pieces, and in one read that holds the good frames and the bad one.
    for (const std::size_t piece : {std::size_t{0}, std::size_t{5}}) {
      Source source(bytes, {piece, 700});
      cFrameReader reader(source);
      cFrameHeader header;
      for (const short type : {4, 5}) {
        ASSERT_EQ(reader.ReadHeader(50'000, header), tHeader::eOk) << row.name;
        ASSERT_EQ(header.type, type);
        const auto payload = reader.ReadPayload(header.words.length);
        ASSERT_TRUE(payload) << row.name;
        EXPECT_EQ(std::string(payload.get(), header.words.length), type == 4 ? Payload(30, 4) : "");
      }
      ASSERT_EQ(reader.ReadHeader(50'000, header), row.header) << row.name << " piece " << piece;
      // A refused header is handed out as it arrived, for the log.
      if (row.header == tHeader::eBadMarker) {
        EXPECT_EQ(header.words.marker, 0x47455420u);
      } else if (row.header == tHeader::eTooLong) {
        EXPECT_EQ(header.words.length, 50'001u);
      } else if (row.header == tHeader::eOk) {
        EXPECT_EQ(reader.ReadPayload(header.words.length) != nullptr, row.payload) << row.name;
      }
    }
  }
}

TEST(FrameReaderTest, HeadersGoOnTheWireInNetworkOrder) {
  const std::string raw = WireHeader(kFrameMarker, 0x01020304u, -2, -5);
  EXPECT_EQ(raw, std::string("VTM1\x01\x02\x03\x04\xFF\xFE\x00\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFB", kFrameHeaderSize));
  EXPECT_EQ(gDecodeFrameHeader(reinterpret_cast<const unsigned char*>(raw.data())).sendTimeMicroseconds, -5);
}
