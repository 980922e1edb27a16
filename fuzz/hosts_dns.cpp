// The MX cache file on arbitrary bytes, read from the program folder as at start-up.
#include "dns/dns_cache.h"
#include "fuzz_bench.h"

using namespace postiq;
using namespace postiq::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzBench& bench = Bench();
    static DnsCache cache; // its lookup workers are made once
    cache.DNSCache = {DNSCacheEntry{}};
    cache.DNSCacheIndex.clear();
    bench.put(QStringLiteral("Hosts.dns"), QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    try {
        DNSOpenCache(cache, bench.logs);
    } catch (const ProgramEnded&) {
        // refused with the fatal report: a result, not a crash
    }
    bench.trimLogs();
    return 0;
}
