// The queue-file reader on arbitrary bytes: a record it accepts is written and read back the same.
#include <QBuffer>
#include <cstdlib>

#include "fuzz_bench.h"
#include "store/message.h"
#include "store/queue_file_format.h"

using namespace postiq;
using namespace postiq::fuzz;

namespace {
bool same(const CMessage& a, const CMessage& b)
{
    if (a.MRcptToCount() != b.MRcptToCount())
        return false;
    for (int i = 0; i <= a.MRcptToCount(); ++i)
        if (a.RcptTo(i) != b.RcptTo(i))
            return false;
    return a.ID == b.ID && a.TxtEng == b.TxtEng && a.TxtFr == b.TxtFr && a.Essai == b.Essai
        && a.LastError == b.LastError && a.ForSender == b.ForSender && a.From == b.From && a.Data == b.Data;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzBench& bench = Bench();
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), qsizetype(size));
    QBuffer input(&bytes);
    input.open(QIODevice::ReadOnly);
    CMessage message(bench.logs);
    try {
        ReadQueueRecord(input, message);
    } catch (const Fault&) {
        return 0;
    }
    QBuffer output;
    output.open(QIODevice::WriteOnly);
    WriteQueueRecord(output, message);
    output.close();
    output.open(QIODevice::ReadOnly);
    CMessage again(bench.logs);
    ReadQueueRecord(output, again); // a fault here escapes: what was written must read back
    if (!same(message, again))
        std::abort();
    return 0;
}
