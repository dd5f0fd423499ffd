#pragma once
// What a client may call itself, and where its name travels in the greeting.
// The client library checks a name before it connects and the service checks
// it again when the greeting arrives, because names end up in log lines,
// addresses and the sender fields of every message: a newline or a terminal
// escape in one would let a client forge lines in the service's log.
//
// Pure functions: any thread.
#include <cstddef>
#include <string>
#include <string_view>

namespace vantrel {

// The empty text when `name` may be registered, otherwise why not ("it is 256
// bytes long, more than 255", "byte 3 is the control character 0x0a").
std::string ClientNameProblem(std::string_view name);

// The greeting frame a client sends for `name`: the block with the name in its
// field and, for a name that does not fit there, the whole name after it.
std::string MakeGreeting(std::string_view name);

// The client name a greeting (or its reply) of `length` bytes carries: the long
// name after the block when there is one, else the field up to its zero.
// `greeting` holds at least wire::kGreetingSize bytes.
std::string GreetingClientName(const char* greeting, std::size_t length);

}  // namespace vantrel
