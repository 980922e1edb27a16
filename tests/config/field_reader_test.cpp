#include <gtest/gtest.h>

#include "config/field_reader.h"

using namespace postiq;

namespace {

struct FieldCase {
    const char* name;
    QByteArray bytes;
    QStringList items;
};

void PrintTo(const FieldCase& c, std::ostream* os) { *os << c.name; }

class FieldReaderTest : public ::testing::TestWithParam<FieldCase> {};

TEST_P(FieldReaderTest, SplitsIntoItems)
{
    EXPECT_EQ(ReadFields(GetParam().bytes), GetParam().items);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, FieldReaderTest,
    ::testing::Values(
        FieldCase{"Empty", "", {}},
        FieldCase{"CommaAndCrLf", "a,b\r\nc\r\n", {"a", "b", "c"}},
        FieldCase{"BareLfAndNoFinalNewline", "a\nb", {"a", "b"}},
        FieldCase{"EmptyLinesAreEmptyItems", "a\r\n\r\n\nb", {"a", "", "", "b"}},
        FieldCase{"LeadingSpacesSkippedTrailingKept", "   a b  ,  c\n", {"a b  ", "c"}},
        FieldCase{"TabsAreNotSkipped", "\tkey\tOff\n", {"\tkey\tOff"}},
        FieldCase{"QuotedKeepsCommas", "\"a, b\"\r\nc", {"a, b", "c"}},
        FieldCase{"TextAfterClosingQuoteDropped", "  \"a\" junk,b\n", {"a", "b"}},
        FieldCase{"QuoteInsideItemIsKept", "x=\"y\",z", {"x=\"y\"", "z"}},
        FieldCase{"UnterminatedQuoteEndsAtLineEnd", "\"open, still\r\nnext", {"open, still", "next"}},
        FieldCase{"LoneQuoteAtEnd", "\"", {""}},
        FieldCase{"CommaBeforeLineEndGivesEmptyItem", "a,\nb", {"a", "", "b"}},
        FieldCase{"ByteOrderMarkIgnored", "\xEF\xBB\xBFkey", {"key"}},
        FieldCase{"Utf8Decoded", "dièse\n", {QString::fromUtf8("dièse")}}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
