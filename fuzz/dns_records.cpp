// The text of a DNS answer ("Order" 0xA4 "Host" 0xA4 "TTL" "|" ...) on arbitrary bytes, then sorted
// as a lookup does.
#include "dns/resolver.h"
#include "fuzz_bench.h"
#include "log/fault.h"

using namespace postiq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    CMXServer list;
    try {
        const int count = CDns::AddLookupRecords(list, QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
        CDns::SortMx(count, list, true);
    } catch (const Fault&) {
    }
    return 0;
}
