#pragma once

/// Holds one acquisition of a counted singleton for the length of a scope.
///
/// `InstanceT` offers a static `acquireInstance(...)`, which returns the instance with its
/// acquisition counted or null, and `releaseInstance()`, which gives one acquisition back. A holder
/// whose acquisition failed compares equal to null and releases nothing. Used by one thread.
template <class InstanceT>
class CInstanceSmartPtr {
 public:
  /// Acquires; the arguments are handed to `InstanceT::acquireInstance`.
  template <class... Args>
  explicit CInstanceSmartPtr(Args... args) : m_pInstance(InstanceT::acquireInstance(args...)) {}

  ~CInstanceSmartPtr() {
    if (m_pInstance != nullptr) {
      m_pInstance->releaseInstance();
    }
  }

  CInstanceSmartPtr(const CInstanceSmartPtr&) = delete;
  CInstanceSmartPtr& operator=(const CInstanceSmartPtr&) = delete;

  InstanceT* operator->() const { return m_pInstance; }
  InstanceT& operator*() const { return *m_pInstance; }
  bool operator==(const InstanceT* other) const { return m_pInstance == other; }

 private:
  InstanceT* m_pInstance;
};
