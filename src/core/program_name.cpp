#include "core/program_name.h"

#include <QFileInfo>
#include <cstdio>

#include "core/command_line.h"
#include "core/queue_commands.h"
#include "core/sendmail.h"

namespace postiq {

std::optional<int> RunByProgramName(int argc, char** argv, const QStringList& arguments)
{
    const QString name = QFileInfo(QString::fromLocal8Bit(argc > 0 ? argv[0] : "")).fileName();
    if (name == QLatin1String("sendmail"))
        return RunSendmail(argc, argv, arguments, {});
    if (name != QLatin1String("mailq"))
        return std::nullopt;
    const CommandLine line = parseCommandLine(arguments, false);
    if (!line.error.isEmpty() || !line.control.isEmpty() || line.sendmail
        || (!line.queueCommand.isEmpty() && line.queueCommand != "queue")) {
        std::fprintf(stderr, "mailq: usage: mailq [--folder DIR] [--json]\n");
        return SendmailUsage;
    }
    return RunQueueCommand(argc, argv, {"queue", {}, line.json, line.folder});
}

} // namespace postiq
