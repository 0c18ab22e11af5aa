// SPDX-License-Identifier: Apache-2.0
#include "host/VELDependencies/VELPlugInBundle.h"
#include "interpreters/TLSReach/ReachPlugIn.h"

extern "C" constinit const sealscope::VELBundleEntry sealscope::velBundleEntry{
    .contractVersion = velContractVersion,
    .principalClass = &principalClassOf<ReachPlugIn>,
};
