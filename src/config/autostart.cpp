#include "config/autostart.h"

#include <QCoreApplication>

#include "platform/registry.h"
#include "platform/xdg_registry.h"

namespace postiq {

namespace {
const QString kRunValue = QStringLiteral("Postiq");
}

QString AutostartCommand(const QString& programFolder)
{
    return ExecArgument(QCoreApplication::applicationFilePath()) + QStringLiteral(" --folder ")
        + ExecArgument(programFolder);
}

void SetComputerStart(Registry& registry, const QString& programFolder, bool enabled)
{
    const QString runKey = QString::fromLatin1(kRunKey);
    const QString expected = AutostartCommand(programFolder);
    const QString current = registry.readValue(runKey, kRunValue);
    if (enabled) {
        if (current != expected)
            registry.writeValue(runKey, kRunValue, expected);
    } else if (current == expected) {
        registry.deleteValue(runKey, kRunValue);
    }
}

} // namespace postiq
