#pragma once
// Facts about the local host. Stateless; any thread may call.
#include <string>

#include "vantrel/base/export.h"

// The host name the system reports; empty when it reports none.
VANTREL_API std::string RQPGetLocalHostName();
