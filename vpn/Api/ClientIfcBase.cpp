// The client's callback interface. It holds nothing; its table of virtual functions is emitted
// here.

#include "vpn/Api/ClientIfcBase.h"

ClientIfcBase::~ClientIfcBase() = default;
