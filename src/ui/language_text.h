#pragma once

#include <QString>

namespace postiq {

class LanguageTable;

// Section of the queue window's captions in a language file.
inline constexpr char kQueueSection[] = "QUEUE";

// A text the program composes while it runs (a column title, a notice, a question): the entry
// "TXT_" + `name` of the section TEXTS in the loaded language, else the built-in French.
QString LanguageText(const LanguageTable& language, const char* name, const QString& french);

} // namespace postiq
