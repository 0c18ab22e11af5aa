// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/capture/Capture.h"
#include "app/capture/CaptureWriter.h"
#include "platform/OutputFile.h"

#include <stop_token>

namespace sealscope {

/// Writes a capture again with other secrets inside. False when it was to stop before its end; how writing went the file tells.
bool copyCapture(const Capture& capture, const CaptureChanges& changes, OutputFile& file, const std::stop_token& stop);

}  // namespace sealscope
