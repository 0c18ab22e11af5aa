// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/HTTPPlugInController.h"

#include "host/VELDependencies/VELPlugInBundle.h"
#include "host/VELModels/VELPlugInsController.h"
#include "interpreters/HTTP/CurlExporter.h"
#include "interpreters/HTTP/HARExporter.h"
#include "interpreters/HTTP/HTTP1Interpreter.h"
#include "interpreters/HTTP/HTTP2Interpreter.h"
#include "interpreters/HTTP/WebSocketInterpreter.h"

namespace sealscope {

namespace {

std::string localized(std::string_view key) { return std::string(plugInBundle().localizedString(key, "LocalizableHTTP")); }

}  // namespace

constinit const VELPrincipalClass& HTTPPlugInController::principalClass = principalClassOf<HTTPPlugInController>;

std::optional<std::string> HTTPPlugInController::pluginTitle() { return localized("HTTP"); }

std::optional<std::string> HTTPPlugInController::pluginDescription()
{
    return localized("Web requests and replies: HTTP/2, HTTP/1 and WebSocket");
}

std::optional<std::string> HTTPPlugInController::pluginVersion() { return plugInBundleVersion(); }

std::optional<std::string> HTTPPlugInController::pluginAuthor() { return localized("The Sealscope developers"); }

HTTPPlugInController::HTTPPlugInController()
{
    VELPlugInStructure structure{
        .id = UUID::random(),
        .plugInTitle = *pluginTitle(),
        .plugInDescription = *pluginDescription(),
        .plugInVersion = *pluginVersion(),
        .plugInAuthor = *pluginAuthor(),
        .plugInPrincipalClass = &principalClass,
    };
    structure.plugInStreamInterpreters = {VELStreamInterpreting::type<HTTP2Interpreter>(), VELStreamInterpreting::type<HTTP1Interpreter>(),
                                          VELStreamInterpreting::type<WebSocketInterpreter>()};
    structure.plugInExportFormats = {&HARExporter::format, &CurlExporter::format};
    structure.plugInTargetProtocols = {{.id = UUID::random(), .protocolName = "HTTP"}};
    VELPlugInsController::sharedManager().registerVELPlugIn(std::move(structure), plugInBundle());
}

}  // namespace sealscope
