#pragma once

#include <map>
#include <string>
#include <vector>

#include "simulator/FileDescriptor.h"
#include "simulator/Scene.h"

namespace simulator {

/// Plays the name server of a scene over UDP, with the scene's answers only. Not thread-safe.
class NameServer {
 public:
  /// Listens on port 53 of the scene's resolver, which must exist.
  /// @throws std::system_error if the address is unavailable.
  explicit NameServer(const Scene& scene);

  /// Readable when questions have arrived.
  int fd() const { return m_socket.get(); }

  /// Answers the questions that have arrived.
  void answer();

 private:
  FileDescriptor m_socket;
  std::map<std::string, NameAnswer> m_answers;
};

/// The answer to a question, both in wire format (RFC 1035, section 4); empty for no answer.
std::vector<unsigned char> answerTo(const std::vector<unsigned char>& question,
                                    const std::map<std::string, NameAnswer>& answers);

}  // namespace simulator
