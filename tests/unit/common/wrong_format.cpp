// Must not compile: arguments that do not fit the format.

#include "vpn/Common/Logging/AppLog.h"

void logWrongly() {
  CAppLog::LogDebugMessage("f", "s", 1, Logging::DBG_Info, "%s", 5);
  CAppLog::LogVerboseMessage("f", "s", 1, Logging::DBG_Info, CLC_VPN_API, CUST_LOG_LEVEL_3, "%d",
                             "text");
}
