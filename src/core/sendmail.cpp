#include "core/sendmail.h"

#include <QFileInfo>

#include <QCoreApplication>
#include <QFile>
#include <cstdio>

#include "core/local_submission.h"
#include "core/mail_folder.h"
#include "core/queue_commands.h"
#include "core/relay_request.h"
#include "log/dates.h"
#include "core/quiet_logs.h"
#include "platform/linux_network.h"
#include "platform/login_name.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"
#include "store/queue.h"

namespace postiq {

namespace {

// The same limit as for a message received over SMTP.
constexpr qint64 kMaxMessage = 64 * 1024 * 1024;
constexpr std::chrono::seconds kNudgeTime{3};

// How an option takes its value: none (the exact word), a value (attached or the next argument),
// or anything attached, ignored.
enum class Takes { Nothing, Value, AnythingAttached };

struct OptionRow {
    const char* name; // without the dash
    Takes takes;
    void (*apply)(SendmailOptions&, const QByteArray& value);
};

void ignore(SendmailOptions&, const QByteArray&) {}

// Checked in order: longer names before the shorter ones they start with.
constexpr OptionRow kOptions[] = {
    {"t", Takes::Nothing, [](SendmailOptions& o, const QByteArray&) { o.recipientsFromHeaders = true; }},
    {"i", Takes::Nothing, [](SendmailOptions& o, const QByteArray&) { o.dotEnds = false; }},
    {"oi", Takes::Nothing, [](SendmailOptions& o, const QByteArray&) { o.dotEnds = false; }},
    {"f", Takes::Value, [](SendmailOptions& o, const QByteArray& v) { o.sender = v; }},
    {"r", Takes::Value, [](SendmailOptions& o, const QByteArray& v) { o.sender = v; }}, // the old name of -f
    {"F", Takes::Value, [](SendmailOptions& o, const QByteArray& v) { o.fullName = v; }},
    {"v", Takes::Nothing, [](SendmailOptions& o, const QByteArray&) { o.verbose = true; }},
    {"bp", Takes::Nothing, [](SendmailOptions& o, const QByteArray&) { o.listQueue = true; }},
    {"bm", Takes::Nothing, ignore},              // read a message: what it does anyway
    {"o", Takes::AnythingAttached, ignore},      // -oem, -oee, -odi, -odb, -oQ/dir and the other settings
    {"e", Takes::AnythingAttached, ignore},      // -em, -ee: error reports, always by mail
    {"B", Takes::Value, ignore},                 // body type
    {"N", Takes::Value, ignore},                 // delivery status notifications
    {"R", Takes::Value, ignore},                 // what a bounce returns
    {"V", Takes::Value, ignore},                 // envelope id
    {"L", Takes::Value, ignore},                 // log tag
    {"C", Takes::Value, ignore},                 // another configuration file
    {"h", Takes::Value, ignore},                 // hop count
    {"U", Takes::Nothing, ignore},               // initial user submission
    {"G", Takes::Nothing, ignore},               // gateway submission
    {"m", Takes::Nothing, ignore},               // "me too": the sender is never left out anyway
};

bool matches(const OptionRow& row, const QByteArray& option)
{
    const QByteArray name(row.name);
    return row.takes == Takes::Nothing ? option == name : option.startsWith(name);
}

QByteArray readStandardInput(bool* tooBig)
{
    QByteArray input;
    char buffer[65536];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
        input.append(buffer, qsizetype(got));
        if (input.size() > kMaxMessage) {
            *tooBig = true;
            return {};
        }
    }
    return input;
}

// One line in the relay's mail log, if this user may write it; a queued message never fails for it.
void noteInMailLog(const QString& folder, const QByteArray& line)
{
    QFile log(folder + QStringLiteral("/maillog.txt"));
    if (log.open(QIODevice::Append))
        log.write(line + "\r\n");
}

int fail(int status, const QString& text)
{
    std::fprintf(stderr, "sendmail: %s\n", qPrintable(text));
    return status;
}

} // namespace

