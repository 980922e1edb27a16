#include "ui/language_text.h"

#include "language/language.h"

namespace postiq {

QString LanguageText(const LanguageTable& language, const char* section, const char* name, const QString& french)
{
    const QString key = QStringLiteral("TXT_") + QLatin1String(name);
    // The last entry wins, as everywhere in a language file.
    QString text = french;
    for (const LanguageTable::Row& row : language.rows()) {
        if (row.section == QLatin1String(section) && row.key == key)
            text = row.value;
    }
    return text;
}

} // namespace postiq
