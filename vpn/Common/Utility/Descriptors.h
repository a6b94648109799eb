#pragma once

/// The process's descriptors. Any thread may call anything.
namespace Descriptors {

/// What is always left to the host.
constexpr long HostsShare = 64;

/// The soft limit, `LONG_MAX` for none.
long limit() noexcept;

/// Whether the limit is so low that none may be wasted.
bool areFew() noexcept;

/// How many the process can still open besides the host's share; less than 0 if that is touched.
/// Takes time for each open one.
long left() noexcept;

}  // namespace Descriptors
