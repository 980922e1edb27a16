// libldns, and with it libssl and libcrypto, loaded on the first DNS question instead of at start:
// a relay that only receives, or sends through a fixed server, never maps them (about 2 MB of its
// resident memory at idle). Each ldns function the lookups call is defined here under its own
// name, so that the code that asks stays plain ldns; the definition finds the library's own
// function once and hands over to it. This file is compiled with hidden visibility, so that
// libldns's calls to itself never come back here.
#include "dns/ldns_on_demand.h"

#include <QtGlobal>

#include <ldns/ldns.h>

#include <dlfcn.h>

namespace postiq {

namespace {
void* ldnsLibrary()
{
    // The run-time name of the library the build found; the unversioned name serves a system
    // whose library moved on to a newer soname with the same functions.
    static void* const handle = [] {
        void* opened = dlopen("libldns.so.3", RTLD_NOW | RTLD_LOCAL);
        return opened ? opened : dlopen("libldns.so", RTLD_NOW | RTLD_LOCAL);
    }();
    return handle;
}

void* ldnsFunction(const char* name)
{
    void* const function = ldnsLibrary() ? dlsym(ldnsLibrary(), name) : nullptr;
    // Unreachable: every lookup checks LdnsLoaded() before it calls into the library.
    if (!function)
        qFatal("postiq: %s is missing from libldns", name);
    return function;
}
} // namespace

bool LdnsLoaded() { return ldnsLibrary() != nullptr; }

} // namespace postiq

#define POSTIQ_LDNS_ON_DEMAND(Result, name, parameters, arguments)                                       \
    Result name parameters                                                                                \
    {                                                                                                     \
        static const auto function = reinterpret_cast<Result(*) parameters>(postiq::ldnsFunction(#name)); \
        return function arguments;                                                                        \
    }

POSTIQ_LDNS_ON_DEMAND(int, ldns_dname_compare, (const ldns_rdf* dname1, const ldns_rdf* dname2), (dname1, dname2))
POSTIQ_LDNS_ON_DEMAND(ldns_rr_list*, ldns_pkt_additional, (const ldns_pkt* p), (p))
POSTIQ_LDNS_ON_DEMAND(ldns_rr_list*, ldns_pkt_answer, (const ldns_pkt* p), (p))
POSTIQ_LDNS_ON_DEMAND(void, ldns_pkt_free, (ldns_pkt * packet), (packet))
POSTIQ_LDNS_ON_DEMAND(ldns_pkt_rcode, ldns_pkt_get_rcode, (const ldns_pkt* p), (p))
POSTIQ_LDNS_ON_DEMAND(uint16_t, ldns_pkt_id, (const ldns_pkt* p), (p))
POSTIQ_LDNS_ON_DEMAND(bool, ldns_pkt_qr, (const ldns_pkt* p), (p))
POSTIQ_LDNS_ON_DEMAND(int, ldns_rdf_compare, (const ldns_rdf* rd1, const ldns_rdf* rd2), (rd1, rd2))
POSTIQ_LDNS_ON_DEMAND(uint8_t*, ldns_rdf_data, (const ldns_rdf* rd), (rd))
POSTIQ_LDNS_ON_DEMAND(void, ldns_rdf_deep_free, (ldns_rdf * rd), (rd))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf_type, ldns_rdf_get_type, (const ldns_rdf* rd), (rd))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf*, ldns_rdf_new_frm_data, (ldns_rdf_type type, size_t size, const void* data),
                      (type, size, data))
POSTIQ_LDNS_ON_DEMAND(size_t, ldns_rdf_size, (const ldns_rdf* rd), (rd))
POSTIQ_LDNS_ON_DEMAND(uint16_t, ldns_rdf2native_int16, (const ldns_rdf* rd), (rd))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_deep_free, (ldns_resolver * res), (res))
POSTIQ_LDNS_ON_DEMAND(ldns_resolver*, ldns_resolver_new, (void), ())
POSTIQ_LDNS_ON_DEMAND(ldns_status, ldns_resolver_prepare_query_pkt,
                      (ldns_pkt * *q, ldns_resolver* r, const ldns_rdf* name, ldns_rr_type t, ldns_rr_class c,
                       uint16_t f),
                      (q, r, name, t, c, f))
POSTIQ_LDNS_ON_DEMAND(ldns_status, ldns_resolver_push_nameserver, (ldns_resolver * r, const ldns_rdf* n), (r, n))
POSTIQ_LDNS_ON_DEMAND(ldns_status, ldns_resolver_send_pkt, (ldns_pkt * *answer, ldns_resolver* r, ldns_pkt* query),
                      (answer, r, query))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_defnames, (ldns_resolver * r, bool b), (r, b))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_dnsrch, (ldns_resolver * r, bool b), (r, b))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_dnssec, (ldns_resolver * r, bool b), (r, b))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_fallback, (ldns_resolver * r, bool fallback), (r, fallback))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_port, (ldns_resolver * r, uint16_t p), (r, p))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_random, (ldns_resolver * r, bool b), (r, b))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_recursive, (ldns_resolver * r, bool b), (r, b))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_retrans, (ldns_resolver * r, uint8_t re), (r, re))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_retry, (ldns_resolver * r, uint8_t re), (r, re))
POSTIQ_LDNS_ON_DEMAND(void, ldns_resolver_set_timeout, (ldns_resolver * r, struct timeval timeout), (r, timeout))
POSTIQ_LDNS_ON_DEMAND(ldns_rr_type, ldns_rr_get_type, (const ldns_rr* rr), (rr))
POSTIQ_LDNS_ON_DEMAND(ldns_rr*, ldns_rr_list_rr, (const ldns_rr_list* rr_list, size_t nr), (rr_list, nr))
POSTIQ_LDNS_ON_DEMAND(size_t, ldns_rr_list_rr_count, (const ldns_rr_list* rr_list), (rr_list))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf*, ldns_rr_mx_exchange, (const ldns_rr* r), (r))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf*, ldns_rr_mx_preference, (const ldns_rr* r), (r))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf*, ldns_rr_owner, (const ldns_rr* rr), (rr))
POSTIQ_LDNS_ON_DEMAND(size_t, ldns_rr_rd_count, (const ldns_rr* rr), (rr))
POSTIQ_LDNS_ON_DEMAND(ldns_rdf*, ldns_rr_rdf, (const ldns_rr* rr, size_t nr), (rr, nr))
POSTIQ_LDNS_ON_DEMAND(uint32_t, ldns_rr_ttl, (const ldns_rr* rr), (rr))
