#include "platform/xdg_registry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <algorithm>
#include <stdexcept>

namespace postiq {

namespace {

const QString kRunValue = QStringLiteral("Postiq");

bool sameKey(const QString& a, const QString& b) { return a.compare(b, Qt::CaseInsensitive) == 0; }

bool isRunEntry(const QString& key, const QString& name)
{
    return sameKey(key, QLatin1String(kRunKey)) && sameKey(name, kRunValue);
}

// True when deleting `key` takes the Run key with it.
bool coversRunKey(const QString& key)
{
    const QString run = QString::fromLatin1(kRunKey);
    return sameKey(key, run) || run.startsWith(key + u'\\', Qt::CaseInsensitive);
}

[[noreturn]] void fail(const QString& what) { throw std::runtime_error(what.toStdString()); }

QString readText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

void writeText(const QString& path, const QString& text)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        fail(QStringLiteral("Cannot create the folder of %1").arg(path));
    QSaveFile file(path);
    const QByteArray bytes = text.toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        fail(QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()));
}

QStringList linesOf(const QString& text)
{
    QStringList lines = text.split(u'\n');
    for (QString& line : lines) {
        if (line.endsWith(u'\r'))
            line.chop(1);
    }
    return lines;
}

// A backslash escapes itself, line breaks and every character of `extra`; after it a tab is
// written "t" and any other character stands for itself.
QString backslashEscaped(const QString& text, QStringView extra)
{
    QString out;
    for (const QChar c : text) {
        if (c == u'\\' || c == u'\n' || c == u'\r' || extra.contains(c)) {
            out += u'\\';
            out += c == u'\n' ? QChar(u'n') : c == u'\r' ? QChar(u'r') : c == u'\t' ? QChar(u't') : c;
        } else {
            out += c;
        }
    }
    return out;
}

using NamedValues = QList<QPair<QString, QString>>;

QPair<QString, QString>* findValue(NamedValues& values, const QString& name)
{
    const auto it = std::find_if(values.begin(), values.end(),
                                 [&](const auto& v) { return sameKey(v.first, name); });
    return it == values.end() ? nullptr : &*it;
}

void setValue(NamedValues& values, const QString& name, const QString& value)
{
    if (auto* existing = findValue(values, name))
        existing->second = value;
    else
        values.append({name, value});
}

// Splits "Name=Value" at the first unescaped "=" and undoes the escapes of both sides.
bool splitIniEntry(const QString& line, QString* name, QString* value)
{
    QString sides[2]; // name, value
    int side = 0;
    for (qsizetype i = 0; i < line.size(); ++i) {
        const QChar c = line[i];
        if (c == u'\\' && i + 1 < line.size()) {
            const QChar e = line[++i];
            sides[side] += e == u'n' ? QChar(u'\n') : e == u'r' ? QChar(u'\r') : e;
        } else if (c == u'=' && side == 0) {
            side = 1;
        } else {
            sides[side] += c;
        }
    }
    if (side == 0)
        return false;
    *name = sides[0];
    *value = sides[1];
    return true;
}

// Desktop-entry string values escape backslashes and control characters.
QString escapeDesktopString(const QString& text) { return backslashEscaped(text, u"\t"); }

QString unescapeDesktopString(const QString& text)
{
    QString out;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] != u'\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const QChar e = text[++i];
        if (e == u's')
            out += u' ';
        else if (e == u'n')
            out += u'\n';
        else if (e == u't')
            out += u'\t';
        else if (e == u'r')
            out += u'\r';
        else if (e == u'\\')
            out += u'\\';
        else
            out += QStringLiteral("\\") + e; // not a string escape: left for the Exec quoting
    }
    return out;
}

// Characters that force an Exec argument into double quotes.
bool needsQuoting(const QString& argument)
{
    static const QString kReserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    for (const QChar c : argument) {
        if (kReserved.contains(c))
            return true;
    }
    return argument.isEmpty();
}

// The value of the Exec key of the file's [Desktop Entry] group, escapes undone.
QString execValue(const QString& desktopFile)
{
    bool inEntryGroup = false;
    for (const QString& line : linesOf(desktopFile)) {
        if (line.startsWith(u'[')) {
            inEntryGroup = line.trimmed() == QLatin1String("[Desktop Entry]");
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (inEntryGroup && equals > 0 && line.left(equals).trimmed() == QLatin1String("Exec"))
            return line.mid(equals + 1).trimmed();
    }
    return {};
}

} // namespace

QString ExecArgument(const QString& argument)
{
    const QString text = QString(argument).replace(u'%', QLatin1String("%%"));
    if (!needsQuoting(text))
        return text;
    QString quoted = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            quoted += u'\\';
        quoted += c;
    }
    return quoted + u'"';
}

