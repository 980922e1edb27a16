#pragma once

#include <QObject>

class QSocketNotifier;

namespace postiq {

// SIGINT and SIGTERM delivered as an ordinary event of the event loop, so that the program quits
// the way its menu does. The signals are blocked and read from a signal descriptor: no handler
// runs at an arbitrary point and nothing global is needed.
class QuitSignals : public QObject {
    Q_OBJECT
public:
    // Blocks SIGINT and SIGTERM for this thread and the threads it starts later; call it first
    // thing in main(), before any other thread exists.
    static void blockInProcess();

    explicit QuitSignals(QObject* parent = nullptr);
    ~QuitSignals() override;

signals:
    void quitRequested();

private:
    void readSignal();

    int fd_ = -1;
    QSocketNotifier* notifier_ = nullptr;
};

} // namespace postiq
