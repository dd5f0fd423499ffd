#pragma once
// Host names, addresses and reachability.
//
// Ownership: free functions, no state. Thread safety: any thread; each call
// blocks its caller only (name resolution may take the resolver's time).
#include <optional>
#include <string>

#include "vantrel/base/platform/time.h"

namespace nCommunication::nSocket::nImplementation_sho {

// Whether something answers a TCP connect on host:port within `timeout` (raised
// to at least one second); the connection is closed at once. Returns the time
// the connect took, or nothing.
std::optional<nTime::cDiff> gPing(const std::string& host, unsigned short port, nTime::cDiff timeout);

// The first IPv4 address of `name` (a host name or a dotted address) as dotted
// text, or nothing when it cannot be resolved.
std::optional<std::string> gGetHostByName(const std::string& name);

// This machine's host name; `fallback` when the system gives none.
std::string gGetLocalHostName(const std::string& fallback);

}  // namespace nCommunication::nSocket::nImplementation_sho
