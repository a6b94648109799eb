#pragma once

/// Lets the calling thread use libxml2 for the length of a scope.
///
/// libxml2 makes a state for each thread at its first use, and crashes if there is no memory for
/// it; so it is made beforehand here. What libxml2 would write to the host's standard error is
/// dropped: callers learn of errors in other ways. To be used on the stack or by an object that
/// lives on one thread; scopes of one thread may be nested. After the process begins to exit no
/// scope opens: libxml2 takes itself down then, so `exit` waits a moment for open scopes.
class CXmlScope {
 public:
  /// @throws std::bad_alloc, also when the process exits.
  CXmlScope();
  ~CXmlScope();
  CXmlScope(const CXmlScope&) = delete;
  CXmlScope& operator=(const CXmlScope&) = delete;

 private:
  using ErrorFunction = void (*)(void* context, const char* format, ...);

  // The thread's before.
  ErrorFunction m_errorFunction;
  void* m_errorContext;
};
