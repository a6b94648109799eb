#pragma once

#include <map>
#include <string>

#include "vpn/Api/Preference.h"

/// Turns a proxy that a caller names into preferences.
/// @param text "host" or "host:port", an IPv6 address in brackets, "http://" before it or not.
/// @param preferences receives ProxySettings, ProxyHost and ProxyPort; left alone on failure.
/// @return an empty text, or what is wrong and how to mend it, in sentences.
std::string takeProxyChoice(const std::string& text,
                            std::map<PreferenceId, std::string>& preferences);
