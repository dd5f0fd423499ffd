#pragma once
// Facts about the local host. Stateless; any thread may call.
#include <string>

// The host name the system reports; empty when it reports none.
std::string RQPGetLocalHostName();
