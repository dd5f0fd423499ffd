#pragma once
// One log line for every connection refused because the process has no
// descriptor left, at most one a second for the whole process (a refusal
// usually comes in floods), naming the limit and the number open.
//
// Any thread; the rate and the count are process-wide atomics.
#include <cstdint>

namespace nCommunication::nSocket::nImplementation_sho {

// `who` names the caller ("StreamSocket::Accept(7)"), `what` the refused
// connection ("connection refused", "link to lg01 not opened"). Counts the
// refusal; returns how many there have been so far.
std::uint64_t gReportDescriptorShortage(const char* who, const char* what);

}  // namespace nCommunication::nSocket::nImplementation_sho
