// The core of the module, for its tests: the contexts and the default MDT.
#ifndef MVPN_CORE_H
#define MVPN_CORE_H

#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"

#endif  // MVPN_CORE_H
