// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/desktop/Document.h"

#include <QString>

#include <functional>
#include <gtest/gtest.h>

namespace sealscope::desktop {

/// Loads the plug-ins, and gives the program settings of its own. Needs the application.
void prepareForTests();

/// A test with plug-ins, and with settings of its own.
class DesktopTest : public testing::Test {
protected:
    static void SetUpTestSuite();
};

/// A file of the source tree, such as "examples/https.pcapng".
QString sourceFile(const char* path);

/// Lets the main thread go on until a condition holds; false when it does not come to hold in time.
bool waitUntil(const std::function<bool()>& holds, int milliseconds = 20'000);

/// Chooses a file in the file panel that comes next, as a user types its name; closes a panel that does not take it.
void answerFilePanel(const QString& file);

/// Opens captures and waits until all of them has been read.
testing::AssertionResult opens(Document& document, const QStringList& files, const QStringList& keyLogs = {});

}  // namespace sealscope::desktop
