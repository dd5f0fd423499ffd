#include "vantrel/base/platform/collectable.h"

#include <functional>

RWCollectable::~RWCollectable() = default;

std::uint16_t RWCollectable::isA() const { return 0xFFFF; }

unsigned RWCollectable::hash() const { return static_cast<unsigned>(std::hash<const void*>{}(this)); }

bool RWCollectable::isEqual(const RWCollectable* other) const { return other == this; }

const char* RWCollectable::nameOf() const { return "RWCollectable"; }
