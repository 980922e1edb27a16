#include "ui/tray_menu.h"

namespace postiq {

namespace {
QAction* entry(QMenu* menu, const char* name, const QString& caption)
{
    QAction* action = menu->addAction(caption);
    action->setObjectName(QLatin1String(name));
    return action;
}

void separator(QMenu* menu, const char* name) { menu->addSeparator()->setObjectName(QLatin1String(name)); }
} // namespace

TrayMenu::TrayMenu(QWidget* parent) : menu(new QMenu(QStringLiteral("Postiq"), parent))
{
    menu->setObjectName(QStringLiteral("mnusystray"));
    mnuopen = entry(menu, "mnuopen", QStringLiteral("Ouvrir"));
    mnuqueue = entry(menu, "mnuqueue", QStringLiteral("File d'attente ..."));
    mnuwintop = entry(menu, "mnuwintop", QStringLiteral("Fenêtre toujours devant"));
    mnuwintop->setCheckable(true);
    separator(menu, "mnusep0");
    mnuconfig = entry(menu, "mnuconfig", QStringLiteral("Configuration ..."));
    separator(menu, "mnusep1");
    mnustart = entry(menu, "mnustart", QStringLiteral("Démarrer"));
    mnustop = entry(menu, "mnustop", QStringLiteral("Arrêter"));
    mnureload = entry(menu, "mnureload", QStringLiteral("Recharger"));
    mnuflush = entry(menu, "mnuflush", QStringLiteral("Forcer (deferred)"));
    mnuseelog = entry(menu, "mnuseelog", QStringLiteral(".: Voir fichier log ::"));
    mnuseeerrorlog = entry(menu, "mnuseeerrorlog", QStringLiteral(".: Voir fichier error ::"));
    separator(menu, "mnusep4");
    mnuupdate = entry(menu, "mnuupdate", QStringLiteral("Vérifier mises à jour"));
    separator(menu, "mnusep2");
    mnuhelp = entry(menu, "mnuhelp", QStringLiteral("Aide"));
    separator(menu, "mnusep3");
    mnuquit = entry(menu, "mnuquit", QStringLiteral("Quitter"));
    mnusystrayevent = entry(menu, "mnusystrayevent", QStringLiteral("Nouvelle version"));
    mnusystrayevent->setVisible(false);
    // The default entry is drawn in bold.
    menu->setDefaultAction(mnuquit);
    showServiceState(false);
}

void TrayMenu::showServiceState(bool started)
{
    mnustart->setEnabled(!started);
    mnustop->setEnabled(started);
}

} // namespace postiq
