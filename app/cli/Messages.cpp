// SPDX-License-Identifier: Apache-2.0
#include "app/cli/Messages.h"

#include "app/cli/DisplayText.h"
#include "app/cli/Progress.h"

#include <string>
#include <unistd.h>

namespace sealscope::cli {

namespace {

bool remarksAreWanted = true;

}  // namespace

void complain(std::string_view sentence)
{
    Progress::eraseLine();
    const std::string line = "sealscope: " + displaySafe(sentence) + '\n';
    // One write, so that lines of several processes never mix. There is nobody to tell when it fails.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

void setRemarks(bool wanted) { remarksAreWanted = wanted; }

void remark(std::string_view sentence)
{
    if (remarksAreWanted) complain(sentence);
}

}  // namespace sealscope::cli
