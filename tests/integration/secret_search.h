#pragma once

#include <sys/types.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tests {

/// Looks for secrets in the memory of another process and in files. A part of a secret counts.
class SecretSearch {
 public:
  /// @param name what to call it when it is found.
  /// @param secret at least `part` bytes.
  /// @param part so many bytes of it in a row count; at least 8.
  void Add(const std::string& name, std::string_view secret, std::size_t part = ShortestPart);

  /// Searches all that a process can write to: heap, stacks, static data, whatever it has mapped.
  /// @return where what was found, a few places of each.
  /// @throws std::runtime_error when the memory cannot be read.
  std::vector<std::string> InProcess(pid_t process) const;

  /// Searches a file. @throws std::runtime_error when it cannot be read.
  std::vector<std::string> InFile(const std::string& path) const;

  static constexpr std::size_t ShortestPart = 8;
  static constexpr std::ptrdiff_t MostPlaces = 3;

 private:
  using Key = std::uint64_t;

  struct Part {
    std::size_t name;
    std::string bytes;
  };

  static Key keyAt(const char* bytes);
  static std::size_t digest(Key key);
  void Scan(int file, std::uint64_t from, std::uint64_t to, const std::string& place,
            std::vector<std::string>& found) const;
  void ScanBuffer(std::string_view bytes, std::uint64_t start, const std::string& place,
                  std::vector<std::string>& found) const;
  static void Note(const std::string& what, const std::string& where,
                   std::vector<std::string>& found);

  std::vector<std::string> m_names;
  std::unordered_multimap<Key, Part> m_parts;
  /// Digests of the keys: most bytes of a memory are told apart by this alone.
  std::bitset<1UL << 16> m_digests;
};

}  // namespace tests
