// A directory that lives as long as the test: its name is made by mkdtemp(3), so that tests that
// run side by side never share one.

#include "tests/support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace tests {

namespace {

// What the tests read has to be trusted, whatever the umask.
void denyOthers(const std::string& path) {
  using std::filesystem::perms;
  std::filesystem::permissions(path, perms::group_write | perms::others_write,
                               std::filesystem::perm_options::remove);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string path = (std::filesystem::temp_directory_path() / "ahs-test-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot make the directory " + path);
  }
  m_path = path;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryDirectory::MakeDirectory(const std::string& name) const {
  std::filesystem::create_directories(File(name));
  denyOthers(File(name));
  return File(name);
}

std::string TemporaryDirectory::Write(const std::string& name, const std::string& contents) const {
  std::ofstream file(File(name), std::ios::binary | std::ios::trunc);
  file << contents;
  file.close();
  if (!file) {
    throw std::runtime_error("cannot write " + File(name));
  }
  denyOthers(File(name));
  return File(name);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string preferencesText(const std::map<std::string, std::string>& values) {
  std::string text = "<preferences version=\"1\">\n";
  for (const auto& [name, value] : values) {
    text.append("  <preference name=\"" + name).append("\" value=\"" + value).append("\"/>\n");
  }
  return text + "</preferences>\n";
}

}  // namespace tests
