#pragma once

#include <QString>

class QWidget;

namespace postiq {

class LanguageTable;
class Logs;

// Section names of the forms in a language file.
inline constexpr char kMainSection[] = "MAIN";
inline constexpr char kConfigurationSection[] = "CONFIGURATION";

// Applies the loaded language to a form: the rows of its section relabel the controls named by
// their keys (Qt object names; the form itself answers to its own name), and the "CONSTANTS" rows
// replace the shared words after they were reset to French. A key that names no control, or a
// word number outside 1 to 4, is the fatal program-error report: a language file must match the
// forms.
void LOADValues(Logs& logs, LanguageTable& language, QWidget& form, const QString& section);

} // namespace postiq
