// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELDependencies/VELPlugInStructure.h"
#include "platform/Bundle.h"

#include <mutex>
#include <vector>

namespace sealscope SEALSCOPE_API {

/// The host's plug-in manager. Any thread may read it; plug-ins register on the main thread.
class VELPlugInsController {
public:
    static VELPlugInsController& sharedManager();

    /// Registers a plug-in, or replaces what the same bundle and principal class registered before. Lists what it has to
    /// interpret streams with in `VELStreamInterpreterRegistry`: its analyzer class first, where that does. False when the
    /// description offers nothing: no analyzer, no interpreter and no format.
    bool registerVELPlugIn(VELPlugInStructure plugIn, const Bundle& forBundle);
    /// Takes a description out again by its id, and its interpreters out of their list.
    void unregisterVELPlugIn(const UUID& id);

    struct Registration {
        VELPlugInStructure plugIn;
        const Bundle* bundle = nullptr;
    };
    /// What is registered at this moment, in order of registration.
    std::vector<Registration> plugIns() const;
    /// The formats of all of them, in the same order.
    std::vector<const StreamExportFormat*> exportFormats() const;

    VELPlugInsController(const VELPlugInsController&) = delete;
    VELPlugInsController& operator=(const VELPlugInsController&) = delete;

private:
    VELPlugInsController() = default;
    mutable std::mutex mutex_;
    std::vector<Registration> plugIns_;
};

}  // namespace sealscope SEALSCOPE_API
