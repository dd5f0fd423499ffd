#pragma once
// Exceptions of the socket layer. Only local faults are thrown (a descriptor
// that cannot be created, a port that is taken, unusable TLS files); everything
// a peer or a close can cause is a false result instead.
#include <stdexcept>
#include <string>

namespace nCommunication::nSocket::nImplementation_sho {

// A local fault of the socket layer. Thrown on the thread that called the
// failing operation; carries the system's error text.
class cSocketError : public std::runtime_error {
 public:
  explicit cSocketError(const std::string& what) : std::runtime_error(what) {}
};

// The process has no descriptor left for a new socket: its state, not the
// peer's, and over as soon as a connection ends.
class cOutOfDescriptors : public cSocketError {
 public:
  using cSocketError::cSocketError;
};

// The port asked for by a listener is held by another socket.
class cAlreadyInUse : public cSocketError {
 public:
  explicit cAlreadyInUse(unsigned short port)
      : cSocketError("port " + std::to_string(port) + " is already in use"), port_(port) {}
  unsigned short Port() const { return port_; }

 private:
  unsigned short port_;
};

}  // namespace nCommunication::nSocket::nImplementation_sho
