#pragma once

#include <memory>
#include <string>

#include "vpn/Api/ProxyIfc.h"

/// Has the name and the parameters of a function inside the library.
long worthOfProbe(long value);

std::string numberOf(const std::string& word);

std::unique_ptr<ProxyIfc> providerOfAnotherObject();
