#pragma once

#include <QPlainTextEdit>
#include <QStringDecoder>
#include <QTimer>
#include <memory>

#include "store/queue.h"

namespace postiq {

class Logs;
class QueueTextReader;

// Undoes the dot doubling of a queued text chunk by chunk, and keeps one kind of line end, so that
// the viewer shows the text as its recipients get it.
class TextUnstuffer {
public:
    QByteArray take(const QByteArray& chunk);
    QByteArray finish();

private:
    bool atLineStart_ = true;
    bool pendingDot_ = false;
};

// A read-only window with the text of one queued message, read in chunks, one per turn of the
// event loop, up to a cap: a message of any size opens at once and costs at most the cap.
class MessageTextView : public QWidget {
    Q_OBJECT
public:
    static constexpr qint64 kChunk = 64 * 1024;
    static constexpr qint64 kCap = 4 * 1024 * 1024;

    struct Texts {
        QString title = QStringLiteral("Message %1");
        QString truncated = QStringLiteral("[... texte tronqué : %1 octets de plus]");
        QString unreadable = QStringLiteral("Lecture impossible : %1");
    };

    MessageTextView(const Queue& queue, Logs& logs, QueueFolder folder, const QByteArray& id, Texts texts,
                    QWidget* parent = nullptr);
    ~MessageTextView() override;

    QPlainTextEdit& text() { return *text_; }
    bool loading() const { return chunkTimer_.isActive(); }

private:
    void readChunk();
    void stop(const QString& lastLine);

    Texts texts_;
    QPlainTextEdit* text_ = nullptr;
    std::unique_ptr<QueueTextReader> reader_;
    TextUnstuffer unstuffer_;
    QStringDecoder decoder_{QStringDecoder::Utf8};
    qint64 shown_ = 0;
    QTimer chunkTimer_;
};

} // namespace postiq
