// The counted execution contexts of the process. An instance can be acquired as long as one
// acquisition is out; the last release makes it unreachable before it takes it down, so that nobody
// ever meets a context that is going.

#include "vpn/Common/Utility/ExecutionContext.h"

#include <atomic>
#include <new>
#include <thread>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/ReserveThread.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"

namespace {

constexpr char SourceFile[] = "vpn/Common/Utility/ExecutionContext";

/// The one instance. It is never freed, so that a thread may release it while the process exits.
struct Instance {
  CManualLock lock;
  CExecutionContext* pContext AHS_GUARDED_BY(lock) = nullptr;
  unsigned int acquisitions AHS_GUARDED_BY(lock) = 0;
};

Instance& apiInstance() {
  static Instance& instance = *new Instance;
  return instance;
}

}  // namespace

/// Services the timer list of a context until the list is closed.
class CExecutionContext::CTimerThread : public CThread {
 public:
  explicit CTimerThread(CTimerList& timerList) : m_timerList(timerList) {}

  STATUSCODE Run() override {
    m_id.store(std::this_thread::get_id());
    m_timerList.service();
    return THREAD_SUCCESS;
  }

  bool isThisThread() const { return m_id.load() == std::this_thread::get_id(); }

 private:
  CTimerList& m_timerList;  // not touched again once Service has been entered
  std::atomic<std::thread::id> m_id;
};

STATUSCODE CExecutionContext::createInstance(EXECUTIONCONTEXT_INSTANCE /*instance*/) {
  Instance& api = apiInstance();
  const CAutoLockT<CManualLock> lock(api.lock);
  if (api.pContext != nullptr) {
    return EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS;
  }
  if (const int error = CReserveThread::create(); error != 0) {
    CAppLog::LogReturnCode("createInstance", SourceFile, __LINE__, Logging::DBG_Error,
                           "CReserveThread::create", THREAD_ERROR_CREATE_FAILED, error, nullptr);
    return THREAD_ERROR_CREATE_FAILED;
  }
  try {
    auto* const context = new CExecutionContext;  // holds the reserve from here on
    const STATUSCODE status = context->m_pTimerThread->Start();
    if (status != EXECUTIONCONTEXT_SUCCESS) {
      delete context;
      return status;
    }
    api.pContext = context;
  } catch (const std::bad_alloc&) {
    CReserveThread::removeHolder();
    return EXECUTIONCONTEXT_ERROR_MEMALLOC_FAILED;
  }
  api.acquisitions = 1;
  return EXECUTIONCONTEXT_SUCCESS;
}

CExecutionContext* CExecutionContext::acquireInstance(EXECUTIONCONTEXT_INSTANCE /*instance*/) {
  Instance& api = apiInstance();
  const CAutoLockT<CManualLock> lock(api.lock);
  if (api.pContext != nullptr) {
    ++api.acquisitions;
  }
  return api.pContext;
}

void CExecutionContext::releaseInstance() {
  Instance& api = apiInstance();
  {
    const CAutoLockT<CManualLock> lock(api.lock);
    if (--api.acquisitions != 0) {
      return;
    }
    api.pContext = nullptr;
  }
  // Outside the lock: a callback under way may want to acquire the context, and gets none.
  m_timerList.close();
  if (!m_pTimerThread->isThisThread()) {
    unsigned int exitCode = 0;
    m_pTimerThread->WaitForCompletion(exitCode, CThread::Infinite);
  }
  delete this;
}

CTimerList& CExecutionContext::GetTimerList() { return m_timerList; }

CExecutionContext::CExecutionContext() : m_pTimerThread(new CTimerThread(m_timerList)) {}

CExecutionContext::~CExecutionContext() {
  delete m_pTimerThread;
  CReserveThread::removeHolder();
}
