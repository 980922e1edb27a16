#include "ui/message_text_view.h"

#include <QFontDatabase>
#include <QVBoxLayout>

#include "log/fault.h"
#include "store/message.h"
#include "store/queue_text_reader.h"

namespace postiq {

QByteArray TextUnstuffer::take(const QByteArray& chunk)
{
    QByteArray out;
    out.reserve(chunk.size());
    for (const char c : chunk) {
        if (pendingDot_) {
            pendingDot_ = false;
            out += '.';
            if (c == '.')
                continue; // the doubled dot: one is shown
        }
        if (c == '\r')
            continue; // the CR of CR LF: the viewer has its own line ends
        if (atLineStart_ && c == '.') {
            pendingDot_ = true;
            atLineStart_ = false;
            continue;
        }
        out += c;
        atLineStart_ = c == '\n';
    }
    return out;
}

QByteArray TextUnstuffer::finish()
{
    const bool dot = pendingDot_;
    pendingDot_ = false;
    return dot ? QByteArray(".") : QByteArray();
}

MessageTextView::MessageTextView(const Queue& queue, Logs& logs, QueueFolder folder, const QByteArray& id,
                                 Texts texts, QWidget* parent)
    : QWidget(parent, Qt::Window), texts_(std::move(texts))
{
    setObjectName(QStringLiteral("frmMessageText"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(texts_.title.arg(QString::fromLatin1(id)));
    text_ = new QPlainTextEdit(this);
    text_->setObjectName(QStringLiteral("txtMessage"));
    text_->setReadOnly(true);
    text_->setLineWrapMode(QPlainTextEdit::NoWrap);
    text_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(text_);
    resize(760, 520);

    chunkTimer_.setInterval(0);
    connect(&chunkTimer_, &QTimer::timeout, this, &MessageTextView::readChunk);
    CMessage head(logs);
    try {
        reader_ = std::make_unique<QueueTextReader>(queue, folder, id, head);
        chunkTimer_.start();
    } catch (const Fault& fault) {
        text_->setPlainText(texts_.unreadable.arg(fault.description()));
    }
}

MessageTextView::~MessageTextView() = default;

void MessageTextView::readChunk()
{
    try {
        const QByteArray chunk = reader_->read(std::min(kChunk, kCap - shown_));
        shown_ += chunk.size();
        QByteArray bytes = unstuffer_.take(chunk);
        if (reader_->atEnd())
            bytes += unstuffer_.finish();
        text_->moveCursor(QTextCursor::End);
        text_->insertPlainText(decoder_.decode(bytes));
        if (reader_->atEnd())
            stop({});
        else if (shown_ >= kCap)
            stop(texts_.truncated.arg(reader_->left()));
    } catch (const Fault& fault) {
        stop(texts_.unreadable.arg(fault.description()));
    }
}

void MessageTextView::stop(const QString& lastLine)
{
    chunkTimer_.stop();
    reader_.reset();
    if (!lastLine.isEmpty())
        text_->appendPlainText(QStringLiteral("\n") + lastLine);
    text_->moveCursor(QTextCursor::Start);
}

} // namespace postiq
