// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELExporting.h"

namespace sealscope {

/// Writes requests as commands for a shell that send them again, one after the other. What a peer sent is quoted, and never run.
class CurlExporter final : public StreamExporter {
public:
    static const StreamExportFormat format;

    void begin(const Write&) override {}
    void add(const ExportedStream& stream, const Write& write) override;
    void end(const Write&) override {}
};

}  // namespace sealscope
