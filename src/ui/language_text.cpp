#include "ui/language_text.h"

#include "language/language.h"

namespace postiq {

QString LanguageText(const LanguageTable& language, const char* name, const QString& french)
{
    const QString key = QStringLiteral("TXT_") + QLatin1String(name);
    for (const LanguageTable::Row& row : language.rows()) {
        if (row.section == QLatin1String("TEXTS") && row.key == key)
            return row.value;
    }
    return french;
}

} // namespace postiq
