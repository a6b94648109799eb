// Names of the client's own that are also those of classes and functions inside the library, with
// the same parameters: the library that called one of these would end the client.

#include <cstdlib>
#include <string>

class URL {
 public:
  URL();
  explicit URL(const std::string& text);
  ~URL();
  static std::string findError(const std::string& text);
  const std::string& getHost() const;
  std::string getHostAndPort(bool withDefaultPort) const;

 private:
  char m_small = 0;
};

URL::URL() { std::abort(); }
URL::URL(const std::string&) { std::abort(); }
URL::~URL() { std::abort(); }
std::string URL::findError(const std::string&) { std::abort(); }
const std::string& URL::getHost() const { std::abort(); }
std::string URL::getHostAndPort(bool) const { std::abort(); }

class CHeadendSelection {
 public:
  void run();
};

void CHeadendSelection::run() { std::abort(); }

const char* statusCodeName(long) { std::abort(); }
