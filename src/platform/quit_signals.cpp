#include "platform/quit_signals.h"

#include <QSocketNotifier>
#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace postiq {

namespace {
sigset_t quitSignalSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}
} // namespace

void QuitSignals::blockInProcess()
{
    const sigset_t set = quitSignalSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

QuitSignals::QuitSignals(QObject* parent) : QObject(parent)
{
    const sigset_t set = quitSignalSet();
    fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0)
        return; // without it the program still runs; only the signals' clean quit is lost
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitSignals::readSignal);
}

QuitSignals::~QuitSignals()
{
    if (fd_ >= 0)
        ::close(fd_);
}

void QuitSignals::readSignal()
{
    signalfd_siginfo info;
    bool any = false;
    while (::read(fd_, &info, sizeof info) == ssize_t(sizeof info))
        any = true;
    if (any)
        emit quitRequested();
}

} // namespace postiq
