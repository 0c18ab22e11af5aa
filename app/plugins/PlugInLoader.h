// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sealscope {

/// What plug-ins are wanted for.
enum class PlugInPurpose : std::uint8_t {
    everything,
    packets,  ///< those that say they have nothing for single packets stay unloaded
};

/// A plug-in that was loaded; it stays for the life of the process.
struct LoadedPlugIn {
    std::filesystem::path bundle;
    const VELPrincipalClass* principalClass = nullptr;
    VELPluginPrincipalClassProtocol* principal = nullptr;
};

/// A bundle, or a folder of bundles, that cannot be used, and why.
struct PlugInProblem {
    enum class Kind : std::uint8_t {
        cannotBeSearched,  ///< the folder; `detail` is the system's reason
        holdsNothing,      ///< nor was another folder named
        leftOut,           ///< since the program has more rights than its user
        otherVersion,      ///< of the contract: `version`
        moduleIsOutside,   ///< `detail` is its name, also of the next
        hasNoModule,
        doesNotLoad,  ///< `detail` is the dynamic linker's reason
        hasNoEntry,
        hasNoPrincipalClass,
        gaveNoObject,
        failed,          ///< while its principal object was created: `detail`
        failedSilently,  ///< the same, without a reason
    };
    std::filesystem::path bundle;
    Kind kind = Kind::cannotBeSearched;
    std::string detail = {};
    std::int64_t version = 0;

    /// Lower case, without the bundle's path.
    std::string reason() const;
    /// "/home/me/plugins/Mail.bundle: is built for version 7 of the plug-in contract, this program has version 1"
    std::string text() const;
    bool operator==(const PlugInProblem&) const = default;
};

struct PlugInLoading {
    std::vector<LoadedPlugIn> loaded;  ///< in the order of loading
    std::vector<PlugInProblem> problems;
};

/// Finds and loads bundles, and creates their principal classes, which register with the host's plug-in manager. It runs on
/// the main thread. One bundle that cannot be used takes nothing from the others.
struct PlugInLoader {
    PlugInLoader() = delete;

    /// Where bundles come from, most wanted first: the named folders, those of `SEALSCOPE_PLUGIN_PATH` (joined with ":"),
    /// then the folder that belongs to the program. Of several bundles with one
    /// identifier the first that loads is used. A named folder may be a bundle itself.
    static PlugInLoading load(const std::vector<std::filesystem::path>& named, PlugInPurpose purpose = PlugInPurpose::everything);

    /// Everything that was loaded so far.
    static const std::vector<LoadedPlugIn>& loaded();

    /// The folder that belongs to the running program; it need not exist.
    static std::filesystem::path ownFolder();
};

}  // namespace sealscope
