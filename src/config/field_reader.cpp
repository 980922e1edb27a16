#include "config/field_reader.h"

namespace postiq {

FieldReader::FieldReader(const QByteArray& utf8Bytes) : text_(QString::fromUtf8(utf8Bytes))
{
    // A byte-order mark would otherwise glue itself to the first key.
    if (text_.startsWith(QChar(0xFEFF)))
        pos_ = 1;
}

bool FieldReader::atLineEnd() const
{
    return pos_ >= text_.size() || text_[pos_] == u'\n' || text_[pos_] == u'\r';
}

void FieldReader::skipLineEnd()
{
    if (pos_ < text_.size() && text_[pos_] == u'\r')
        ++pos_;
    if (pos_ < text_.size() && text_[pos_] == u'\n')
        ++pos_;
}

QString FieldReader::next()
{
    while (pos_ < text_.size() && text_[pos_] == u' ')
        ++pos_;
    const QString item = (pos_ < text_.size() && text_[pos_] == u'"') ? readQuoted() : readPlain();
    finishItem();
    return item;
}

QString FieldReader::readQuoted()
{
    const qsizetype start = ++pos_;
    while (!atLineEnd() && text_[pos_] != u'"')
        ++pos_;
    const QString item = text_.mid(start, pos_ - start);
    if (!atLineEnd())
        ++pos_; // the closing quote
    // Whatever follows the closing quote belongs to no item.
    while (!atLineEnd() && text_[pos_] != u',')
        ++pos_;
    return item;
}

QString FieldReader::readPlain()
{
    const qsizetype start = pos_;
    while (!atLineEnd() && text_[pos_] != u',')
        ++pos_;
    return text_.mid(start, pos_ - start);
}

// Consumes the delimiter that ended the item: a comma, or a line end.
void FieldReader::finishItem()
{
    if (pos_ < text_.size() && text_[pos_] == u',')
        ++pos_;
    else
        skipLineEnd();
}

QStringList ReadFields(const QByteArray& utf8Bytes)
{
    QStringList items;
    FieldReader reader(utf8Bytes);
    while (!reader.atEnd())
        items.append(reader.next());
    return items;
}

QString TrimSpaces(const QString& text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin] == u' ')
        ++begin;
    while (end > begin && text[end - 1] == u' ')
        --end;
    return text.mid(begin, end - begin);
}

} // namespace postiq
