#pragma once
// What the fuzz targets share: a check that stops the run where an invariant
// breaks, log set-up, and an in-memory byte source for the frame reader.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "vantrel/base/log/log.h"
#include "vantrel/base/socket/framereader.h"

// Aborts on a broken invariant: libFuzzer keeps the input as a reproducer, and
// the replay test fails on it.
#define FUZZ_CHECK(condition) ((condition) ? void(0) : vantrel::fuzz::Fail(#condition, __FILE__, __LINE__))

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace vantrel::fuzz {

[[noreturn]] inline void Fail(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, condition);
  std::abort();
}

// Every line is formatted, so a log call that cannot format what a peer sent
// is found too, but nothing is kept: the targets log on nearly every input.
inline void QuietLog() {
  static const bool configured = (vantrel::log::Configure("trace", "/dev/null"), true);
  (void)configured;
}

namespace sockets = nCommunication::nSocket::nImplementation_sho;

// Hands out `bytes` in reads of at most the next of `pieces` bytes (cycling;
// 0: as many as asked for), then 0. Records where each read began and whether
// the reader said it was inside a frame. The frame reader's unit tests use it
// too.
class cMemorySource : public sockets::iByteSource {
 public:
  cMemorySource(std::string_view bytes, std::vector<std::size_t> pieces) : bytes_(bytes), pieces_(std::move(pieces)) {}
  std::size_t Read(char* buffer, std::size_t size, bool inFrame, sockets::cFrameDeadline&) override {
    FUZZ_CHECK(size > 0);
    reads.push_back({position_, inFrame});
    std::size_t n = std::min(size, bytes_.size() - position_);
    if (const std::size_t piece = pieces_[turn_++ % pieces_.size()]; piece > 0) n = std::min(n, piece);
    std::memcpy(buffer, bytes_.data() + position_, n);
    position_ += n;
    return n;
  }
  struct cRead {
    std::size_t at;
    bool inFrame;
  };
  std::vector<cRead> reads;

 private:
  std::string_view bytes_;
  std::vector<std::size_t> pieces_;
  std::size_t position_ = 0, turn_ = 0;
};

}  // namespace vantrel::fuzz
