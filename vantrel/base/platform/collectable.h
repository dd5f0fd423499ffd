#pragma once
// Root of every object that travels through an event queue or the event
// framework: a polymorphic object with a class id, a hash and an equality.
#include <cstdint>

#include "vantrel/base/export.h"

class VANTREL_API RWCollectable {
 public:
  RWCollectable() = default;
  RWCollectable(const RWCollectable&) = default;
  RWCollectable& operator=(const RWCollectable&) = default;
  virtual ~RWCollectable();

  virtual std::uint16_t isA() const;
  virtual unsigned hash() const;
  // Default: identity.
  virtual bool isEqual(const RWCollectable* other) const;
  virtual const char* nameOf() const;
};
