// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "harness/TempDirectory.h"

#include <QString>

namespace sealscope::desktop {

/// A capture of a day's browsing, made up: of its streams 0 decrypts and has pages, JSON and an image; 1 lacks its secrets; 2 is in the
/// clear, with text that would like to be obeyed; 3 begins in the middle; 4 is of a protocol that nobody knows.
struct Browsing {
    explicit Browsing(const TempDirectory& directory);

    QString capture;
    QString keyLog;       ///< with the secrets of stream 0
    QString otherKeyLog;  ///< with those of stream 1
};

/// A capture of one stream in the clear in which a client asks as often for the same small thing.
QString manyRequests(const TempDirectory& directory, int count);

}  // namespace sealscope::desktop
