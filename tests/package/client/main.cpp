// A client with an spdlog and a libxml2 of its own: it goes on using them while the library does,
// and neither hears of the other. Prints the chosen headend. Usage: client PROFILE-DIRECTORY
// LOG-FILE. One of the profiles is no XML.

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <ahs/ahs.hpp>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

namespace {

int errorsHeard = 0;

void hearError(void*, xmlErrorPtr) { ++errorsHeard; }

bool isXml(const std::string& text) {
  xmlDocPtr const document =
      xmlReadMemory(text.data(), static_cast<int>(text.size()), "", nullptr, 0);
  xmlFreeDoc(document);
  return document != nullptr;
}

bool fail(const char* what) {
  std::fprintf(stderr, "client: %s\n", what);
  return false;
}

bool selects(const char* profiles, const char* log) {
  ahs::Library library({.profileDirectory = profiles, .proxy = "", .logFile = log});
  if (!library) {
    return fail(library.error().c_str());
  }
  if (library.problems().empty() || errorsHeard != 0) {
    return fail("what is wrong with a profile is told to the wrong one");
  }
  const ahs::Result result = library.select();
  std::puts(result ? result.headends.front().c_str() : result.error.c_str());
  return static_cast<bool>(result);
}

bool ownLibrariesAreAsTheyWere(const std::string& logged) {
  if (!isXml("<a/>") || errorsHeard != 0 || isXml("<a>") || errorsHeard == 0) {
    return fail("libxml2 is not as the client left it");
  }
  int loggers = 0;
  spdlog::apply_all([&](const std::shared_ptr<spdlog::logger>&) { ++loggers; });
  if (loggers != 1 || spdlog::default_logger()->name() != "client" || logged != "before\nafter\n") {
    return fail("spdlog is not as the client left it");
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    return 2;
  }
  std::ostringstream logged;
  spdlog::set_default_logger(std::make_shared<spdlog::logger>(
      "client", std::make_shared<spdlog::sinks::ostream_sink_mt>(logged)));
  spdlog::set_pattern("%v");
  spdlog::info("before");
  xmlSetStructuredErrorFunc(nullptr, hearError);
  const bool selected = selects(argv[1], argv[2]);
  spdlog::info("after");
  return selected && ownLibrariesAreAsTheyWere(logged.str()) ? 0 : 1;
}
