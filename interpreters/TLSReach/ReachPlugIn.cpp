// SPDX-License-Identifier: Apache-2.0
#include "interpreters/TLSReach/ReachPlugIn.h"

#include "host/VELDependencies/VELPlugInBundle.h"
#include "host/VELDependencies/VELPlugInStructure.h"
#include "host/VELModels/StreamFacts.h"
#include "host/VELModels/VELPlugInsController.h"
#include "interpreters/TLSReach/PEMExporter.h"
#include "interpreters/TLSReach/ReachDescriber.h"
#include "interpreters/TLSReach/ReachProbe.h"
#include "interpreters/TLSReach/RecordAEAD.h"

namespace sealscope {

namespace {

std::string localized(std::string_view key) { return std::string(plugInBundle().localizedString(key, "LocalizableTLSReach")); }

}  // namespace

constinit const VELPrincipalClass& ReachPlugIn::principalClass = principalClassOf<ReachPlugIn>;

std::optional<std::string> ReachPlugIn::pluginTitle() { return localized("TLS Reach"); }

std::optional<std::string> ReachPlugIn::pluginDescription() { return localized("Decryption beyond lost bytes, old suites and key updates"); }

std::optional<std::string> ReachPlugIn::pluginVersion() { return plugInBundleVersion(); }

std::optional<std::string> ReachPlugIn::pluginAuthor() { return localized("The Sealscope developers"); }

ReachPlugIn::ReachPlugIn()
{
    RecordAEAD::prepare();
    VELPlugInsController::sharedManager().registerVELPlugIn({.id = UUID::random(),
                                                             .plugInTitle = *pluginTitle(),
                                                             .plugInDescription = *pluginDescription(),
                                                             .plugInVersion = *pluginVersion(),
                                                             .plugInAuthor = *pluginAuthor(),
                                                             .plugInPrincipalClass = &principalClass,
                                                             .plugInExportFormats = {&pemFormat()}},
                                                            plugInBundle());
    TLSDecryptionProbeRegistry::shared().registerProbe(std::make_shared<const ReachProbe>());
    StreamDescriberRegistry::shared().add(std::make_shared<const ReachDescriber>());
}

}  // namespace sealscope
