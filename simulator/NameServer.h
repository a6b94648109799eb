#pragma once

#include <map>
#include <string>
#include <vector>

#include "simulator/FileDescriptor.h"
#include "simulator/Scene.h"

namespace simulator {

/// Plays the name server of a scene, over UDP: it knows the scene's answers and nothing else. Not
/// for several threads.
class NameServer {
 public:
  /// Listens on port 53 of the scene's resolver, which there must be.
  /// @throws std::system_error when the address cannot be had.
  explicit NameServer(const Scene& scene);

  /// Becomes readable when there are questions.
  int fd() const { return m_socket.get(); }

  /// Answers what has been asked.
  void answer();

 private:
  FileDescriptor m_socket;
  std::map<std::string, NameAnswer> m_answers;
};

/// The answer to a question, both as they are sent (RFC 1035, section 4); empty for none.
std::vector<unsigned char> answerTo(const std::vector<unsigned char>& question,
                                    const std::map<std::string, NameAnswer>& answers);

}  // namespace simulator
