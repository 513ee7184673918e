#pragma once

#include "posclient.h"
#include "serviceprocess.h"

// The usual start of a system test: the real service running in its own HOME, and one
// POS page connected to its gateway.
inline bool startAndConnect(ServiceProcess &service, PosClient &pos) {
    return service.start() && pos.open(ServiceProcess::gatewayPort);
}
