// A language file on arbitrary bytes.
#include <QDir>

#include "fuzz_bench.h"
#include "language/language.h"

using namespace postiq;
using namespace postiq::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzBench& bench = Bench();
    static const bool folder = QDir(bench.dir.path()).mkpath(QStringLiteral("language"));
    (void)folder;
    bench.put(QStringLiteral("language/fuzz.ini"), QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    LanguageTable table;
    try {
        table.LOADFile(bench.logs, QStringLiteral("fuzz"));
    } catch (const ProgramEnded&) {
    }
    bench.trimLogs();
    return 0;
}
