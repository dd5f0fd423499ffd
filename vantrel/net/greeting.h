#pragma once
// The greeting block a local client sends as its first frame, and the reply the
// service makes of it (layout in vantrel/message/wire.h). Pure functions over
// the caller's bytes: no state, no log, no allocation beyond the name they
// return; any thread.
#include <cstdint>
#include <string>

// The client's name from the greeting `data` (`length` bytes): a long name
// after the block when there is one, else the name field up to its first zero
// (or the whole field when it has none). False, with
// `name` left empty, when the block is shorter than a greeting.
bool gReadGreetingName(const char* data, unsigned length, std::string& name);

// Turns a greeting block read by gReadGreetingName into its reply in place:
// the service's host text goes into the host field (zero-padded, cut to the
// field and then without a terminator) and its net port into the port field.
// The name field and anything after the block are left as they are.
void gFillGreetingReply(char* data, const std::string& hostName, std::uint16_t netPort);
