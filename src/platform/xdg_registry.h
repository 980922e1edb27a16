#pragma once

#include <QList>
#include <QPair>
#include <QString>

#include "platform/registry.h"

namespace postiq {

// The registry kept in the user's XDG configuration folder ($XDG_CONFIG_HOME, else ~/.config):
// values live in postiq/registry.ini, one "[key path]" group per key with "Name=Value" lines (an
// empty group is a key without values). Key paths and value names compare without regard to
// letter case, as registry paths do. The Run key's "Postiq" value is the session autostart file
// autostart/postiq.desktop: the value is the entry's command line (Exec), arguments quoted.
// Every operation reads the file afresh; a write replaces it whole. A file that cannot be written
// throws std::runtime_error.
class XdgRegistry : public Registry {
public:
    // An empty configHome means the environment's, read now.
    explicit XdgRegistry(const QString& configHome = QString());

    QString readValue(const QString& key, const QString& name) override;
    void writeValue(const QString& key, const QString& name, const QString& value) override;
    void createKey(const QString& key) override;
    void deleteValue(const QString& key, const QString& name) override;
    void deleteKey(const QString& key) override;
    bool valueExists(const QString& key, const QString& name) override;

    QString registryFile() const { return configHome_ + QStringLiteral("/postiq/registry.ini"); }
    QString autostartFile() const { return configHome_ + QStringLiteral("/autostart/postiq.desktop"); }

private:
    struct Key {
        QString path;
        QList<QPair<QString, QString>> values; // name, value in the order written
    };

    QList<Key> load() const;
    void save(const QList<Key>& keys) const;
    static Key* find(QList<Key>& keys, const QString& path);
    // Throws for a path that cannot be a key.
    static Key& findOrAdd(QList<Key>& keys, const QString& path);

    QString configHome_;
};

// One argument of an Exec command line, in double quotes with its specials escaped when it needs
// them (and "%" doubled), as desktop entries require.
QString ExecArgument(const QString& argument);
// The Exec value for a command line whose arguments are already quoted (ExecArgument), with the
// string escapes of desktop entries; ExecCommand reads it back to the same command line.
QString ExecLine(const QString& command);
QString ExecCommand(const QString& execLine);

} // namespace postiq
