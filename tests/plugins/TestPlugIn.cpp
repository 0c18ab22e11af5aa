// SPDX-License-Identifier: Apache-2.0
//
// One plug-in that each bundle of the loader's test is built from; SEALSCOPE_TEST_BEHAVIOR says what is wrong with it.
#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"
#include "host/VELModels/VELPlugInsController.h"
#include "host/VELModels/VELStreamInterpreting.h"

#include <stdexcept>

namespace sealscope {

namespace {

enum Behavior {
    TestFine,
    TestThrowing,
    TestThrowingNumber,
    TestGivingNothing,
    TestOfOtherVersion,
    TestWithoutPrincipalClass,
    TestFailingStreams
};
constexpr Behavior behavior = SEALSCOPE_TEST_BEHAVIOR;

struct Probe : TLSStreamDecryptionProbing {
    TLSDecryptionOutcome probe(const TCPStream&) const override { return TLSDecryptionOutcome::decrypted(); }
};

struct Interpreter {
    static constexpr std::string_view streamDisplayName = "Test";
    static bool canInterpret(const TCPStream& stream)
    {
        return behavior == TestFailingStreams && stream.clientToServerData.slice(0, 5) == Data::fromText("plain");
    }
    static StreamInterpretation interpret(const TCPStream&)
    {
        if (behavior == TestFailingStreams) throw std::runtime_error("the moon is full");
        return {};
    }
};

struct SecondInterpreter : Interpreter {
    static constexpr std::string_view streamDisplayName = "Test, on its own";
};

const VELAnalyzerClass analyzerClass{
    .name = "TestAnalyzer",
    .create = [](DataView, const std::any&) { return std::unique_ptr<VELPluginAnalyzerProtocol>(); },
    .streamInterpreter = VELStreamInterpreting::type<Interpreter>(),
};

extern const VELPrincipalClass principalClass;

struct Principal : VELPluginPrincipalClassProtocol {
    Principal()
    {
        VELPlugInStructure structure{.id = UUID::random(), .plugInTitle = "Test", .plugInAnalyzerClass = &analyzerClass};
        structure.plugInPrincipalClass = &principalClass;
        VELPlugInsController::sharedManager().registerVELPlugIn(std::move(structure), Bundle::containing(&analyzerClass));
        VELStreamInterpreterRegistry::shared().add(VELStreamInterpreting::type<SecondInterpreter>());
        TLSDecryptionProbeRegistry::shared().registerProbe(std::make_shared<const Probe>());
        if (behavior == TestThrowing) throw std::runtime_error("the moon is full");
        if (behavior == TestThrowingNumber) throw 7;
    }
};

const VELPrincipalClass principalClass{
    .name = "Principal",
    .create = []() -> std::unique_ptr<VELPluginPrincipalClassProtocol> {
        return behavior == TestGivingNothing ? nullptr : std::make_unique<Principal>();
    },
    .pluginTitle = [] { return std::optional<std::string>("Test"); },
};

}  // namespace

extern "C" const VELBundleEntry velBundleEntry{
    .contractVersion = behavior == TestOfOtherVersion ? velContractVersion + 41 : velContractVersion,
    .principalClass = behavior == TestWithoutPrincipalClass ? nullptr : &principalClass,
};

}  // namespace sealscope
