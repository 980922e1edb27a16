#include "delivery/route_table.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QSet>

namespace postiq {

namespace {
constexpr int kMaxPatternLength = 1024; // an address is at most 256; this leaves room for stars

QByteArray bareAddress(QByteArray sender)
{
    sender = sender.trimmed();
    if (sender.startsWith('<') && sender.endsWith('>'))
        sender = sender.mid(1, sender.size() - 2);
    return sender.toLower();
}

struct Section {
    QString name;
    int line = 0;
    QHash<QString, QByteArray> fields; // lower-case key -> value
};
} // namespace

bool SenderPatternMatches(const QByteArray& pattern, const QByteArray& address)
{
    // The classic glob walk: on a mismatch, go back to just after the last star and let it eat one
    // more character. Each star resets the restart point, so the work stays near |p| + |a| per star run.
    qsizetype p = 0, a = 0, star = -1, resume = 0;
    while (a < address.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = a;
        } else if (p < pattern.size() && QChar::toLower(uchar(pattern[p])) == QChar::toLower(uchar(address[a]))) {
            ++p;
            ++a;
        } else if (star >= 0) {
            p = star + 1;
            a = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

bool IsValidRouteName(const QString& name)
{
    if (name.isEmpty() || name.size() > 64 || name.startsWith('.'))
        return false;
    for (const QChar c : name)
        if (!(c.isLetterOrNumber() && c.unicode() < 128) && c != '.' && c != '_' && c != '-')
            return false;
    return true;
}

RouteTable RouteTable::parse(const QByteArray& text, const QString& file)
{
    RouteTable table;
    const auto error = [&](int line, const QString& what) {
        table.errors_.append(QStringLiteral("%1 line %2: %3").arg(file).arg(line).arg(what));
    };

    QList<Section> sections;
    QSet<QString> names;
    bool skipping = false; // inside a section already refused
    int number = 0;
    for (QByteArray line : text.split('\n')) {
        ++number;
        line = line.trimmed();
        if (line.isEmpty() || line.startsWith(';') || line.startsWith('#'))
            continue;
        if (line.startsWith('[')) {
            const QString name = QString::fromUtf8(line.mid(1, line.indexOf(']') - 1)).trimmed();
            skipping = true;
            if (!line.endsWith(']') || !IsValidRouteName(name))
                error(number, QStringLiteral("'%1' is not a route name (letters, digits, '.', '_', '-')")
                                  .arg(QString::fromUtf8(line.left(80))));
            else if (names.contains(name.toLower()))
                error(number, QStringLiteral("route '%1' is defined twice; the first one is kept").arg(name));
            else {
                names.insert(name.toLower());
                sections.append(Section{name, number, {}});
                skipping = false;
            }
            continue;
        }
        if (skipping)
            continue;
        const qsizetype equals = line.indexOf('=');
        if (sections.isEmpty() || equals <= 0) {
            error(number, QStringLiteral("expected '[name]' or 'Key = value'"));
            continue;
        }
        const QString key = QString::fromUtf8(line.left(equals).trimmed()).toLower();
        if (key != QLatin1String("senders") && key != QLatin1String("server") && key != QLatin1String("fallback")) {
            error(number, QStringLiteral("unknown key '%1' (Senders, Server, Fallback)").arg(key.left(40)));
            continue;
        }
        sections.last().fields.insert(key, line.mid(equals + 1).trimmed());
    }

    for (const Section& section : sections) {
        SenderRoute route;
        route.name = section.name;
        for (const QByteArray& pattern : section.fields.value(QStringLiteral("senders")).split(',')) {
            const QByteArray bare = bareAddress(pattern);
            if (bare.isEmpty())
                continue;
            if (bare.size() > kMaxPatternLength)
                error(section.line, QStringLiteral("route '%1': a sender pattern longer than %2 characters is left out")
                                        .arg(route.name).arg(kMaxPatternLength));
            else
                route.senders.append(bare);
        }
        route.server = section.fields.value(QStringLiteral("server"));
        route.route = ParseServerRoute(route.server);
        route.fallback = QString::fromUtf8(section.fields.value(QStringLiteral("fallback")));
        if (route.server.isEmpty() || route.route.host.isEmpty()) {
            error(section.line, QStringLiteral("route '%1' has no Server; it is left out").arg(route.name));
            continue;
        }
        table.routes_.append(route);
    }

    // Fallbacks: to an existing route, never back into the chain.
    for (SenderRoute& route : table.routes_) {
        if (route.fallback.isEmpty())
            continue;
        if (!table.find(route.fallback)) {
            error(0, QStringLiteral("route '%1' falls back to '%2', which is not a route; it has no fallback")
                         .arg(route.name, route.fallback.left(64)));
            route.fallback.clear();
        }
    }
    // A route whose chain comes back to itself loses its fallback, which breaks the loop for all.
    for (SenderRoute& route : table.routes_) {
        QSet<const SenderRoute*> seen;
        for (const SenderRoute* next = table.find(route.fallback); next && !seen.contains(next);
             next = table.find(next->fallback)) {
            if (next == &route) {
                error(0, QStringLiteral("the fallbacks of route '%1' loop back to it; it has no fallback").arg(route.name));
                route.fallback.clear();
                break;
            }
            seen.insert(next);
        }
    }
    return table;
}

const SenderRoute* RouteTable::find(const QString& name) const
{
    if (name.isEmpty())
        return nullptr;
    for (const SenderRoute& route : routes_)
        if (route.name.compare(name, Qt::CaseInsensitive) == 0)
            return &route;
    return nullptr;
}

const SenderRoute* RouteTable::match(const QByteArray& sender) const
{
    const QByteArray address = bareAddress(sender);
    if (address.isEmpty())
        return nullptr;
    for (const SenderRoute& route : routes_)
        for (const QByteArray& pattern : route.senders)
            if (SenderPatternMatches(pattern, address))
                return &route;
    return nullptr;
}

const SenderRoute* RouteTable::forMessage(const QByteArray& sender, const QByteArray& firstRecipient) const
{
    if (bareAddress(sender).isEmpty())
        return match(firstRecipient);
    return match(sender);
}

RouteTable RouteTable::load(const QString& programFolder)
{
    const QString path = QDir(programFolder).filePath(QString::fromLatin1(kRoutesFile));
    QFile file(path);
    if (!file.exists())
        return {};
    if (!file.open(QIODevice::ReadOnly)) {
        RouteTable table;
        table.errors_.append(QStringLiteral("%1: %2").arg(path, file.errorString()));
        return table;
    }
    return parse(file.readAll(), path);
}

QByteArray RouteTable::format(const QList<SenderRoute>& routes)
{
    QByteArray text;
    for (const SenderRoute& route : routes) {
        if (!text.isEmpty())
            text += '\n';
        text += '[' + route.name.toUtf8() + "]\n";
        text += "Senders = " + route.senders.join(", ") + '\n';
        text += "Server = " + route.server + '\n';
        if (!route.fallback.isEmpty())
            text += "Fallback = " + route.fallback.toUtf8() + '\n';
    }
    return text;
}

QList<const SenderRoute*> RouteTable::chain(const SenderRoute& first) const
{
    QList<const SenderRoute*> chain{&first};
    for (const SenderRoute* next = find(first.fallback); next && !chain.contains(next); next = find(next->fallback))
        chain.append(next);
    return chain;
}

} // namespace postiq
