#pragma once

#include <QObject>
#include <csignal>

class QSocketNotifier;

namespace postiq {

// SIGINT and SIGTERM delivered as an ordinary event of the event loop, so that the program quits
// the way its menu does. The signals are blocked from the start of main() and read from a signal
// descriptor: no handler runs at an arbitrary point. A signal that comes while they are blocked
// stays pending, so create this object once start-up is over (after any question box) and the
// signal is taken at the first turn of the event loop.
//
// When no signal descriptor can be had, ordinary handlers write to a pipe that the event loop
// reads instead; when even that fails, the signals are unblocked so that their default action
// still ends the program. A quit signal is never left blocked with nobody to read it.
class QuitSignals : public QObject {
    Q_OBJECT
public:
    enum class Mechanism {
        SignalDescriptor, // blocked signals read from a signalfd
        HandlerPipe,      // handlers that write to a self-pipe
        DefaultAction,    // unblocked, the signals end the program without an orderly quit
    };

    // Blocks SIGINT and SIGTERM for this thread and the threads it starts later; call it first
    // thing in main(), before any other thread exists.
    static void blockInProcess();
    // Lets SIGINT and SIGTERM end this thread's process again by their default action, for a
    // short-lived run that never reads them.
    static void unblockInProcess();

    // `preferred` lets a test start lower down the list of mechanisms.
    explicit QuitSignals(QObject* parent = nullptr, Mechanism preferred = Mechanism::SignalDescriptor);
    ~QuitSignals() override;
    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

    Mechanism mechanism() const { return mechanism_; }

signals:
    void quitRequested();

private:
    bool openSignalDescriptor();
    bool installHandlers();
    void useDefaultAction();
    void readSignal();
    void readPipe();

    Mechanism mechanism_ = Mechanism::DefaultAction;
    int fd_ = -1;          // the signalfd, or the read end of the pipe
    int pipeWrite_ = -1;   // the write end of the pipe, for the handlers
    struct sigaction previousInt_ {};
    struct sigaction previousTerm_ {};
    QSocketNotifier* notifier_ = nullptr;
};

} // namespace postiq
