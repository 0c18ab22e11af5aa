// SPDX-License-Identifier: Apache-2.0
#include "app/export/CaptureCopy.h"

namespace sealscope {

bool copyCapture(const Capture& capture, const CaptureChanges& changes, OutputFile& file, const std::stop_token& stop)
{
    CaptureWriter writer([&](DataView bytes) {
        file.write(bytes);
        return file.isGood() && !stop.stop_requested();
    });
    writer.copy(capture, changes);
    return !stop.stop_requested();
}

}  // namespace sealscope
