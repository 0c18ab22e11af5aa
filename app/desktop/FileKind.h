// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QStringList>

namespace sealscope::desktop {

struct FilesByKind {
    QStringList captures;
    QStringList keyLogs;
};

/// Tells key logs from captures by how they begin: a key log is text, a capture of any format is not. What cannot be read
/// counts as a capture, since opening one says why.
FilesByKind filesByKind(const QStringList& files);

}  // namespace sealscope::desktop
