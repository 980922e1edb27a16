#include "platform/quit_signals.h"

#include <QSocketNotifier>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
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

// A signal handler is given nothing but the signal number, so the write end of the pipe has to be
// where it can find it: the one place in the program where state is process-wide, owned by at most
// one QuitSignals at a time.
std::atomic<int> handlerPipe{-1};
static_assert(std::atomic<int>::is_always_lock_free, "the handler may only touch lock-free state");

extern "C" void postQuitByte(int)
{
    const int savedErrno = errno;
    const int fd = handlerPipe.load(std::memory_order_relaxed);
    if (fd >= 0) {
        const char byte = 'q';
        [[maybe_unused]] const ssize_t written = ::write(fd, &byte, 1); // a full pipe already says quit
    }
    errno = savedErrno;
}

void setQuitSignalsBlocked(bool blocked)
{
    const sigset_t set = quitSignalSet();
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}
} // namespace

void QuitSignals::blockInProcess() { setQuitSignalsBlocked(true); }

void QuitSignals::unblockInProcess() { setQuitSignalsBlocked(false); }

QuitSignals::QuitSignals(QObject* parent, Mechanism preferred) : QObject(parent)
{
    if (preferred == Mechanism::SignalDescriptor && openSignalDescriptor())
        return;
    if (preferred != Mechanism::DefaultAction && installHandlers())
        return;
    useDefaultAction();
}

QuitSignals::~QuitSignals()
{
    delete notifier_; // before its descriptor is closed
    switch (mechanism_) {
    case Mechanism::SignalDescriptor:
        break;
    case Mechanism::HandlerPipe:
        // Back to where the object found things: blocked first, so that nothing is lost while the
        // handlers go.
        setQuitSignalsBlocked(true);
        sigaction(SIGINT, &previousInt_, nullptr);
        sigaction(SIGTERM, &previousTerm_, nullptr);
        handlerPipe.store(-1);
        ::close(pipeWrite_);
        break;
    case Mechanism::DefaultAction:
        setQuitSignalsBlocked(true);
        break;
    }
    if (fd_ >= 0)
        ::close(fd_);
}

bool QuitSignals::openSignalDescriptor()
{
    const sigset_t set = quitSignalSet();
    fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0)
        return false;
    // Signals that came before this point are still pending and make the descriptor readable at
    // once, so the first turn of the event loop takes them.
    mechanism_ = Mechanism::SignalDescriptor;
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitSignals::readSignal);
    return true;
}

bool QuitSignals::installHandlers()
{
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
        return false;
    int none = -1;
    if (!handlerPipe.compare_exchange_strong(none, fds[1])) { // another object holds the handlers
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    struct sigaction action {};
    action.sa_handler = postQuitByte;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    const bool intInstalled = sigaction(SIGINT, &action, &previousInt_) == 0;
    if (!intInstalled || sigaction(SIGTERM, &action, &previousTerm_) != 0) {
        if (intInstalled)
            sigaction(SIGINT, &previousInt_, nullptr);
        handlerPipe.store(-1);
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    mechanism_ = Mechanism::HandlerPipe;
    fd_ = fds[0];
    pipeWrite_ = fds[1];
    notifier_ = new QSocketNotifier(fd_, QSocketNotifier::Read);
    connect(notifier_, &QSocketNotifier::activated, this, &QuitSignals::readPipe);
    setQuitSignalsBlocked(false); // a pending signal runs its handler now and waits in the pipe
    return true;
}

void QuitSignals::useDefaultAction()
{
    mechanism_ = Mechanism::DefaultAction;
    setQuitSignalsBlocked(false);
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

void QuitSignals::readPipe()
{
    char bytes[16];
    bool any = false;
    while (::read(fd_, bytes, sizeof bytes) > 0)
        any = true;
    if (any)
        emit quitRequested();
}

} // namespace postiq
