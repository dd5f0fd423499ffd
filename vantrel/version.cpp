#include "vantrel/version.h"

const char* VantrelVersion() { return VANTREL_VERSION_STRING; }
