#include <gtest/gtest.h>

#include "store/header_words.h"

using namespace postiq;

namespace {
QString decode(const char* value) { return DecodeHeaderWords(QByteArray(value)); }
} // namespace

TEST(HeaderWords, BothEncodingsInUtf8AndLatin1)
{
    EXPECT_EQ(decode("=?UTF-8?B?Q2Fmw6kgw6AgbGEgY3LDqG1l?="), QString("Café à la crème"));
    EXPECT_EQ(decode("=?utf-8?q?Caf=C3=A9_=C3=A0_la_cr=C3=A8me?="), QString("Café à la crème"));
    EXPECT_EQ(decode("=?ISO-8859-1?Q?Caf=E9?="), QString("Café"));
    EXPECT_EQ(decode("=?iso-8859-1?b?Q2Fm6Q==?="), QString("Café"));
    EXPECT_EQ(decode("=?us-ascii?Q?plain?="), QString("plain"));
    // A language after the set; base 64 without its padding.
    EXPECT_EQ(decode("=?utf-8*fr?Q?=C3=A9t=C3=A9?="), QString("été"));
    EXPECT_EQ(decode("=?utf-8?B?w6l0w6k?="), QString("été"));
}

TEST(HeaderWords, BlanksJoinAdjacentWordsButStayAroundPlainText)
{
    // One text split over two words (and a folded line) reads as one.
    EXPECT_EQ(decode("=?utf-8?Q?Bon?=\r\n =?utf-8?Q?jour?="), QString("Bonjour"));
    EXPECT_EQ(decode("Re: =?utf-8?Q?r=C3=A9union?= demain"), QString("Re: réunion demain"));
    EXPECT_EQ(decode("=?utf-8?Q?a?= b =?utf-8?Q?c?="), QString("a b c"));
    // Raw bytes outside words: UTF-8 when valid, Latin-1 otherwise.
    EXPECT_EQ(DecodeHeaderWords("r\xc3\xa9union"), QString("réunion"));
    EXPECT_EQ(DecodeHeaderWords("r\xe9union"), QString("réunion"));
}

TEST(HeaderWords, WhatCannotBeDecodedIsShownAsWritten)
{
    for (const char* hostile : {
             "=?koi8-r?B?5NLV2tjR?=",    // a set this reader does not know
             "=?utf-8?X?abc?=",          // no such encoding
             "=?utf-8?B?@@@@?=",         // not base 64
             "=?utf-8?Q?bad=G1?=",       // not a hexadecimal byte
             "=?utf-8?Q?cut=4?=",        // an escape cut short
             "=?utf-8?Q?=FF=FE?=",       // bytes that are not UTF-8
             "=?us-ascii?Q?=E9?=",       // not ASCII
             "=?utf-8?Q?never closed",   // no end
             "=?utf-8?",                 // cut in the middle
             "=??Q?x?=",                 // no set
             "=?utf-8?Q?a b?=",          // a blank inside
             "=?", "?=", "=", "",
         }) {
        EXPECT_EQ(decode(hostile), QString::fromLatin1(hostile)) << hostile;
    }
    // A broken word beside a good one: the good one is still decoded.
    EXPECT_EQ(decode("=?utf-8?Q?bad=G1?= =?utf-8?Q?=C3=A9?="), QString("=?utf-8?Q?bad=G1?= é"));
}

TEST(HeaderWords, ControlCharactersBecomeBlanksAndHostileSizesStayCheap)
{
    EXPECT_EQ(decode("=?utf-8?Q?a=0D=0Ab=00c?="), QString("a  b c"));
    EXPECT_EQ(DecodeHeaderWords(QByteArray("x\0y\ty", 5)), QString("x y y"));

    // Thousands of openings without an end, then thousands of tiny words: each comes out whole.
    const QByteArray openings = QByteArray("=?a?Q?").repeated(20000);
    const QByteArray words = QByteArray("=?utf-8?Q?=C3=A9?= ").repeated(20000);
    EXPECT_EQ(DecodeHeaderWords(openings), QString::fromLatin1(openings));
    EXPECT_EQ(DecodeHeaderWords(words), QString("é").repeated(20000) + ' ');
}

TEST(HeaderWords, FieldValueIsFoundUnfoldedInTheHeaderBlockOnly)
{
    const QByteArray text = "From: a@b.example\r\n"
                            "SUBJECT: =?utf-8?Q?Bon?=\r\n"
                            "\t=?utf-8?Q?jour?=\r\n"
                            "To: c@d.example\r\n"
                            "\r\n"
                            "Subject: not a header, the body\r\n";
    EXPECT_EQ(HeaderFieldValue(text, "Subject"), QByteArray("=?utf-8?Q?Bon?=\t=?utf-8?Q?jour?="));
    EXPECT_EQ(DecodeHeaderWords(HeaderFieldValue(text, "subject")), QString("Bonjour"));
    EXPECT_EQ(HeaderFieldValue(text, "To"), QByteArray("c@d.example"));
    EXPECT_EQ(HeaderFieldValue(text, "Cc"), QByteArray());
    // Bare LF line ends, a field at the very end without a line end, a look-alike name.
    EXPECT_EQ(HeaderFieldValue("X-Subject: no\nSubject: yes", "Subject"), QByteArray("yes"));
    EXPECT_EQ(HeaderFieldValue("\r\nSubject: after the block", "Subject"), QByteArray());
    EXPECT_EQ(HeaderFieldValue("Subject:", "Subject"), QByteArray());
    EXPECT_EQ(HeaderFieldValue(" Subject: a continuation is no field", "Subject"), QByteArray());
}
