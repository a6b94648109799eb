#pragma once

#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/SelectionRules.h"

using SelectionRules::ReasonProxyAuthentication;
using SelectionRules::ReasonReconnection;

/// The reason code of a name ("reconnection") or of a digit from 0 to 5.
std::optional<unsigned int> parseReason(const std::string& text);

/// The name of a reason code, as `parseReason` takes it; "unknown" for any other number.
std::string reasonName(unsigned int reason);

/// All names of reasons.
std::vector<std::string> reasonNames();
