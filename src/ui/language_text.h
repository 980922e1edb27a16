#pragma once

#include <QString>

namespace postiq {

class LanguageTable;

// Section of the queue window in a language file.
inline constexpr char kQueueSection[] = "QUEUE";

// A text that is no control's caption (a column title, a notice, a question): the entry "TXT_" +
// `name` of the section in the loaded language, else the built-in French. Relabelling a form
// passes these rows by, as they name no control.
QString LanguageText(const LanguageTable& language, const char* section, const char* name, const QString& french);

} // namespace postiq
