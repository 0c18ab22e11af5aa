// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/StringTableTranslator.h"

#include "platform/Bundle.h"

#include <string>

namespace sealscope::desktop {

namespace {

/// Null where the tables have no such entry.
QString entry(const std::string& key)
{
    const std::string_view text = Bundle::main().localizedString(key, "Desktop");
    return text == key ? QString() : QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

QString StringTableTranslator::translate(const char*, const char* sourceText, const char*, int number) const
{
    const std::string source(sourceText);
    QString text;
    if (number == 1) text = entry(source + "|one");
    return text.isNull() ? entry(source) : text;
}

SentenceReader windowReader()
{
    return {.place = SentenceReader::Place::window,
            .words = [](std::string_view english) { return Bundle::main().localizedString(english, "Sentences"); }};
}

}  // namespace sealscope::desktop
