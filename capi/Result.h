#pragma once

#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "vpn/Api/AHS/HeadendResult.h"

/// An ahs_result and all that it points to.
class Result {
 public:
  /// A result without headends; takes no memory.
  Result(ahs_status status, uint32_t reason) noexcept;
  /// @param headends as delivered. @param candidates see `collectResults`.
  Result(ahs_status status, uint32_t reason, std::vector<std::string> headends,
         const std::string& realm, std::vector<HeadendResult> candidates);
  /// Pointers into the moved object stay valid.
  /// @{
  Result(Result&&) noexcept = default;
  Result& operator=(Result&&) noexcept = default;
  /// @}

  /// Not from the cache and without a duration until these are set.
  ahs_result value{};

 private:
  std::vector<std::string> m_headends;
  std::vector<const char*> m_headendPointers;
  std::vector<char> m_realm;
  std::vector<HeadendResult> m_found;
  std::vector<ahs_candidate> m_candidates;
  std::vector<const ahs_candidate*> m_candidatePointers;
};
