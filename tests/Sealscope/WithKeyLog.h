// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TempDirectory.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELCommonTools/MergedKeylog.h"

#include <cstdlib>
#include <string_view>

namespace sealscope {

/// Keeps the key logs and settings of whoever runs the tests out of them: every place that they are looked for is in an empty
/// directory. Made before the first lookup of a process.
class NoKeyLogs {
public:
    NoKeyLogs()
    {
        setenv("XDG_CONFIG_HOME", directory_.file("config").c_str(), 1);
        setenv("XDG_DATA_HOME", directory_.file("data").c_str(), 1);
        unsetenv("SSLKEYLOGFILE");
    }
    const TempDirectory& directory() const { return directory_; }

private:
    TempDirectory directory_;
};

/// As long as it lives, these are all the secrets there are.
class WithKeyLog {
public:
    explicit WithKeyLog(std::string_view text)
    {
        static const NoKeyLogs noOthers;
        MergedKeylog::setEmbeddedSecrets(SecretText(text));
    }
    ~WithKeyLog() { MergedKeylog::setEmbeddedSecrets({}); }
    WithKeyLog(const WithKeyLog&) = delete;
    WithKeyLog& operator=(const WithKeyLog&) = delete;
};

}  // namespace sealscope