SendmailOptions ParseSendmailOptions(const QStringList& arguments)
{
    SendmailOptions options;
    bool optionsEnded = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (optionsEnded || !argument.startsWith('-') || argument == QLatin1String("-")) {
            options.recipients.append(argument.toUtf8());
            continue;
        }
        if (argument == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }
        if (argument == QLatin1String("--folder") || argument.startsWith(QLatin1String("--folder="))) {
            options.folder = argument.size() > 8 ? argument.mid(9) : arguments.value(++i);
            if (options.folder.isEmpty()) {
                options.error = QStringLiteral("--folder needs a folder");
                return options;
            }
            continue;
        }
        const QByteArray option = argument.mid(1).toUtf8();
        const OptionRow* row = nullptr;
        for (const OptionRow& candidate : kOptions) {
            if (matches(candidate, option)) {
                row = &candidate;
                break;
            }
        }
        if (!row) {
            options.error = QStringLiteral("unknown option %1").arg(argument);
            return options;
        }
        QByteArray value;
        if (row->takes == Takes::Value) {
            value = option.mid(qsizetype(qstrlen(row->name)));
            if (value.isEmpty()) {
                if (i + 1 >= arguments.size()) {
                    options.error = QStringLiteral("%1 needs a value").arg(argument);
                    return options;
                }
                value = arguments[++i].toUtf8();
            }
        }
        row->apply(options, value);
    }
    return options;
}

int RunSendmail(int argc, char** argv, const QStringList& arguments, const QString& folderOption)
{
    SendmailOptions options = ParseSendmailOptions(arguments);
    if (!options.error.isEmpty())
        return fail(SendmailUsage, options.error);
    if (options.folder.isEmpty())
        options.folder = folderOption;
    if (options.listQueue)
        return RunQueueCommand(argc, argv, QueueCommand{"queue", {}, false, options.folder});

    QCoreApplication app(argc, argv);
    const QString folder = MailFolder(options.folder);

    bool tooBig = false;
    SubmissionRequest request;
    request.input = readStandardInput(&tooBig);
    if (tooBig)
        return fail(SendmailBadMessage, QStringLiteral("the message is larger than 64 MB"));
    request.dotEnds = options.dotEnds;
    request.recipientsFromHeaders = options.recipientsFromHeaders;
    request.recipients = options.recipients;
    request.sender = options.sender;
    request.fullName = options.fullName;
    request.login = LoginName();
    request.hostName = LinuxNetworkDiscovery().query().hostName.toUtf8();
    if (request.hostName.isEmpty())
        request.hostName = "localhost";
    const SystemClock clock;
    request.date = Rfc5322Date(clock);
    request.messageId = SerialDate(clock) + '.' + DrawQueueName();

    // The envelope first, for the number of files the message makes; then the text, with its ID.
    Submission submission;
    QString problem;
    if (PrepareSubmission(request, &submission, &problem) != SubmissionProblem::None)
        return fail(SendmailBadMessage, problem);

    QuietLogs quiet(folder);
    CMessage message(quiet.logs);
    message.From = submission.sender;
    for (const QByteArray& recipient : std::as_const(submission.recipients))
        message.AddRcptTo(recipient);

    Queue queue(folder);
    QByteArrayList names;
    try {
        // A fresh folder gets its three queue folders; a drop box (the system relay's OutBox, which
        // every user may write) is used as it is: the caller could not create the others there.
        if (!QFileInfo(queue.folderPath(QueueFolder::OutBox)).isDir())
            queue.createMissingFolders();
        request.id = queue.freshGroupName(Queue::partsOf(message));
        PrepareSubmission(request, &submission, &problem);
        message.Data = submission.data;
        names = queue.enqueue(message, request.id);
    } catch (const QueueFault& fault) {
        return fail(fault.diskFull() ? SendmailTemporary : SendmailCannotCreate,
                    QStringLiteral("cannot queue the message in %1: %2").arg(folder, fault.description()));
    }

    noteInMailLog(folder, GMTDate(clock) + " Postiq/sendmail: " + names.join(' ') + " from=" + submission.sender
                              + " to=" + submission.recipients.join(',') + " status=outbox");
    if (options.verbose) {
        for (const QByteArray& name : std::as_const(names))
            std::printf("postiq: queued as %s in %s\n", name.constData(), qPrintable(folder));
    }
    // A relay that runs sends it now; without one it waits in OutBox for the next start.
    QString answer;
    AskRunningRelay(folder, "dispatch", kNudgeTime, &answer);
    return SendmailQueued;
}

} // namespace postiq
