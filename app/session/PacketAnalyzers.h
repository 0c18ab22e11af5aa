// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/session/ColumnPredicate.h"
#include "host/VELDependencies/VELPluginAnalyzerProtocol.h"
#include "platform/Color.h"
#include "platform/Data.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sealscope {

/// One registered plug-in, as the packet list asks it.
struct PacketPlugIn {
    const VELAnalyzerClass* analyzerClass = nullptr;
    std::vector<std::string> keys;  ///< of its columns, then of its attributes, as declared and each once
    struct Column {
        std::string title;
        std::string key;
        std::size_t position = 0;  ///< among the columns of all plug-ins
        std::string filterTitle;   ///< what its filter is called; empty when it has none
        std::optional<ColumnPredicate> filter;
    };
    std::vector<Column> columns;
    std::optional<Color> color;  ///< that the settings give its rows
};

/// An analyzer that accepted a payload, and whose it is; neither when none did.
struct PacketMatch {
    const PacketPlugIn* plugIn = nullptr;
    std::unique_ptr<VELPluginAnalyzerProtocol> analyzer;
    explicit operator bool() const { return analyzer != nullptr; }
};

/// The analyzers of the plug-ins that are registered when it is made. Any thread may ask it.
class PacketAnalyzers {
public:
    PacketAnalyzers();
    /// The first registered analyzer that accepts a payload.
    PacketMatch match(DataView payload) const;
    const std::vector<PacketPlugIn>& plugIns() const { return plugIns_; }
    /// Titles of the columns that the plug-ins add to the packet list.
    std::vector<std::string> columnTitles() const;

private:
    std::vector<PacketPlugIn> plugIns_;
};

}  // namespace sealscope
