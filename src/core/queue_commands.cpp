#include "core/queue_commands.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cstdio>

#include "config/config_file.h"
#include "config/configuration.h"
#include "core/mail_folder.h"
#include "core/relay_request.h"
#include "core/quiet_logs.h"
#include "delivery/route_table.h"
#include "delivery/server_route.h"
#include "store/message.h"
#include "store/queue.h"

namespace postiq {

namespace {

constexpr std::chrono::seconds kAnswerTime{10};

// What a listing shows of one message.
struct Listed {
    QueueEntry entry;
    bool readable = false;
    QString problem;
    int attempts = 0;
    QByteArray sender;
    QByteArrayList recipients;
    QByteArray lastError;
    // The way it will leave: "route" (with the route's name), "SmtpServer" or "MX", and the
    // server as host:port (never the login).
    QByteArray via;
    QString route;
    QByteArray server;
};

// Where the relay would send mail now: the routes of Routes.ini, else SmtpServer when Postiq.ini
// sets it, else the recipients' mail exchangers.
struct Ways {
    RouteTable routes;
    std::optional<QByteArray> smtpServer;

    static Ways of(const QString& folder)
    {
        Ways ways{RouteTable::load(folder), std::nullopt};
        CConfiguration user;
        try {
            ReadConfigFile(QDir(folder).filePath(QString::fromLatin1(kConfigFileName)), user);
        } catch (const Fault&) {
            // No file, or one the relay itself refuses: the built-in default, no fixed server.
        }
        if (user.SmtpServerDefined)
            ways.smtpServer = user.SmtpServer.toUtf8();
        return ways;
    }

