// A packed message record as it arrives from a peer. Decoding any bytes either
// fails cleanly, leaving an empty record, or gives a record whose parts pack
// back into the same bytes.
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "fuzz/fuzzsupport.h"
#include "vantrel/message/packmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  vantrel::fuzz::QuietLog();
  if (size > std::numeric_limits<std::uint32_t>::max()) return 0;
  const char* data = reinterpret_cast<const char*>(bytes);
  const auto length = static_cast<std::uint32_t>(size);

  std::unique_ptr<cVantrelMessage> record;
  std::string error;
  const bool ok = cVantrelMessage::Unpack(data, length, vantrel::wire::kSend, 0, record, &error);
  // The constructor that takes a received frame over must judge alike.
  auto owned = std::make_unique<char[]>(size);
  std::memcpy(owned.get(), data, size);
  const cVantrelMessage taken(std::move(owned), length, vantrel::wire::kSend, 0);
  FUZZ_CHECK(taken.isValid() == ok);
  if (!ok) {
    FUZZ_CHECK(record == nullptr && !error.empty());
    FUZZ_CHECK(taken.getPackedBuf() == nullptr && taken.getPackedBufLen() == 0 && taken.getData() == nullptr);
    FUZZ_CHECK(*taken.getToHost() == '\0' && *taken.getFromClient() == '\0');
    return 0;
  }
  FUZZ_CHECK(record->isValid() && record->getPackedBufLen() == length);
  FUZZ_CHECK(record->getData()[record->getDatalen()] == '\0');

  cVantrelMessage repacked(record->getMessageId(), record->getToHost(), record->getToClient(), record->getFromHost(),
                           record->getFromClient(), record->getQtype(), record->getType(), record->getSubtype(),
                           record->getData(), record->getDatalen());
  FUZZ_CHECK(repacked.isValid() && repacked.getPackedBufLen() == length);
  // The reserved second word (bytes 8 to 11) is carried but packed as zero.
  std::string expected(data, size);
  std::memset(expected.data() + 8, 0, 4);
  FUZZ_CHECK(std::memcmp(repacked.getPackedBuf(), expected.data(), size) == 0);
  return 0;
}
