#include "store/header_words.h"

#include <QStringDecoder>
#include <optional>

namespace postiq {

namespace {

constexpr qsizetype kLongestWordText = 1000;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Raw header bytes: UTF-8 when they are valid UTF-8, else Latin-1, which every byte is.
QString fromHeaderBytes(const QByteArray& bytes)
{
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = utf8.decode(bytes);
    if (!utf8.hasError())
        return text;
    return QString::fromLatin1(bytes);
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::optional<QByteArray> decodeQ(const QByteArray& text)
{
    QByteArray bytes;
    bytes.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '_') {
            bytes += ' ';
        } else if (c == '=') {
            if (i + 2 >= text.size())
                return std::nullopt;
            const int high = hexValue(text[i + 1]);
            const int low = hexValue(text[i + 2]);
            if (high < 0 || low < 0)
                return std::nullopt;
            bytes += char(high * 16 + low);
            i += 2;
        } else {
            bytes += c;
        }
    }
    return bytes;
}

std::optional<QByteArray> decodeB(const QByteArray& text)
{
    const auto result = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    if (!result)
        return std::nullopt;
    return result.decoded;
}

// The text of a word's bytes in its character set; nothing for a set this reader does not know
// or bytes that set cannot hold.
std::optional<QString> inCharset(QByteArray charset, const QByteArray& bytes)
{
    // "utf-8*en": a language may follow the set.
    if (const qsizetype star = charset.indexOf('*'); star >= 0)
        charset.truncate(star);
    charset = charset.toLower();
    if (charset == "utf-8" || charset == "utf8") {
        QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = utf8.decode(bytes);
        if (utf8.hasError())
            return std::nullopt;
        return text;
    }
    if (charset == "iso-8859-1" || charset == "iso8859-1" || charset == "latin1" || charset == "l1")
        return QString::fromLatin1(bytes);
    if (charset == "us-ascii" || charset == "ascii") {
        for (const char c : bytes) {
            if (static_cast<unsigned char>(c) > 0x7f)
                return std::nullopt;
        }
        return QString::fromLatin1(bytes);
    }
    return std::nullopt;
}

// One encoded word at `from` ("=?" there): its end (one past "?=") and its text, or nothing when
// the bytes there are no whole word.
struct Word {
    qsizetype end = 0;
    std::optional<QString> text; // nothing: a word in form that cannot be decoded
};

std::optional<Word> encodedWordAt(const QByteArray& value, qsizetype from)
{
    const qsizetype charsetEnd = value.indexOf('?', from + 2);
    if (charsetEnd < 0 || charsetEnd == from + 2 || charsetEnd + 2 >= value.size() || value[charsetEnd + 2] != '?')
        return std::nullopt;
    const qsizetype textStart = charsetEnd + 3;
    // A word is short (75 bytes by the rules, a little more from careless programs): looking no
    // further keeps a value full of "=?" from costing a search to its end for each.
    const qsizetype textEnd = value.left(textStart + kLongestWordText).indexOf("?=", textStart);
    if (textEnd < 0)
        return std::nullopt;
    const QByteArray charset = value.mid(from + 2, charsetEnd - from - 2);
    const QByteArray text = value.mid(textStart, textEnd - textStart);
    for (const char c : charset + text) {
        if (isBlank(c) || c == '?')
            return std::nullopt; // a word holds no blank: this is not one
    }
    Word word{textEnd + 2, std::nullopt};
    const char encoding = value[charsetEnd + 1];
    std::optional<QByteArray> bytes;
    if (encoding == 'Q' || encoding == 'q')
        bytes = decodeQ(text);
    else if (encoding == 'B' || encoding == 'b')
        bytes = decodeB(text);
    if (bytes)
        word.text = inCharset(charset, *bytes);
    return word;
}

// Control characters would break the one line a value is shown on.
QString withoutControls(QString text)
{
    for (QChar& c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            c = u' ';
    }
    return text;
}

} // namespace

QString DecodeHeaderWords(const QByteArray& value)
{
    QString decoded;
    QByteArray plain;          // raw bytes waiting since the last word
    bool afterWord = false;    // the last thing decoded was a word
    qsizetype i = 0;
    while (i < value.size()) {
        if (value[i] == '=' && i + 1 < value.size() && value[i + 1] == '?') {
            if (const std::optional<Word> word = encodedWordAt(value, i); word && word->text) {
                // Only blanks between two words: they join.
                bool onlyBlanks = true;
                for (const char c : plain)
                    onlyBlanks = onlyBlanks && isBlank(c);
                if (!(afterWord && onlyBlanks))
                    decoded += fromHeaderBytes(plain);
                plain.clear();
                decoded += *word->text;
                afterWord = true;
                i = word->end;
                continue;
            }
        }
        plain += value[i];
        ++i;
    }
    decoded += fromHeaderBytes(plain);
    return withoutControls(decoded);
}

QByteArray HeaderFieldValue(const QByteArray& text, const QByteArray& name)
{
    const QByteArray wanted = name.toLower() + ':';
    QByteArray value;
    bool inField = false;
    qsizetype start = 0;
    while (start < text.size()) {
        qsizetype end = text.indexOf('\n', start);
        if (end < 0)
            end = text.size();
        QByteArray line = text.mid(start, end - start);
        start = end + 1;
        if (line.endsWith('\r'))
            line.chop(1);
        if (line.isEmpty())
            break; // the end of the header block
        const bool continuation = line[0] == ' ' || line[0] == '\t';
        if (inField) {
            if (!continuation)
                return value.trimmed();
            value += line; // unfolding keeps the blank that began the line
            continue;
        }
        if (!continuation && line.size() >= wanted.size() && line.left(wanted.size()).toLower() == wanted) {
            inField = true;
            value = line.mid(wanted.size());
        }
    }
    return value.trimmed();
}

} // namespace postiq
