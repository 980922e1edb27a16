#include "language/language.h"

#include <QFile>

#include "config/field_reader.h"
#include "log/logs.h"
#include "log/dates.h"
#include "platform/desktop.h"
#include "platform/program_folder.h"

namespace postiq {

namespace {

void checkWordNumber(int number)
{
    if (number < 1 || number > LanguageTable::kSharedWordCount)
        throw Fault(ErrOutOfRange, QStringLiteral("Subscript out of range: shared word %1").arg(number));
}

constexpr char kTextsSection[] = "TEXTS";

// A user who chose a language must learn why the windows stay in French.
void reportMissingFile(Logs& logs, const QString& name)
{
    const QString file = name + QStringLiteral(".ini");
    const QString line = QStringLiteral("Postiq: no language file %1 (looked in %2): the windows stay in French")
                             .arg(file, LanguageFolders(logs.folder()).join(QStringLiteral(", ")));
    logs.ErrorLog(GMTDate(logs.clock()) + ' ' + line.toUtf8());
    logs.desktop().notice(QStringLiteral("Postiq"), line);
}

} // namespace

LanguageTable::LanguageTable() { resetSharedWords(); }

QString LanguageTable::builtInSharedWord(int number)
{
    checkWordNumber(number);
    static const char* const kBuiltIn[kSharedWordCount] = {
        "Outrepasser la valeur par défaut", "Défaut", "Oui", "Non"};
    return QString::fromUtf8(kBuiltIn[number - 1]);
}

QString LanguageTable::sharedWord(int number) const
{
    checkWordNumber(number);
    return sharedWords_[size_t(number - 1)];
}

void LanguageTable::setSharedWord(int number, const QString& text)
{
    checkWordNumber(number);
    sharedWords_[size_t(number - 1)] = text;
}

void LanguageTable::resetSharedWords()
{
    for (int number = 1; number <= kSharedWordCount; ++number)
        sharedWords_[size_t(number - 1)] = builtInSharedWord(number);
}

void LanguageTable::LOADFile(Logs& logs, const QString& name)
{
    logs.guarded("MOD:LANGUAGE[LOADFile]", [&] {
        rows_.clear();
        resetSharedWords();

        // The program folder's own file first (its folder found whatever its letter case, as
        // start-up accepts it), then the one installed with the program.
        QFile file;
        for (const QString& folder : LanguageFolders(logs.folder())) {
            file.setFileName(folder + u'/' + name + QStringLiteral(".ini"));
            if (file.exists())
                break;
        }
        if (!file.exists()) {
            if (name != QLatin1String(kBuiltInLanguage))
                reportMissingFile(logs, name);
            return;
        }
        if (!file.open(QIODevice::ReadOnly))
            throw Fault(ErrFileAccess,
                        QStringLiteral("Cannot read %1: %2").arg(file.fileName(), file.errorString()));
        const QByteArray bytes = file.readAll();
        file.close();

        readEntries(bytes);
        logs.MailLog(GMTDate(logs.clock()) + " Postiq: Chargement du langage");
    });
}

QString LanguageTable::text(const QString& name, const QString& french) const
{
    const QString key = QStringLiteral("TXT_") + name;
    for (const Row& row : rows_) {
        if (row.section == QLatin1String(kTextsSection) && row.key == key)
            return row.value;
    }
    return french;
}

void LanguageTable::readEntries(const QByteArray& bytes)
{
    bool inSection = false;
    QString section;

    FieldReader reader(bytes);
    while (!reader.atEnd()) {
        const QString item = reader.next().trimmed().replace(u'\t', u' ');

        if (item.startsWith(QLatin1String("</")) && item.endsWith(u'>')) {
            inSection = false;
            section.clear();
        } else if (item.startsWith(u'<') && item.endsWith(u'>')) {
            section = QString(item).remove(u'<').remove(u'>');
            inSection = true;
        } else if (inSection && item.count(u'=') == 1) {
            const qsizetype equals = item.indexOf(u'=');
            rows_.append({section, item.left(equals).trimmed(),
                          item.mid(equals + 1).remove(u'"').trimmed()});
        }
    }
}

} // namespace postiq
