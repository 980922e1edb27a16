#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <functional>

namespace postiq {

class Logs;
class Settings;

// A password typed in the dialog goes into the desktop keyring under `key`, or, where no keyring
// answers, alone on the first line of `fileName` in the program folder, readable by its owner
// only. `stored` says later which of the two took it (never once `context` is gone). A file that
// cannot be written is the fatal report of the dialog's "Ecrire", as Postiq.ini is.
void StorePassword(Settings& settings, Logs& logs, const QString& key, const QString& fileName,
                   const QByteArray& password, QObject* context, std::function<void(bool inKeyring)> stored);

// The same file alone, written at once.
void WritePasswordFile(Logs& logs, const QString& fileName, const QByteArray& password);

} // namespace postiq
