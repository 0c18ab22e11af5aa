// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "host/VELModels/VELExporting.h"

namespace sealscope {

/// The format "pem": every certificate chain that a capture shows, in the clear or opened, with stream number, server name and
/// subject as comments; a chain that a stream shows twice stands there once.
const StreamExportFormat& pemFormat();

}  // namespace sealscope
