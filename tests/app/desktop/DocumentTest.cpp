// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Document.h"

#include "tests/app/desktop/DesktopTest.h"

#include <gtest/gtest.h>

namespace sealscope::desktop {

namespace {

using DocumentTest = DesktopTest;

TEST_F(DocumentTest, OpensACapture)
{
    Document document;
    ASSERT_TRUE(opens(document, {sourceFile("examples/tls12.pcap")}, {sourceFile("examples/tls12.keylog")}));
    EXPECT_GT(document.session()->streamCount(), 0);
}

}  // namespace

}  // namespace sealscope::desktop