    void choose(Listed& one) const
    {
        if (const SenderRoute* route = routes.forMessage(one.sender, one.recipients.value(0))) {
            one.via = "route";
            one.route = route->name;
            one.server = route->route.hostAndPort();
        } else if (smtpServer) {
            one.via = "SmtpServer";
            one.server = ParseServerRoute(*smtpServer).hostAndPort();
        } else {
            one.via = "MX";
        }
    }
};

// "via route work (smtp.work.example:587)", "via SmtpServer smtp.isp.example:587", "via MX".
QByteArray viaText(const Listed& one)
{
    if (one.via == "route")
        return "via route " + one.route.toUtf8() + " (" + one.server + ')';
    if (one.via == "SmtpServer")
        return "via SmtpServer " + one.server;
    return "via " + one.via;
}

QList<Listed> listQueue(const Queue& queue, Logs& logs, const Ways& ways)
{
    QList<Listed> listed;
    for (const QueueEntry& entry : queue.listAll()) {
        Listed one;
        one.entry = entry;
        CMessage message(logs);
        try {
            queue.readHead(entry.folder, entry.name, message);
            one.readable = true;
            one.attempts = message.Essai;
            one.sender = message.From;
            for (int i = 1; i <= message.MRcptToCount(); ++i)
                one.recipients.append(message.RcptTo(i));
            one.lastError = message.LastError;
            ways.choose(one);
        } catch (const Fault& fault) {
            one.problem = fault.description();
        }
        listed.append(one);
    }
    // By folder, then oldest first: the order in which they wait.
    std::stable_sort(listed.begin(), listed.end(), [](const Listed& a, const Listed& b) {
        if (a.entry.folder != b.entry.folder)
            return a.entry.folder < b.entry.folder;
        if (a.entry.modified != b.entry.modified)
            return a.entry.modified < b.entry.modified;
        return a.entry.name < b.entry.name;
    });
    return listed;
}

int printJson(const QList<Listed>& listed)
{
    QJsonArray messages;
    for (const Listed& one : listed) {
        QJsonObject object{
            {"id", QString::fromLatin1(one.entry.name)},
            {"folder", QString::fromLatin1(Queue::folderName(one.entry.folder))},
            {"arrival", one.entry.modified.toUTC().toString(Qt::ISODate)},
            {"size", one.entry.size},
        };
        if (one.readable) {
            QJsonArray recipients;
            for (const QByteArray& recipient : one.recipients)
                recipients.append(QString::fromUtf8(recipient));
            object.insert("attempts", one.attempts);
            object.insert("sender", QString::fromUtf8(one.sender));
            object.insert("recipients", recipients);
            object.insert("lastError", QString::fromUtf8(one.lastError));
            object.insert("via", QString::fromLatin1(one.via));
            if (!one.route.isEmpty())
                object.insert("route", one.route);
            if (!one.server.isEmpty())
                object.insert("server", QString::fromUtf8(one.server));
        } else {
            object.insert("unreadable", one.problem);
        }
        messages.append(object);
    }
    std::fputs(QJsonDocument(messages).toJson(QJsonDocument::Indented).constData(), stdout);
    return 0;
}

// A table like mailq's: one block per message, its recipients under it, then the way it leaves.
int printTable(const QList<Listed>& listed)
{
    if (listed.isEmpty()) {
        std::printf("Mail queue is empty\n");
        return 0;
    }
    std::printf("%-12s %-8s %9s  %-19s %5s  %s\n", "ID", "Folder", "Size", "Arrival", "Tries", "Sender/Recipients");
    int counts[3] = {0, 0, 0};
    for (const Listed& one : listed) {
        ++counts[int(one.entry.folder)];
        std::printf("%-12s %-8s %9lld  %-19s %5s  %s\n", one.entry.name.constData(),
                    Queue::folderName(one.entry.folder).constData(), static_cast<long long>(one.entry.size),
                    qPrintable(one.entry.modified.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"))),
                    one.readable ? QByteArray::number(one.attempts).constData() : "?",
                    one.readable ? one.sender.constData() : qPrintable(QStringLiteral("(unreadable: ") + one.problem + ')'));
        if (!one.lastError.isEmpty())
            std::printf("%60s(%s)\n", "", one.lastError.constData());
        for (const QByteArray& recipient : one.recipients)
            std::printf("%60s%s\n", "", recipient.constData());
        if (one.readable)
            std::printf("%60s%s\n", "", viaText(one).constData());
    }
    std::printf("-- %lld message(s): %d in OutBox, %d in Deferred, %d in Error\n",
                static_cast<long long>(listed.size()), counts[0], counts[1], counts[2]);
    return 0;
}

// The text as the recipients get it (the dots that the queue file carries doubled, single again),
// with this system's line ends.
int show(const Queue& queue, Logs& logs, const QByteArray& id)
{
    const std::optional<QueueFolder> folder = queue.find(id);
    if (!folder) {
        std::fprintf(stderr, "postiq: no message %s in the queue\n", id.constData());
        return 1;
    }
    CMessage message(logs);
    try {
        queue.read(*folder, id, message);
    } catch (const Fault& fault) {
        std::fprintf(stderr, "postiq: %s\n", qPrintable(fault.description()));
        return 1;
    }
    QByteArray text;
    QByteArrayList lines = message.Data.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast(); // the last line end starts no line
    for (QByteArray line : std::as_const(lines)) {
        if (line.endsWith('\r'))
            line.chop(1); // printed with this system's line ends
        text += (line.startsWith("..") ? line.mid(1) : line) + '\n';
    }
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    return 0;
}

// retry and delete on a folder where no relay runs: nobody delivers, the files are ours.
int actOnFiles(const Queue& queue, const QueueCommand& command)
{
    const auto answer = [](int status, const QByteArray& text) {
        std::fprintf(status == 0 ? stdout : stderr, "postiq: %s\n", text.constData());
        return status;
    };
    if (command.verb == "retry" && command.argument == "all") {
        QStringList errors;
        const int moved = queue.returnDeferred(std::nullopt, QDateTime::currentDateTime(), &errors);
        if (!errors.isEmpty())
            return answer(1, errors.first().toUtf8());
        if (moved == 0)
            return answer(0, "nothing: no message is deferred");
        return answer(0, QByteArray::number(moved) + " deferred message(s) sent back to OutBox; no relay runs to send them now");
    }
    const QByteArray& id = command.argument;
    const std::optional<QueueFolder> folder = queue.find(id);
    if (!folder)
        return answer(1, "no message " + id + " in the queue");
    try {
        if (command.verb == "delete") {
            queue.remove(*folder, id);
            return answer(0, id + " deleted");
        }
        if (*folder == QueueFolder::OutBox)
            return answer(0, "nothing: " + id + " is already in OutBox");
        queue.backToOutBox(*folder, id);
        return answer(0, id + " sent back to OutBox; no relay runs to send it now");
    } catch (const Fault& fault) {
        return answer(1, fault.description().toUtf8());
    }
}

} // namespace

int RunQueueCommand(int argc, char** argv, const QueueCommand& command)
{
    QCoreApplication app(argc, argv);
    const QString folder = MailFolder(command.folder);
    const Queue queue(folder);
    QuietLogs quiet(folder);
    Logs& logs = quiet.logs;

    if (command.verb == "queue") {
        const Ways ways = Ways::of(folder);
        for (const QString& error : ways.routes.errors())
            std::fprintf(stderr, "postiq: %s\n", qPrintable(error));
        const QList<Listed> listed = listQueue(queue, logs, ways);
        return command.json ? printJson(listed) : printTable(listed);
    }
    if (command.verb == "show")
        return show(queue, logs, command.argument);

    // retry and delete: the running relay acts itself, so that nothing moves under a delivery.
    QString text;
    switch (AskRunningRelay(folder, command.verb + ' ' + command.argument, kAnswerTime, &text)) {
    case ControlRequest::Outcome::Done:
        std::printf("postiq: %s\n", qPrintable(text.startsWith(QLatin1String("ok: ")) ? text.mid(4) : text));
        return 0;
    case ControlRequest::Outcome::Failed:
        std::fprintf(stderr, "postiq: %s\n", qPrintable(text.startsWith(QLatin1String("refused: ")) ? text.mid(9) : text));
        return 1;
    case ControlRequest::Outcome::NotRunning:
        break;
    }
    return actOnFiles(queue, command);
}

} // namespace postiq
