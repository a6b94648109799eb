#pragma once

/// Lets the calling thread use libxml2 for the length of a scope.
///
/// libxml2 keeps state for each thread and makes it when it is first needed, which it does not
/// survive without memory; here it is made beforehand. What libxml2 would write on standard error
/// meanwhile, which is the host's, is dropped: callers learn of errors by other ways. To be used on
/// the stack or by an object that lives on one thread; scopes of one thread may be nested. Once the
/// process exits there are no more scopes: libxml2 takes itself down then, whoever is using it, so
/// `exit` waits a moment for those that are open.
class CXmlScope {
 public:
  /// @throws std::bad_alloc, also for a scope that is not to be had any more.
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
