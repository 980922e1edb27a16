#include <gtest/gtest.h>

#include <QDir>

#include "store/queue_folder.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

TEST(QueueFolder, FindsTheFolderWhateverItsCase)
{
    struct Case {
        const char* name;
        QStringList folders;
        QStringList files;
        QString expected;
    };
    const Case cases[] = {
        {"no folder yet: the name as given", {}, {}, "OutBox"},
        {"the exact name", {"OutBox"}, {}, "OutBox"},
        {"another case", {"outbox"}, {}, "outbox"},
        {"the exact name wins over another case", {"OUTBOX", "OutBox"}, {}, "OutBox"},
        {"a file of that name is not the folder", {}, {"outbox"}, "OutBox"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        for (const QString& folder : test.folders)
            QDir(bench.dir.path()).mkdir(folder);
        for (const QString& file : test.files)
            writeFile(bench.path(file), "x");
        EXPECT_EQ(QueueFolder(bench.dir.path(), QStringLiteral("OutBox")), bench.path(test.expected));
    }
}
