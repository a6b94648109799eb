// One measured headend. The record holds only what it was given, so that a copy is as good as the
// original.

#include "vpn/Api/AHS/HeadendRTT.h"

#include <utility>

#include "vpn/include/StringUtils.h"

CHeadendRTT::CHeadendRTT() : m_rtt(0) {}

CHeadendRTT::CHeadendRTT(std::string headend, unsigned int rtt)
    : m_headend(std::move(headend)), m_rtt(rtt) {}

CHeadendRTT::~CHeadendRTT() = default;

CHeadendRTT::CHeadendRTT(const CHeadendRTT& other) = default;

CHeadendRTT& CHeadendRTT::operator=(const CHeadendRTT& other) = default;

std::string CHeadendRTT::GetHeadend() const { return m_headend; }

unsigned int CHeadendRTT::GetRTT() const { return m_rtt; }

std::string CHeadendRTT::toString() const {
  return CStringUtils::printable(m_headend) + "     " + std::to_string(m_rtt);
}
