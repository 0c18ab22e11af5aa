// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/Messages.h"

#include "app/cli/Progress.h"
#include "app/texts/DisplayText.h"

#include <string>
#include <unistd.h>
#include <utility>

namespace sealscope::cli {

namespace {

bool remarksAreWanted = true;
bool isHolding = false;
std::string held;

void writeToStandardError(std::string_view text)
{
    // There is nobody to tell when it fails.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

void complain(std::string_view sentence)
{
    std::string line = "sealscope: " + displaySafe(sentence);
    // What the library says of a file that stays; what to do about it is an option here.
    if (sentence.ends_with(": exists already")) line += "; --force replaces it";
    line += '\n';
    if (isHolding) {
        held += line;
        return;
    }
    Progress::eraseLine();
    writeToStandardError(line);  // at one go, so that lines of several processes never mix
}

void holdMessages() { isHolding = true; }

void releaseMessages()
{
    isHolding = false;
    if (!held.empty()) writeToStandardError(std::exchange(held, {}));
}

void silenceRemarks() { remarksAreWanted = false; }

void remark(std::string_view sentence)
{
    if (remarksAreWanted) complain(sentence);
}

}  // namespace sealscope::cli
