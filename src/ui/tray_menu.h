#pragma once

#include <QAction>
#include <QMenu>

namespace postiq {

// The pop-up menu of the tray icon with its entries in order, separators included (each entry and
// separator carries its name as object name, so that a language file can relabel it). The hidden
// entry announces a newer version.
struct TrayMenu {
    explicit TrayMenu(QWidget* parent);

    QMenu* menu;
    QAction* mnuopen;
    QAction* mnuqueue;
    QAction* mnuwintop;
    QAction* mnuconfig;
    QAction* mnustart;
    QAction* mnustop;
    QAction* mnureload;
    QAction* mnuflush;
    QAction* mnuseelog;
    QAction* mnuseeerrorlog;
    QAction* mnuupdate;
    QAction* mnuhelp;
    QAction* mnuquit;
    QAction* mnusystrayevent;

    // Start is offered while the service is stopped, stop while it runs.
    void showServiceState(bool started);
};

} // namespace postiq
