// The search for secrets. Every part of a secret is known by its first eight bytes, so one pass
// over the memory looks for all of them at every byte.

#include "tests/integration/secret_search.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tests {

namespace {

constexpr std::size_t PieceSize = 1UL << 20;

class Descriptor {
 public:
  explicit Descriptor(const std::string& path)
      : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (m_descriptor < 0) {
      throw std::runtime_error(path + " cannot be opened: " + std::strerror(errno));
    }
  }
  ~Descriptor() { ::close(m_descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

std::string hex(std::uint64_t number) {
  std::ostringstream text;
  text << "0x" << std::hex << number;
  return text.str();
}

}  // namespace

SecretSearch::Key SecretSearch::keyAt(const char* bytes) {
  Key key = 0;
  std::memcpy(&key, bytes, sizeof key);
  return key;
}

std::size_t SecretSearch::digest(Key key) {
  return static_cast<std::size_t>((key * 0x9e3779b97f4a7c15U) >> 48U);
}

void SecretSearch::Add(const std::string& name, std::string_view secret, std::size_t part) {
  if (part < ShortestPart || secret.size() < part) {
    throw std::runtime_error("too short to be looked for: " + name);
  }
  for (std::size_t at = 0; at + part <= secret.size(); ++at) {
    const std::string bytes(secret.substr(at, part));
    const Key key = keyAt(bytes.data());
    const auto [first, last] = m_parts.equal_range(key);
    // What two secrets share is known by the first one's name.
    if (std::none_of(first, last, [&](const auto& known) { return known.second.bytes == bytes; })) {
      m_parts.emplace(key, Part{m_names.size(), bytes});
      m_digests.set(digest(key));
    }
  }
  m_names.push_back(name);
}

std::vector<std::string> SecretSearch::InProcess(pid_t process) const {
  const std::string directory = "/proc/" + std::to_string(process);
  const Descriptor memory(directory + "/mem");
  std::ifstream maps(directory + "/maps");
  std::vector<std::string> found;
  std::size_t areas = 0;
  for (std::string line; std::getline(maps, line);) {
    std::istringstream fields(line);
    std::uint64_t from = 0;
    std::uint64_t to = 0;
    char dash = 0;
    std::string access;
    fields >> std::hex >> from >> dash >> to >> access;
    if (access.size() > 1 && access[0] == 'r' && access[1] == 'w') {
      Scan(memory.get(), from, to, line, found);
      ++areas;
    }
  }
  if (areas == 0) {
    throw std::runtime_error("no memory of process " + std::to_string(process));
  }
  return found;
}

std::vector<std::string> SecretSearch::InFile(const std::string& path) const {
  const Descriptor file(path);
  const off_t size = ::lseek(file.get(), 0, SEEK_END);
  if (size <= 0) {
    throw std::runtime_error(path + " is empty");
  }
  std::vector<std::string> found;
  Scan(file.get(), 0, static_cast<std::uint64_t>(size), path, found);
  return found;
}

void SecretSearch::Scan(int file, std::uint64_t from, std::uint64_t to, const std::string& place,
                        std::vector<std::string>& found) const {
  std::string buffer;
  std::size_t kept = 0;  // the end of the piece before: a secret may lie across
  for (std::uint64_t at = from; at < to;) {
    buffer.resize(kept + std::min<std::uint64_t>(PieceSize, to - at));
    const ssize_t count =
        ::pread(file, buffer.data() + kept, buffer.size() - kept, static_cast<off_t>(at));
    if (count <= 0) {
      throw std::runtime_error("cannot read " + hex(at) + " of " + place + ": " +
                               std::strerror(errno));
    }
    buffer.resize(kept + static_cast<std::size_t>(count));
    ScanBuffer(buffer, at - kept, place, found);
    at += static_cast<std::uint64_t>(count);
    kept = std::min<std::size_t>(buffer.size(), 256);
    buffer.erase(0, buffer.size() - kept);
  }
}

void SecretSearch::ScanBuffer(std::string_view bytes, std::uint64_t start, const std::string& place,
                              std::vector<std::string>& found) const {
  for (std::size_t at = 0; at + sizeof(Key) <= bytes.size(); ++at) {
    const Key key = keyAt(bytes.data() + at);
    if (!m_digests[digest(key)]) {
      continue;
    }
    const auto [first, last] = m_parts.equal_range(key);
    const auto part = std::find_if(first, last, [&](const auto& known) {
      return bytes.substr(at, known.second.bytes.size()) == known.second.bytes;
    });
    if (part != last) {
      const std::string& name = m_names[part->second.name];
      Note(name + " at ", hex(start + at) + " of " + place, found);
    }
  }
}

void SecretSearch::Note(const std::string& what, const std::string& where,
                        std::vector<std::string>& found) {
  const auto told = std::count_if(found.begin(), found.end(),
                                  [&](const std::string& one) { return one.starts_with(what); });
  if (told < MostPlaces) {
    found.push_back(what + where);
  }
}

}  // namespace tests
