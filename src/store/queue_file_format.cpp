#include "store/queue_file_format.h"

#include <QtEndian>

#include "log/fault.h"
#include "store/message.h"

// Queue file layout. Numbers are little-endian, with no padding, header, magic or trailer.
// The members follow one another in this order:
//
//   ID         string
//   TxtEng     string
//   TxtFr      string
//   Essai      1 byte
//   LastError  string
//   ForSender  2 bytes: 00 00 for false, FF FF for true (any other non-zero value reads as true)
//   From       string
//   RcptTo     10-byte array descriptor, then each element from index 0 up as a string:
//                2 bytes  number of dimensions, always 1
//                4 bytes  number of elements, unsigned: recipient count + 1 (1 to 256)
//                4 bytes  lower bound, signed, always 0
//   Data       string
//
// A string is an unsigned 16-bit byte count followed by the bytes, unconverted and without
// terminator. A text of 65535 bytes or more (a large message body) does not fit that count: it
// is stored as the escape value FF FF followed by an unsigned 32-bit byte count, then the bytes.
// A reader therefore takes FF FF as "the real count follows in 4 bytes".
//
// Example: ID "ABC123", empty warning texts, Essai 0, no last error, ForSender false,
// From "<a@b.cd>", one recipient "<x@y.com>", Data "hi" CR LF:
//   06 00 "ABC123"  00 00  00 00  00  00 00  00 00  08 00 "<a@b.cd>"
//   01 00 02 00 00 00 00 00 00 00  00 00  09 00 "<x@y.com>"  04 00 "hi" 0D 0A
//
// Bytes after the end of the record are ignored, so that a stray line end added by an editor
// does not make the message unreadable.

namespace postiq {

namespace {

constexpr quint16 kLongStringEscape = 0xFFFF;
constexpr quint32 kMaxElements = 256; // index 0 plus at most 255 recipients

class RecordWriter {
public:
    explicit RecordWriter(QIODevice& device) : device_(device) {}

    void bytes(const char* data, qint64 size)
    {
        if (device_.write(data, size) != size)
            throw Fault(ErrFileAccess,
                        QStringLiteral("Cannot write the queue file: %1").arg(device_.errorString()));
    }
    template <typename Number>
    void number(Number value)
    {
        const Number little = qToLittleEndian(value);
        bytes(reinterpret_cast<const char*>(&little), sizeof little);
    }
    void string(const QByteArray& text)
    {
        if (text.size() < kLongStringEscape) {
            number<quint16>(quint16(text.size()));
        } else {
            if (quint64(text.size()) > 0xFFFFFFFFu)
                throw Fault(ErrOverflow, QStringLiteral("A text of %1 bytes is too long for a queue file")
                                             .arg(text.size()));
            number<quint16>(kLongStringEscape);
            number<quint32>(quint32(text.size()));
        }
        bytes(text.constData(), text.size());
    }

private:
    QIODevice& device_;
};

class RecordReader {
public:
    explicit RecordReader(QIODevice& device)
        : device_(device), remaining_(device.size() - device.pos())
    {
    }

    QByteArray bytes(qint64 size, const char* what)
    {
        if (size > remaining_)
            throw Fault(ErrPastEndOfFile,
                        QStringLiteral("The queue file ends inside its %1 (%2 bytes needed, %3 left)")
                            .arg(QLatin1String(what))
                            .arg(size)
                            .arg(remaining_));
        QByteArray data = device_.read(size);
        if (data.size() != size)
            throw Fault(ErrPastEndOfFile,
                        QStringLiteral("The queue file could not be read whole at its %1: %2")
                            .arg(QLatin1String(what), device_.errorString()));
        remaining_ -= size;
        return data;
    }
    template <typename Number>
    Number number(const char* what)
    {
        const QByteArray data = bytes(sizeof(Number), what);
        return qFromLittleEndian<Number>(data.constData());
    }
    QByteArray string(const char* what)
    {
        qint64 size = number<quint16>(what);
        if (size == kLongStringEscape)
            size = number<quint32>(what);
        return bytes(size, what);
    }

private:
    QIODevice& device_;
    qint64 remaining_;
};

} // namespace

void WriteQueueRecordHead(QIODevice& device, const CMessage& message)
{
    RecordWriter out(device);
    out.string(message.ID);
    out.string(message.TxtEng);
    out.string(message.TxtFr);
    out.number<quint8>(message.Essai);
    out.string(message.LastError);
    out.number<quint16>(message.ForSender ? 0xFFFF : 0x0000);
    out.string(message.From);
    const int count = message.MRcptToCount();
    out.number<quint16>(1);
    out.number<quint32>(quint32(count) + 1);
    out.number<qint32>(0);
    for (int index = 0; index <= count; ++index)
        out.string(message.RcptTo(index));
}

void WriteQueueRecord(QIODevice& device, const CMessage& message)
{
    WriteQueueRecordHead(device, message);
    RecordWriter(device).string(message.Data);
}

QByteArray LongTextCount(quint32 size)
{
    QByteArray count(6, '\0');
    qToLittleEndian<quint16>(kLongStringEscape, count.data());
    qToLittleEndian<quint32>(size, count.data() + 2);
    return count;
}

qint64 ReadQueueRecordHead(QIODevice& device, CMessage& message)
{
    RecordReader in(device);
    message.MClear();
    message.ID = in.string("ID");
    message.TxtEng = in.string("English warning text");
    message.TxtFr = in.string("French warning text");
    message.Essai = in.number<quint8>("attempt count");
    message.LastError = in.string("last error");
    message.ForSender = in.number<quint16>("sender-notice flag") != 0;
    message.From = in.string("sender");

    const quint16 dimensions = in.number<quint16>("recipient list");
    const quint32 elements = in.number<quint32>("recipient list");
    const qint32 lowerBound = in.number<qint32>("recipient list");
    if (dimensions != 1 || elements < 1 || elements > kMaxElements || lowerBound != 0)
        throw Fault(ErrBadFileFormat,
                    QStringLiteral("The queue file's recipient list is malformed (%1 dimensions, "
                                   "%2 elements from %3)")
                        .arg(dimensions)
                        .arg(elements)
                        .arg(lowerBound));
    message.setRcptTo(0, in.string("recipient"));
    for (quint32 index = 1; index < elements; ++index)
        message.AddRcptTo(in.string("recipient"));

    qint64 size = in.number<quint16>("content");
    if (size == kLongStringEscape)
        size = in.number<quint32>("content");
    if (size > device.size() - device.pos())
        throw Fault(ErrPastEndOfFile, QStringLiteral("The queue file ends inside its content (%1 bytes "
                                                     "needed, %2 left)")
                                          .arg(size)
                                          .arg(device.size() - device.pos()));
    return size;
}

void ReadQueueRecord(QIODevice& device, CMessage& message)
{
    const qint64 size = ReadQueueRecordHead(device, message);
    RecordReader in(device);
    message.Data = in.bytes(size, "content");
}

} // namespace postiq
