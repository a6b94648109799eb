// The part of the door that exists once a process.

#include "capi/Core.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/StringUtils.h"

const Candidate* candidateNamed(const std::string& name, const std::vector<Candidate>& all) {
  if (const Candidate* const found = findNamed(name, all); found != nullptr) {
    return found;
  }
  const std::string wanted = CStringUtils::toLower(name);
  const auto found = std::ranges::find_if(all, [&wanted](const Candidate& candidate) {
    return CStringUtils::toLower(candidate.headend) == wanted;
  });
  return found == all.end() ? nullptr : &*found;
}

Core::Core(const StartPlan& plan, STATUSCODE& status) : m_plan(plan) {
  CClientLibrary::Options options{plan.sources, plan.log, ""};
  m_library = std::make_unique<CClientLibrary>(options, status);
  if (status != 0) {
    return;
  }
  status = CSelectionCache::createSingletonInstance(m_cache);
  if (status == 0) {
    look();
    keepProblems(options.logProblem);
  }
}

Core::~Core() {
  if (m_cache != nullptr) {
    m_cache->releaseInstance();
  }
}

void Core::look() {
  m_candidates = std::make_shared<const std::vector<Candidate>>(findCandidates());
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  std::string proxy;
  m_usesSystemProxy = preferences->getPreferenceValue(ProxySettings, proxy) == 0 &&
                      proxy == PreferenceBase::ProxySystem;
  m_fileProblems = preferences->getProblems();
}

void Core::keepProblems(const std::string& logProblem) {
  if (!logProblem.empty()) {
    m_fileProblems.push_back({m_plan.log.file, 0, 0, "the log cannot be written: " + logProblem});
  }
  const std::string& directory = m_plan.sources.profileDirectory;
  if (!directory.empty() && access(directory.c_str(), F_OK) != 0 && errno == ENOENT) {
    m_fileProblems.push_back({directory, 0, 0, "the directory of the profiles does not exist"});
  }
  for (const FileProblem& problem : m_fileProblems) {
    m_problems.push_back({sizeof(ahs_problem), problem.file.c_str(), problem.line, problem.column,
                          problem.text.c_str()});
  }
  for (const ahs_problem& problem : m_problems) {
    m_problemPointers.push_back(&problem);
  }
}
