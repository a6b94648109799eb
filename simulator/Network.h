#pragma once

#include <stdexcept>
#include <string>

#include "simulator/FileDescriptor.h"
#include "simulator/Scene.h"

namespace simulator {

/// This process may not, or this machine cannot, make networks of its own.
class NotPermitted : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Two network namespaces of this process, joined by nothing but the two files here: what is sent
/// to the other side in one comes out of its file as IP packets, and what is written there arrives.
///
/// Gateways may have any address of 10.77.0.0/16 and fd77::/64, all of which are at home in their
/// namespace; the client has 10.76.0.1 and fd76::1. The calling process is in the clients'
/// namespace from then on, and also in a mount namespace of its own.
struct Network {
  FileDescriptor gatewayNamespace;
  /// Reading never waits.
  FileDescriptor gatewayTun;
  FileDescriptor clientTun;

  /// Makes the network, as root, or else in a user namespace in which this process is root. Not in
  /// a process with threads.
  /// @throws NotPermitted, std::runtime_error for other failures, SceneError for an address of the
  ///         scene that is out of its range.
  static Network make(const Scene& scene);
};

/// Lets this process and its children know the names of the scene, "localhost", and, unless the
/// scene has a resolver, no other name: unknown ones fail at once. Only after `Network::Make`.
/// @throws std::system_error.
void hideOtherNames(const Scene& scene);

}  // namespace simulator
