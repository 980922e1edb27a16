#include <gtest/gtest.h>

#include "smtp_in/line_reader.h"
#include "support/mail_client.h"

using namespace postiq;

// Lines come out whole and in order however the bytes were cut; a CR at the very end waits for
// what follows it.
TEST(LineReader, YieldsWholeCommandAndTextLinesWhateverThePackets)
{
    LineReader reader;
    reader.append("HELO a\r\nMAIL");
    EXPECT_EQ(reader.nextCommand(), QByteArray("HELO a"));
    EXPECT_EQ(reader.nextCommand(), std::nullopt);
    reader.append(" x\r");
    EXPECT_EQ(reader.nextCommand(), std::nullopt);
    reader.append("\nDATA\r\na\r\nb\nc\rd\r");
    EXPECT_EQ(reader.nextCommand(), QByteArray("MAIL x"));
    EXPECT_EQ(reader.nextCommand(), QByteArray("DATA"));
    const auto text = [&] {
        const auto line = reader.nextTextLine();
        return line ? line->text + (line->crLf ? "|crlf" : "|bare") : QByteArray("none");
    };
    EXPECT_EQ(text(), "a|crlf");
    EXPECT_EQ(text(), "b|bare");
    EXPECT_EQ(text(), "c|bare");
    EXPECT_EQ(text(), "none");
    EXPECT_EQ(reader.held(), 2);
    reader.append("\n");
    EXPECT_EQ(text(), "d|crlf");

    // A long text line comes out in pieces, so that it is never held whole: each piece as soon as
    // enough of it is there, its end with the last piece, a CR at the very end still waiting.
    QByteArray whole;
    for (int i = 0; i < 1000; ++i) {
        reader.append(QByteArray(999, 'x') + (i == 999 ? "\r" : "x"));
        while (const auto piece = reader.nextTextLine()) {
            EXPECT_GE(piece->text.size(), LineReader::kMostTextPiece);
            EXPECT_FALSE(piece->ended);
            whole += piece->text;
        }
        ASSERT_LT(reader.held(), LineReader::kMostTextPiece + 1000);
    }
    reader.append("\nQUIT\r\n");
    const auto last = reader.nextTextLine();
    ASSERT_TRUE(last && last->ended && last->crLf);
    EXPECT_EQ(whole + last->text, QByteArray(1000 * 1000 - 1, 'x'));
    EXPECT_EQ(reader.nextCommand(), QByteArray("QUIT"));
    EXPECT_EQ(reader.held(), 0);
}
