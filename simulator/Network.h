#pragma once

#include <stdexcept>
#include <string>

#include "simulator/FileDescriptor.h"
#include "simulator/Scene.h"

namespace simulator {

/// This process may not make networks, or this machine cannot.
class NotPermitted : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Two network namespaces of this process, joined only by the two descriptors here. A packet sent
/// in one namespace to the other can be read from its descriptor; a packet written there arrives.
///
/// Gateways may have any address of 10.77.0.0/16 and fd77::/64, all local to their namespace; the
/// client has 10.76.0.1 and fd76::1. The calling process moves into the clients' namespace and into
/// a new mount namespace.
struct Network {
  FileDescriptor gatewayNamespace;
  /// Reading never waits.
  FileDescriptor gatewayTun;
  FileDescriptor clientTun;

  /// Makes the network as root, or in a user namespace in which this process is root. The process
  /// must have a single thread.
  /// @throws NotPermitted, SceneError for an address of the scene out of range, std::runtime_error
  /// for other failures.
  static Network make(const Scene& scene);
};

/// Makes the scene's names and "localhost" known to this process and its children. Without a
/// resolver in the scene, other names fail at once. Only after `Network::make`.
/// @throws std::system_error.
void hideOtherNames(const Scene& scene);

}  // namespace simulator
