#include "core/relay_commands.h"

#include "core/application.h"
#include "log/dates.h"
#include "platform/clock.h"

namespace postiq {

namespace {

using Command = ControlAnswer (*)(Application&, const QByteArray& argument);

bool beingDelivered(Application& app, const QByteArray& name)
{
    if (app.queue().claimed(name))
        return true;
    for (int i = 0; i <= ConnectionTables::kUpperBound; ++i) {
        const CConnexion& slot = app.tables().CnxOut(i);
        if (slot.Status() != 0 && slot.CurrentOutFile.toLatin1() == name)
            return true;
    }
    return false;
}

void logQueueChange(Application& app, const QByteArray& text)
{
    app.logs().MailLog(GMTDate(app.logs().clock()) + " Postiq: " + text);
}

QByteArray countText(int count, const char* one, const char* many)
{
    return QByteArray::number(count) + ' ' + (count == 1 ? one : many);
}

ControlAnswer start(Application& app, const QByteArray&)
{
    if (app.service().isListening())
        return ControlAnswer::nothingToDo("the SMTP service is already started");
    app.startService();
    if (!app.service().isListening())
        return ControlAnswer::refused("the SMTP service could not start; error.txt says why");
    return ControlAnswer::done("the SMTP service is started");
}

ControlAnswer stop(Application& app, const QByteArray&)
{
    if (!app.service().isListening())
        return ControlAnswer::nothingToDo("the SMTP service is already stopped");
    app.stopService();
    return ControlAnswer::done("the SMTP service is stopped");
}

ControlAnswer reload(Application& app, const QByteArray&)
{
    app.reloadConfiguration();
    return ControlAnswer::done();
}

ControlAnswer quit(Application& app, const QByteArray&)
{
    app.quit();
    return ControlAnswer::done();
}

// Every deferred message back to OutBox, then a dispatch.
ControlAnswer retryAll(Application& app)
{
    if (!app.queue().next(QueueFolder::Deferred)) // from the index: no listing of Deferred
        return ControlAnswer::nothingToDo("no message is deferred");
    QStringList errors;
    const int moved = app.queue().returnDeferred(std::nullopt, app.logs().clock().now(), &errors);
    app.dispatcher().VerifOutBox();
    if (!errors.isEmpty())
        return ControlAnswer::refused(countText(moved, "message", "messages") + " sent back to OutBox, but "
                                      + errors.first().toUtf8());
    return ControlAnswer::done(countText(moved, "deferred message", "deferred messages") + " sent back to OutBox");
}

ControlAnswer flush(Application& app, const QByteArray&) { return retryAll(app); }

ControlAnswer retry(Application& app, const QByteArray& id)
{
    if (id == "all")
        return retryAll(app);
    const std::optional<QueueFolder> folder = app.queue().find(id);
    if (!folder)
        return ControlAnswer::refused("no message " + id + " in the queue");
    if (*folder == QueueFolder::OutBox) {
        app.dispatcher().VerifOutBox();
        return ControlAnswer::nothingToDo(id + " is already in OutBox");
    }
    try {
        app.queue().backToOutBox(*folder, id);
    } catch (const QueueFault& fault) {
        return ControlAnswer::refused(fault.description().toUtf8());
    }
    logQueueChange(app, id + " moved from " + Queue::folderName(*folder) + " to OutBox on request");
    app.dispatcher().VerifOutBox();
    return ControlAnswer::done(id + " sent back to OutBox");
}

ControlAnswer remove(Application& app, const QByteArray& id)
{
    const std::optional<QueueFolder> folder = app.queue().find(id);
    if (!folder)
        return ControlAnswer::refused("no message " + id + " in the queue");
    if (*folder == QueueFolder::OutBox && beingDelivered(app, id))
        return ControlAnswer::refused(id + " is being delivered right now; try again when the delivery is over");
    try {
        app.queue().remove(*folder, id);
    } catch (const QueueFault& fault) {
        return ControlAnswer::refused(fault.description().toUtf8());
    }
    logQueueChange(app, id + " deleted from " + Queue::folderName(*folder) + " on request");
    return ControlAnswer::done(id + " deleted");
}

// A message was queued by another process (the sendmail interface): deliver it now.
ControlAnswer dispatch(Application& app, const QByteArray&)
{
    app.dispatcher().queueChanged();
    return ControlAnswer::done();
}

// Asked by "postiq --show-queue" started while this relay runs.
ControlAnswer showQueue(Application& app, const QByteArray&)
{
    if (!app.showQueueWindow())
        return ControlAnswer::refused("this Postiq runs without windows; --queue lists the queue");
    return ControlAnswer::done();
}

struct Row {
    const char* verb;
    bool takesArgument;
    Command command;
};

constexpr Row kCommands[] = {
    {"start", false, start},
    {"stop", false, stop},
    {"reload", false, reload},
    {"flush", false, flush},
    {"quit", false, quit},
    {"dispatch", false, dispatch},
    {"showqueue", false, showQueue},
    {"retry", true, retry},
    {"delete", true, remove},
};

} // namespace

ControlAnswer CarryOutRelayCommand(Application& application, const QByteArray& verb, const QByteArray& argument)
{
    for (const Row& row : kCommands) {
        if (verb != row.verb)
            continue;
        if (row.takesArgument == argument.isEmpty())
            return ControlAnswer::unknown();
        return row.command(application, argument);
    }
    return ControlAnswer::unknown();
}

} // namespace postiq
