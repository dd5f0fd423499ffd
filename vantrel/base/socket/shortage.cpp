#include "vantrel/base/socket/shortage.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "vantrel/base/log/log.h"
#include "vantrel/base/platform/descriptors.h"

namespace nCommunication::nSocket::nImplementation_sho {
namespace {
std::atomic<std::uint64_t> gRefused{0};
constexpr std::int64_t kNever = INT64_MIN;
std::atomic<std::int64_t> gLastLogMs{kNever};

std::string Number(const std::optional<std::uint64_t>& value) {
  if (!value) return "?";
  return *value == vantrel::platform::kNoDescriptorLimit ? std::string("unlimited") : std::to_string(*value);
}
}  // namespace

std::uint64_t gReportDescriptorShortage(const char* who, const char* what) {
  const std::uint64_t total = gRefused.fetch_add(1, std::memory_order_relaxed) + 1;
  const std::int64_t now =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count();
  std::int64_t last = gLastLogMs.load(std::memory_order_relaxed);
  if ((last != kNever && now - last < 1000) ||
      !gLastLogMs.compare_exchange_strong(last, now, std::memory_order_relaxed))
    return total;
  const auto limit = vantrel::platform::gDescriptorLimit();
  const auto open = vantrel::platform::gOpenDescriptorCount();
  VLOG_ERROR("%s - out of descriptors (%s open, limit %s): %s (%llu refused so far)", who, Number(open),
             Number(limit ? std::optional<std::uint64_t>(limit->soft) : std::nullopt), what,
             static_cast<unsigned long long>(total));
  return total;
}

}  // namespace nCommunication::nSocket::nImplementation_sho
