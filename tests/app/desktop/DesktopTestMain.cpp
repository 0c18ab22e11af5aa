// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/Job.h"

#include <QApplication>

#include <gtest/gtest.h>

int main(int argumentCount, char** arguments)
{
    testing::InitGoogleTest(&argumentCount, arguments);
    QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QApplication application(argumentCount, arguments);
    const int status = RUN_ALL_TESTS();
    sealscope::desktop::Job::waitForAll();
    return status;
}
