// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/texts/SentenceReader.h"

#include <QTranslator>

namespace sealscope::desktop {

/// Gives the window's texts from the application's string tables, as all other texts come from there: table "Desktop", under the
/// English text. A text about a number has an entry of its own for one, under the text with "|one" behind it.
class StringTableTranslator final : public QTranslator {
    Q_OBJECT
public:
    using QTranslator::QTranslator;
    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* sourceText, const char* disambiguation, int number) const override;
};

/// Who reads in the window: its languages stand in table "Sentences", under the English patterns.
SentenceReader windowReader();

}  // namespace sealscope::desktop