QString ExecLine(const QString& command) { return escapeDesktopString(command); }

QString ExecCommand(const QString& execLine) { return unescapeDesktopString(execLine); }

XdgRegistry::XdgRegistry(const QString& configHome) : configHome_(configHome)
{
    if (configHome_.isEmpty()) {
        // A relative XDG_CONFIG_HOME is not a valid setting and is ignored.
        const QString fromEnvironment = qEnvironmentVariable("XDG_CONFIG_HOME");
        configHome_ = QDir::isAbsolutePath(fromEnvironment) ? fromEnvironment
                                                            : QDir::homePath() + QStringLiteral("/.config");
    }
}

QList<XdgRegistry::Key> XdgRegistry::load() const
{
    QList<Key> keys;
    QString current; // the group the lines belong to; lines before any group are ignored
    for (const QString& line : linesOf(readText(registryFile()))) {
        if (line.startsWith(u'[') && line.endsWith(u']')) {
            current = line.mid(1, line.size() - 2);
            if (!find(keys, current))
                keys.append({current, {}});
            continue;
        }
        QString name, value;
        if (!current.isEmpty() && splitIniEntry(line, &name, &value))
            setValue(find(keys, current)->values, name, value);
    }
    return keys;
}

void XdgRegistry::save(const QList<Key>& keys) const
{
    QString text;
    for (const Key& key : keys) {
        if (!text.isEmpty())
            text += u'\n';
        text += u'[' + key.path + QLatin1String("]\n");
        // "=" is escaped in names so that the first unescaped one separates name and value.
        for (const auto& [name, value] : key.values)
            text += backslashEscaped(name, u"=") + u'=' + backslashEscaped(value, {}) + u'\n';
    }
    writeText(registryFile(), text);
}

XdgRegistry::Key* XdgRegistry::find(QList<Key>& keys, const QString& path)
{
    for (Key& key : keys) {
        if (sameKey(key.path, path))
            return &key;
    }
    return nullptr;
}

XdgRegistry::Key& XdgRegistry::findOrAdd(QList<Key>& keys, const QString& path)
{
    // A line break would split the group header in the file.
    if (path.contains(u'\n') || path.contains(u'\r') || path.isEmpty())
        fail(QStringLiteral("Invalid registry key '%1'").arg(path));
    if (Key* found = find(keys, path))
        return *found;
    keys.append({path, {}});
    return keys.last();
}

QString XdgRegistry::readValue(const QString& key, const QString& name)
{
    if (isRunEntry(key, name))
        return ExecCommand(execValue(readText(autostartFile())));
    QList<Key> keys = load();
    Key* found = find(keys, key);
    const auto* value = found ? findValue(found->values, name) : nullptr;
    return value ? value->second : QString();
}

void XdgRegistry::writeValue(const QString& key, const QString& name, const QString& value)
{
    if (isRunEntry(key, name)) {
        writeText(autostartFile(), QStringLiteral("[Desktop Entry]\nType=Application\nName=Postiq\n"
                                                  "Exec=%1\n")
                                       .arg(ExecLine(value)));
        return;
    }
    QList<Key> keys = load();
    setValue(findOrAdd(keys, key).values, name, value);
    save(keys);
}

void XdgRegistry::createKey(const QString& key)
{
    QList<Key> keys = load();
    const qsizetype before = keys.size();
    findOrAdd(keys, key);
    if (keys.size() != before)
        save(keys);
}

void XdgRegistry::deleteValue(const QString& key, const QString& name)
{
    if (isRunEntry(key, name)) {
        if (QFile::exists(autostartFile()) && !QFile::remove(autostartFile()))
            fail(QStringLiteral("Cannot remove %1").arg(autostartFile()));
        return;
    }
    QList<Key> keys = load();
    Key* found = find(keys, key);
    if (!found)
        return;
    const auto removed = found->values.removeIf([&](const auto& v) { return sameKey(v.first, name); });
    if (removed > 0)
        save(keys);
}

void XdgRegistry::deleteKey(const QString& key)
{
    if (coversRunKey(key))
        deleteValue(QString::fromLatin1(kRunKey), kRunValue);
    QList<Key> keys = load();
    const auto removed = keys.removeIf([&](const Key& k) {
        return sameKey(k.path, key) || k.path.startsWith(key + u'\\', Qt::CaseInsensitive);
    });
    if (removed > 0)
        save(keys);
}

bool XdgRegistry::valueExists(const QString& key, const QString& name)
{
    if (isRunEntry(key, name))
        return QFile::exists(autostartFile());
    QList<Key> keys = load();
    Key* found = find(keys, key);
    return found && findValue(found->values, name);
}

} // namespace postiq
