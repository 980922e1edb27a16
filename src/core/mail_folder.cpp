#include "core/mail_folder.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>


namespace postiq {

QString MailFolder(const QString& option, const QString& configuration)
{
    if (!option.isEmpty())
        return QDir(option).absolutePath();
    if (const QString chosen = qEnvironmentVariable("POSTIQ_FOLDER"); !chosen.isEmpty())
        return QDir(chosen).absolutePath();
    if (QFile file(configuration); file.open(QIODevice::ReadOnly)) {
        // A small file of "Key value" lines; "#" starts a comment.
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine(4096)).trimmed();
            if (line.startsWith(QLatin1String("Folder")) && line.size() > 6 && line.at(6).isSpace())
                if (const QString folder = line.mid(7).trimmed(); !folder.isEmpty())
                    return QDir(folder).absolutePath();
        }
    }
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/postiq");
}

} // namespace postiq
