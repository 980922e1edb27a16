#include "core/registry_housekeeping.h"

#include "log/version.h"
#include "platform/desktop.h"
#include "platform/registry.h"

namespace postiq {

namespace {
const QString kOldKey = QStringLiteral("Software\\Postiq");
const QString kProgramKey = QStringLiteral("Software\\Groupe Valbrin\\Postiq");
const QString kTitle = QStringLiteral("Information Postiq");

void removeOldVersionRecords(Registry& registry, Desktop& desktop)
{
    if (!registry.valueExists(kOldKey, QStringLiteral("System")))
        return;
    const QString question =
        QStringLiteral("\r\nLes enregistrements d'une version ancienne de Postiq ont été trouvés dans le registre !"
                       "\r\nCes enregistrements ne sont plus utiles et occupent inutilement de l'espace."
                       "\r\nSouhaitez-vous que Postiq supprime ces enregistrements ?");
    if (desktop.askYesNo(kTitle, question)) {
        registry.deleteKey(kOldKey + QStringLiteral("\\Configuration"));
        registry.deleteKey(kOldKey);
    }
}

void removeOtherVersionRecord(Registry& registry, Desktop& desktop)
{
    if (registry.readValue(kProgramKey, QStringLiteral("System")) != QLatin1String("Installed"))
        return;
    const QString installed = registry.readValue(kProgramKey, QStringLiteral("Version"));
    if (installed == AppVersion())
        return;
    const QString question =
        QStringLiteral("\r\n\r\nSelon votre base de registre, il semblerait qu'une autre version de Postiq soit déjà installée !")
        + QStringLiteral("\r\nVersion détectée: ") + installed
        + QStringLiteral("\r\nVersion à installer: ") + AppVersion()
        + QStringLiteral("\r\nDésinstaller toute autre version de Postiq avant l'installation de celle-ci ...")
        + QStringLiteral("\r\nSouhaitez-vous que Postiq supprime ces enregistrements du registre ?");
    if (desktop.askYesNo(kTitle, question)) {
        registry.deleteKey(kProgramKey + QStringLiteral("\\Configuration"));
        registry.deleteKey(kProgramKey);
    }
}

void writeFirstRunRecord(Registry& registry)
{
    if (registry.readValue(kProgramKey, QStringLiteral("System")) == QLatin1String("Installed"))
        return;
    registry.createKey(kProgramKey);
    registry.writeValue(kProgramKey, QStringLiteral("System"), QStringLiteral("Installed"));
    registry.writeValue(kProgramKey, QStringLiteral("Version"), AppVersion());
    registry.writeValue(kProgramKey, QStringLiteral("Copyrights"), QString::fromUtf8(kRightsNotice));
    registry.writeValue(kProgramKey, QStringLiteral("Copyrights2"), QString::fromUtf8(kProductWeb.address));
    registry.createKey(kProgramKey + QStringLiteral("\\Configuration"));
}
} // namespace

void maintainInstallationRecord(Registry& registry, Desktop& desktop)
{
    removeOldVersionRecords(registry, desktop);
    removeOtherVersionRecord(registry, desktop);
    writeFirstRunRecord(registry);
}

} // namespace postiq
