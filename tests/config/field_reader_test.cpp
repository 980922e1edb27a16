#include <gtest/gtest.h>

#include "config/field_reader.h"

using namespace postiq;

namespace {

TEST(ReadFields, SplitsIntoItems)
{
    const struct {
        QByteArray bytes;
        QStringList items;
    } cases[] = {
        {"", {}},
        {"a,b\r\nc\nd\re", {"a", "b", "c", "d", "e"}},
        {"a\r\n\r\n\nb", {"a", "", "", "b"}},               // empty lines are empty items
        {"a,\nb", {"a", "", "b"}},
        {"   a b  ,  c\n", {"a b  ", "c"}},                 // leading spaces skipped, trailing kept
        {"  \"a\" junk,b\n", {"a", "b"}},                    // text after the closing quote dropped
        {"x=\"y\",z", {"x=\"y\"", "z"}},                     // a quote inside an item is kept
        {"\"open, still\r\nnext", {"open, still", "next"}},  // an open quote ends at the line end
        {"\"", {""}},
        {"\xEF\xBB\xBFkey", {"key"}},
        {"di\xC3\xA8se\n", {QString::fromUtf8("di\xC3\xA8se")}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ReadFields(c.bytes), c.items) << c.bytes.toStdString();
}

} // namespace
