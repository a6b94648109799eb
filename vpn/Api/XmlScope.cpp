// The use of libxml2 by threads that may run out of memory or outlive `main`.

#include "vpn/Api/XmlScope.h"

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/threads.h>
#include <libxml/xmlerror.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

namespace {

/// Open scopes, and a mark that no more are opened. Never destroyed.
constinit std::atomic<unsigned int> scopes{0};
constexpr unsigned int NoMore = 1U << 31U;

bool openScope() {
  if ((scopes.fetch_add(1, std::memory_order_acquire) & NoMore) == 0) {
    return true;
  }
  scopes.fetch_sub(1, std::memory_order_relaxed);
  return false;
}

void closeScope() { scopes.fetch_sub(1, std::memory_order_release); }

/// An exit handler. Those of the process run before those of its libraries.
void endScopes() {
  // A document takes milliseconds. A thread that calls exit within its own scope waits in vain, so
  // the wait is short.
  constexpr std::chrono::milliseconds Patience{500};
  constexpr std::chrono::milliseconds Pause{1};
  scopes.fetch_or(NoMore, std::memory_order_relaxed);
  const auto limit = std::chrono::steady_clock::now() + Patience;
  while (scopes.load(std::memory_order_acquire) != NoMore &&
         std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(Pause);
  }
}

bool initialise() {
  xmlInitParser();
  return std::atexit(endScopes) == 0;
}

void drop(void* /*context*/, const char* /*format*/, ...) {}

/// Without memory for its state libxml2 reports the error by way of that very state and crashes. So
/// this first tries whether there is memory.
void makeThreadState() {
  ::operator delete(::operator new(sizeof(xmlGlobalState)));
  if (xmlGetGlobalState() == nullptr) {
    throw std::bad_alloc();
  }
}

}  // namespace

CXmlScope::CXmlScope() {
  // Once for all threads: the library's own lazy initialisation is not made for several at once.
  static const bool initialised = initialise();
  if (!initialised || !openScope()) {
    throw std::bad_alloc();
  }
  try {
    makeThreadState();
  } catch (...) {
    closeScope();
    throw;
  }
  m_errorFunction = xmlGenericError;
  m_errorContext = xmlGenericErrorContext;
  xmlSetGenericErrorFunc(nullptr, drop);
}

CXmlScope::~CXmlScope() {
  xmlSetGenericErrorFunc(m_errorContext, m_errorFunction);
  closeScope();
}
