#pragma once

#include <QString>

namespace postiq {

// A small hierarchical store of text values under the user's configuration, standing in for the
// local-machine registry. Keys are backslash paths such as "Software\Groupe Valbrin\Postiq".
// A missing key or value reads as empty text. The Run key's "Postiq" value is the desktop
// session's autostart entry.
class Registry {
public:
    virtual ~Registry() = default;
    virtual QString readValue(const QString& key, const QString& name) = 0;
    virtual void writeValue(const QString& key, const QString& name, const QString& value) = 0;
    virtual void createKey(const QString& key) = 0;
    virtual void deleteValue(const QString& key, const QString& name) = 0;
    virtual void deleteKey(const QString& key) = 0;
    virtual bool valueExists(const QString& key, const QString& name) = 0;
};

inline constexpr char kRunKey[] = "Software\\Microsoft\\Windows\\CurrentVersion\\Run";

} // namespace postiq
