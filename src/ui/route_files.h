#pragma once

#include <QObject>
#include <QString>

namespace postiq {

class Logs;
class RouteList;
class Settings;

// Writes Routes.ini from the page's list, whole or not at all, and then settles the passwords:
// a typed one is stored (keyring, else its 0600 file), a renamed route's goes with it, a removed
// route's file is deleted. The list is then marked written. When Routes.ini cannot be written,
// nothing else is touched and `error` says why. The keyring answers later, while `context` lives.
bool WriteRoutes(Settings& settings, Logs& logs, RouteList& list, QObject* context, QString* error);

} // namespace postiq
