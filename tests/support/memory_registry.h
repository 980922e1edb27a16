#pragma once

#include <QMap>
#include <QSet>

#include "platform/registry.h"

namespace postiq::test {

// The registry in memory, with a count of writes so that tests can see redundant ones.
class MemoryRegistry : public Registry {
public:
    QMap<QString, QMap<QString, QString>> keys;
    int writes = 0;

    QString readValue(const QString& key, const QString& name) override { return keys.value(key).value(name); }
    void writeValue(const QString& key, const QString& name, const QString& value) override
    {
        keys[key][name] = value;
        ++writes;
    }
    void createKey(const QString& key) override { keys[key]; }
    void deleteValue(const QString& key, const QString& name) override
    {
        if (keys.contains(key))
            keys[key].remove(name);
    }
    void deleteKey(const QString& key) override
    {
        for (auto it = keys.begin(); it != keys.end();) {
            if (it.key() == key || it.key().startsWith(key + '\\'))
                it = keys.erase(it);
            else
                ++it;
        }
    }
    bool valueExists(const QString& key, const QString& name) override
    {
        return keys.contains(key) && keys[key].contains(name);
    }
};

} // namespace postiq::test
