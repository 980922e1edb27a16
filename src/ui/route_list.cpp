#include "ui/route_list.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

namespace postiq {

namespace {
constexpr int kMaxPatternLength = 1024; // as Routes.ini keeps them

bool hasControl(const QString& text)
{
    for (const QChar c : text)
        if (c.category() == QChar::Other_Control || c == QChar::LineSeparator || c == QChar::ParagraphSeparator)
            return true;
    return false;
}

QList<QByteArray> splitSenders(const QString& senders)
{
    QList<QByteArray> patterns;
    for (const QString& pattern : senders.split(u',')) {
        const QString bare = pattern.trimmed();
        if (!bare.isEmpty())
            patterns.append(bare.toLower().toUtf8());
    }
    return patterns;
}

bool acceptableSenders(const QString& senders)
{
    if (hasControl(senders))
        return false;
    for (const QByteArray& pattern : splitSenders(senders))
        if (pattern.size() > kMaxPatternLength || pattern.contains(' ') || pattern.contains('\t'))
            return false;
    return true;
}
} // namespace

RouteDraft DraftOf(const SenderRoute& route)
{
    return {route.name, QString::fromUtf8(route.senders.join(", ")), QString::fromUtf8(route.server), route.fallback};
}

bool IsAcceptableServer(const QString& server)
{
    static const QRegularExpression hostName(QStringLiteral("^[A-Za-z0-9_]([A-Za-z0-9._-]*[A-Za-z0-9_])?$"));
    static const QRegularExpression v6Address(QStringLiteral("^[0-9A-Fa-f:.]*:[0-9A-Fa-f:.]*$"));
    const QString text = server.trimmed();
    if (text.isEmpty() || hasControl(text) || text.contains(u' '))
        return false;
    const qsizetype scheme = text.indexOf(QLatin1String("://"));
    if (scheme >= 0) {
        const QString name = text.left(scheme).toLower();
        if (name != QLatin1String("smtp") && name != QLatin1String("smtps"))
            return false;
    } else if (text.contains(u'@')) {
        return false; // a plain server logs in nowhere: a login here is a typing slip
    }
    const ServerRoute route = ParseServerRoute(text.toUtf8());
    if (route.host.contains(u'/'))
        return false;
    return hostName.match(route.host).hasMatch() || v6Address.match(route.host).hasMatch();
}

RouteList::RouteList(const QList<SenderRoute>& routes)
{
    for (const SenderRoute& route : routes)
        entries_.append({route, route.name, {}});
}

QList<SenderRoute> RouteList::routes() const
{
    QList<SenderRoute> routes;
    for (const Entry& entry : entries_)
        routes.append(entry.route);
    return routes;
}

int RouteList::indexOf(const QString& name, int skipping) const
{
    for (int i = 0; i < entries_.size(); ++i)
        if (i != skipping && entries_[i].route.name.compare(name, Qt::CaseInsensitive) == 0)
            return i;
    return -1;
}

DraftProblem RouteList::check(const RouteDraft& draft, int replacing) const
{
    const QString name = draft.name.trimmed();
    if (!IsValidRouteName(name))
        return DraftProblem::BadName;
    if (indexOf(name, replacing) >= 0)
        return DraftProblem::NameTaken;
    if (!acceptableSenders(draft.senders))
        return DraftProblem::BadSenders;
    if (!IsAcceptableServer(draft.server))
        return DraftProblem::BadServer;
    const QString fallback = draft.fallback.trimmed();
    if (fallback.isEmpty())
        return DraftProblem::None;
    if (fallback.compare(name, Qt::CaseInsensitive) == 0)
        return DraftProblem::FallbackLoop;
    if (indexOf(fallback, replacing) < 0)
        return DraftProblem::NoSuchFallback;

    // Follow the chain from the fallback, as the list would be with the draft in it: coming back
    // to the draft (under its old name or its new one) is a loop.
    const QString oldName = replacing >= 0 ? entries_[replacing].route.name.toLower() : QString();
    QHash<QString, QString> next;
    for (int i = 0; i < entries_.size(); ++i)
        if (i != replacing)
            next.insert(entries_[i].route.name.toLower(), entries_[i].route.fallback.toLower());
    QSet<QString> seen;
    for (QString at = fallback.toLower(); !at.isEmpty() && !seen.contains(at); at = next.value(at)) {
        if (at == name.toLower() || at == oldName)
            return DraftProblem::FallbackLoop;
        seen.insert(at);
    }
    return DraftProblem::None;
}

void RouteList::put(const RouteDraft& draft, const QByteArray& password, int replacing)
{
    SenderRoute route;
    route.name = draft.name.trimmed();
    route.senders = splitSenders(draft.senders);
    route.server = draft.server.trimmed().toUtf8();
    route.route = ParseServerRoute(route.server);
    route.fallback = draft.fallback.trimmed();
    modified_ = true;
    if (replacing < 0) {
        entries_.append({route, QString(), password});
        return;
    }
    Entry& entry = entries_[replacing];
    const QString oldName = entry.route.name;
    entry.route = route;
    if (!password.isEmpty())
        entry.password = password;
    for (Entry& other : entries_)
        if (other.route.fallback.compare(oldName, Qt::CaseInsensitive) == 0)
            other.route.fallback = route.name;
}

QStringList RouteList::remove(int index)
{
    const Entry gone = entries_.takeAt(index);
    if (!gone.storedAs.isEmpty())
        removed_.append(gone.storedAs);
    modified_ = true;
    QStringList orphans;
    for (Entry& other : entries_)
        if (other.route.fallback.compare(gone.route.name, Qt::CaseInsensitive) == 0) {
            other.route.fallback.clear();
            orphans.append(other.route.name);
        }
    return orphans;
}

QStringList RouteList::forgotten() const
{
    QStringList names = removed_;
    for (const Entry& entry : entries_)
        if (!entry.storedAs.isEmpty() && entry.storedAs != entry.route.name)
            names.append(entry.storedAs);
    return names;
}

void RouteList::markWritten()
{
    for (Entry& entry : entries_) {
        entry.storedAs = entry.route.name;
        entry.password.clear();
    }
    removed_.clear();
    modified_ = false;
}

} // namespace postiq
