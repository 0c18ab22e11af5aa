// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSPlugInController.h"
#include "host/VELDependencies/VELPlugInBundle.h"

extern "C" constinit const sealscope::VELBundleEntry sealscope::velBundleEntry{
    .contractVersion = velContractVersion,
    .principalClass = &principalClassOf<TLSPlugInController>,
};
